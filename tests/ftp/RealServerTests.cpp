// What only real servers show.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <thread>

#include "remote/KCConnectionPool.h"
#include "remote/ftp/FTPEngine.h"
#include "tests/support/FTPServerFixture.h"
#include "tests/support/SessionDoubles.h"
#include "tests/support/TemporaryFile.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

struct KindOfServer {
  const char* name;
  FTPServerKind kind;
};

class FTPServers : public testing::TestWithParam<KindOfServer> {
 protected:
  // One server of a kind for all tests.
  static FTPServerFixture& serverOf(FTPServerKind kind) {
    static std::map<FTPServerKind, std::unique_ptr<FTPServerFixture>> sServers;
    auto& server = sServers[kind];
    if (server == nullptr) server = std::make_unique<FTPServerFixture>(kind);
    return *server;
  }

  void SetUp() override {
    registerFTPEngine();
    server = &serverOf(GetParam().kind);
    if (!server->whyNot().empty()) {
      const char* ci = std::getenv("CI");
      ASSERT_FALSE(ci != nullptr && std::string(ci) == "true") << server->whyNot();
      GTEST_SKIP() << server->whyNot();
    }
    root = server->makeTestFolder();
    environment.credentials = server->credentials();
    environment.transcript = transcript;
    engine = EngineRegistry::engineForCredentials(*environment.credentials);
    session = engine->makeSession(environment);
    ASSERT_TRUE(session->logIn(&error)) << error->description();
  }

  std::optional<std::string> download(const std::string& path) {
    const auto file = temporaryFile();
    std::string version;
    if (!session->download(path, *file, 0, &version, control, &error)) return std::nullopt;
    return contentOf(*file);
  }
  bool upload(const std::string& path, const std::string& content) {
    return session->upload(*temporaryFile(content), path, 0, control, &error);
  }
  static double secondsOf(const std::function<void()>& work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  }
  std::vector<RemoteEntry> list(const std::string& path) {
    std::vector<RemoteEntry> entries;
    EXPECT_TRUE(session->list(path, &entries, &error)) << error->description();
    return entries;
  }

  FTPServerFixture* server = nullptr;
  std::string root;
  std::shared_ptr<KeptTranscript> transcript = std::make_shared<KeptTranscript>();
  SessionEnvironment environment;
  std::shared_ptr<Engine> engine;
  std::unique_ptr<Session> session;
  KeptControl control;
  NSErrorRef error;
};

// Some of them: what a test is about is not to be had of the others.
class FTPServersInTheClear : public FTPServers {};
class FTPServersUnderTLS : public FTPServers {};
class FTPServersThatTellOfNames : public FTPServers {};  // how many a file has
class FTPServersOfAUser : public FTPServers {};          // who may not do everything
class FTPServersThatStartAgain : public FTPServers {};

// A client that waits for the wrong thing idles now and then, for hundreds of times as long as a small file
// takes. Then all of many files together take far longer than so many times what one of them usually does.
// How long that is changes with what else the machine does: it is told by questions that take turns with the
// files.
TEST_P(FTPServers, NoneOfManySmallFilesIdles) {
  const size_t count = std::getenv("OMBRA_NIGHTLY") != nullptr ? 2000 : 250;
  constexpr double kTooMuch = 8;
  server->putFile(root + "/file", "content");
  ASSERT_EQ(download(root + "/file"), "content");
  std::vector<double> ratios;
  double files = 0, questions = 0, worst = 0;
  for (size_t i = 0; i < count; ++i) {
    const double question = secondsOf([this] {
      bool isDirectory = false;
      ASSERT_TRUE(session->attributes(root + "/file", &isDirectory, &error).has_value());
    });
    const double file = secondsOf([this, i] { ASSERT_EQ(download(root + "/file"), "content") << i; });
    if (HasFatalFailure()) return;
    files += file;
    questions += question;
    worst = std::max(worst, file);
    ratios.push_back(file / question);
  }
  std::nth_element(ratios.begin(), ratios.begin() + count / 2, ratios.end());
  EXPECT_LT(files, kTooMuch * ratios[count / 2] * questions)
      << files << " s for the files, " << questions << " s for the questions, usually " << ratios[count / 2]
      << " times as much, at worst " << worst << " s";
}

TEST_P(FTPServers, ADownloadIsNotResumedInAFileThatChanged) {
  const std::string path = root + "/file";
  const auto file = temporaryFile();
  std::string version;
  const auto resume = [&] { return session->download(path, *file, 4, &version, control, &error); };
  const auto setDate = [&path](time_t seconds) {
    const timespec date{seconds, 0};
    const std::array<timespec, 2> dates{date, date};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), dates.data(), 0), 0);
  };
  server->putFile(path, "0123456789");
  setDate(1'700'000'000);
  ASSERT_TRUE(session->download(path, *file, 0, &version, control, &error)) << error->description();
  ASSERT_TRUE(resume()) << error->description();

  server->putFile(path, "9876543210");
  setDate(1'700'000'060);
  EXPECT_FALSE(resume());
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitItemChanged)) << "another date: " << error->description();
  server->putFile(path, "9876543210a");
  setDate(1'700'000'000);
  EXPECT_FALSE(resume());
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitItemChanged))
      << "another length: " << error->description();
  EXPECT_EQ(contentOf(*file), "0123456789") << "nothing of two versions is mixed";
}

TEST_P(FTPServers, TemporaryFilesAreNotListed) {
  server->putFile(root + "/.ombra-upload-6FA459EA-EE8A-4CA4-894E-DB77E160355E", "half");
  server->putFile(root + "/.hidden", "x");
  const auto entries = list(root);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].name, ".hidden");
}

// What had been sent along with the refused command is called off.
TEST_P(FTPServers, AListingThatIsRefusedDoesNotEndTheSession) {
  list(root);
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(session->list(root + "/missing", &entries, &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNoSuchItem)) << error->description();
  server->putFile(root + "/file", "content");
  ASSERT_EQ(list(root).size(), 1u);
  EXPECT_EQ(download(root + "/file"), "content");
}

// Servers keep the place where a refused transfer was to begin, for the next one.
TEST_P(FTPServers, ARestartWhoseTransferIsRefusedTouchesNoLaterOne) {
  server->putFile(root + "/file", "content");
  const auto missing = temporaryFile("1234");
  std::string version;
  EXPECT_FALSE(session->download(root + "/missing", *missing, 4, &version, control, &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNoSuchItem)) << error->description();
  EXPECT_EQ(download(root + "/file"), "content");
  EXPECT_FALSE(session->download(root + "/missing", *missing, 4, &version, control, &error));
  ASSERT_TRUE(upload(root + "/file", "new content")) << error->description();
  EXPECT_EQ(server->storedContent(root + "/file"), "new content");
}

TEST_P(FTPServers, AReplacedFileIsAnotherOneWithTheSameModeAndNothingStaysBeside) {
  server->putFile(root + "/file", "old");
  ASSERT_EQ(chmod((root + "/file").c_str(), 0640), 0);
  struct stat before {};
  ASSERT_EQ(stat((root + "/file").c_str(), &before), 0);
  ASSERT_TRUE(upload(root + "/file", "new")) << error->description();
  struct stat after {};
  ASSERT_EQ(stat((root + "/file").c_str(), &after), 0);
  EXPECT_EQ(server->storedContent(root + "/file"), "new");
  EXPECT_EQ(after.st_mode & 07777, 0640u);
  EXPECT_THAT(server->storedNames(root), ElementsAre("file"));
}

TEST_P(FTPServersOfAUser, AFileThatMayNotBeWrittenIsNotReplaced) {
  server->putFile(root + "/file", "old");
  ASSERT_EQ(chmod((root + "/file").c_str(), 0444), 0);
  EXPECT_FALSE(upload(root + "/file", "new"));
  EXPECT_EQ(server->storedContent(root + "/file"), "old");
  EXPECT_THAT(server->storedNames(root), ElementsAre("file"));
}

TEST_P(FTPServersThatTellOfNames, AHardLinkStaysOne) {
  server->putFile(root + "/file", "old");
  ASSERT_EQ(link((root + "/file").c_str(), (root + "/other").c_str()), 0);
  ASSERT_TRUE(upload(root + "/file", "new")) << error->description();
  EXPECT_EQ(server->storedContent(root + "/other"), "new");
}

TEST_P(FTPServers, LinksOfTheServerLeadToTheirTargets) {
  server->makeFolder(root + "/folder");
  server->putFile(root + "/folder/file", "12345");
  ASSERT_EQ(symlink("folder/file", (root + "/toFile").c_str()), 0);
  ASSERT_EQ(symlink("folder", (root + "/toFolder").c_str()), 0);
  const auto entries = list(root);
  ASSERT_EQ(entries.size(), 3u);
  for (const RemoteEntry& entry : entries) {
    if (entry.name == "folder") continue;
    // Servers that follow links by themselves show what is there.
    const bool isFolder = entry.name == "toFolder";
    if (entry.type == kNodeTypeAlias) {
      ASSERT_TRUE(entry.resolution.has_value()) << entry.name;
      EXPECT_EQ(entry.resolution->resolvedPath, root + (isFolder ? "/folder" : "/folder/file"));
      EXPECT_EQ(entry.resolution->isDirectory, isFolder);
      const auto resolved = session->resolveLink(root + "/" + entry.name, &error);
      ASSERT_TRUE(resolved.has_value());
      EXPECT_EQ(resolved->resolvedPath, entry.resolution->resolvedPath);
    } else {
      EXPECT_EQ(entry.type, isFolder ? kNodeTypeFolder : kNodeTypeFile) << entry.name;
    }
  }
  EXPECT_EQ(download(root + "/toFile"), "12345");
}

TEST_P(FTPServers, AnUploadGoesWhereALinkOfTheServerLeads) {
  server->putFile(root + "/target", "old content");
  ASSERT_EQ(symlink("target", (root + "/link").c_str()), 0);
  ASSERT_TRUE(upload(root + "/link", "new")) << error->description();
  EXPECT_EQ(server->storedContent(root + "/target"), "new");
  struct stat item {};
  ASSERT_EQ(lstat((root + "/link").c_str(), &item), 0);
  EXPECT_TRUE(S_ISLNK(item.st_mode));
  EXPECT_THAT(server->storedNames(root), UnorderedElementsAre("link", "target"));
}

TEST_P(FTPServers, ACancelledUploadLeavesTheOldFile) {
  server->putFile(root + "/file", "old");
  control.cancelAt = 1;
  EXPECT_FALSE(upload(root + "/file", std::string(32 << 20, 'x')));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitCancelled)) << error->description();
  EXPECT_EQ(server->storedContent(root + "/file"), "old");
}

TEST_P(FTPServers, AWrongPasswordIsAFailedLogin) {
  const auto wrong = server->credentials();
  wrong->setPassword("wrong");
  environment.credentials = wrong;
  const auto other = engine->makeSession(environment);
  EXPECT_FALSE(other->logIn(&error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitLoginFailed)) << error->description();
}

TEST_P(FTPServers, ThePasswordIsInNoTranscript) {
  ASSERT_TRUE(upload(root + "/file", "content"));
  EXPECT_THAT(transcript->text(), HasSubstr("> PASS ********"));
  EXPECT_THAT(transcript->text(), Not(HasSubstr(server->password())));
}

TEST_P(FTPServersUnderTLS, AVerboseTranscriptTellsHowItIsEncrypted) {
  EXPECT_THAT(transcript->text(), Not(HasSubstr("encrypted with")));
  const auto verbose = server->credentials();
  verbose->setUseVerboseLogging(true);
  environment.credentials = verbose;
  EXPECT_TRUE(engine->makeSession(environment)->logIn(&error)) << error->description();
  EXPECT_THAT(transcript->text(), HasSubstr("* encrypted with TLSv1."));
}

TEST_P(FTPServersUnderTLS, ACertificateThatWasNotAcceptedEndsTheLogin) {
  const auto other = server->credentials();
  other->setOption("fingerprint", "SHA256:AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
  environment.credentials = other;
  transcript->clear();
  const auto refused = engine->makeSession(environment);
  EXPECT_FALSE(refused->logIn(&error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitUntrusted)) << error->description();
  EXPECT_THAT(transcript->text(), Not(HasSubstr("> USER")));
}

TEST_P(FTPServersInTheClear, AServerThatDoesNotEncryptIsNotSpokenToInTheClear) {
  const auto other = server->credentials();
  other->setProtocol(kProtocolFTPExplicitTLS);
  environment.credentials = other;
  transcript->clear();
  const auto refused = EngineRegistry::engineForCredentials(*other)->makeSession(environment);
  EXPECT_FALSE(refused->logIn(&error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNotSupported)) << error->description();
  EXPECT_THAT(transcript->text(), Not(HasSubstr("> USER")));
}

TEST_P(FTPServersThatStartAgain, ADownloadOutlivesTheServersRestart) {
  server->putFile(root + "/file", std::string(32 << 20, 'x'));
  class Breaker final : public ConnectionDelegate {
   public:
    explicit Breaker(FTPServerFixture& broken) : iServer(broken) {}
    bool connection(AbstractConnection&, const TrustQuestion&) override { return true; }
    void connection(AbstractConnection&, uint64_t, double, bool) override {
      if (std::exchange(iIsDone, true)) return;
      iServer.stop();
      EXPECT_TRUE(iServer.restart());
    }
    using ConnectionDelegate::connection;

   private:
    FTPServerFixture& iServer;
    bool iIsDone = false;
  } breaker(*server);
  const auto pool = KCConnectionPool::initWithCredentials(server->credentials(), &error);
  auto connection = pool->acquireConnection();
  connection->setDelegate(&breaker);
  const auto file = temporaryFile();
  uint64_t bytes = 0;
  EXPECT_TRUE(connection->downloadFileAtPath(root + "/file", *file, 0, &bytes, &error));
  EXPECT_EQ(bytes, uint64_t{32} << 20);
  EXPECT_TRUE(contentOf(*file) == std::string(32 << 20, 'x'));
  connection->setDelegate(nullptr);
  pool->releaseConnection(std::move(connection));
  pool->shutDown();
}

// Nobody can tell whether a lost change was made: none may begin on a session that is dead.
TEST_P(FTPServersThatStartAgain, AfterTransfersInARowAChangeOutlivesTheServersRestart) {
  const auto pool = KCConnectionPool::initWithCredentials(server->credentials(), &error);
  server->putFile(root + "/file", "content");
  auto connection = pool->acquireConnection();
  for (int i = 0; i < 3; ++i)
    EXPECT_TRUE(connection->downloadFileAtPath(root + "/file", *temporaryFile(), 0, nullptr, &error));
  pool->releaseConnection(std::move(connection));
  server->stop();
  ASSERT_TRUE(server->restart());
  connection = pool->acquireConnection();
  EXPECT_TRUE(connection->createFolderAtPath(root + "/folder", &error)) << error->description();
  pool->releaseConnection(std::move(connection));
  pool->shutDown();
}

constexpr KindOfServer kVsftpd{"vsftpd", FTPServerKind::kVsftpd};
constexpr KindOfServer kVsftpdTLS{"vsftpdTLS", FTPServerKind::kVsftpdExplicit};
constexpr KindOfServer kProftpd{"proftpd", FTPServerKind::kProftpd};
constexpr KindOfServer kProftpdImplicit{"proftpdImplicit", FTPServerKind::kProftpdImplicit};

std::string nameOfKind(const testing::TestParamInfo<KindOfServer>& one) { return one.param.name; }

INSTANTIATE_TEST_SUITE_P(Real, FTPServers, testing::Values(kVsftpd, kVsftpdTLS, kProftpd, kProftpdImplicit),
                         nameOfKind);
INSTANTIATE_TEST_SUITE_P(Real, FTPServersInTheClear, testing::Values(kVsftpd, kProftpd), nameOfKind);
INSTANTIATE_TEST_SUITE_P(Real, FTPServersUnderTLS, testing::Values(kVsftpdTLS, kProftpdImplicit), nameOfKind);
INSTANTIATE_TEST_SUITE_P(Real, FTPServersThatTellOfNames, testing::Values(kVsftpd, kVsftpdTLS), nameOfKind);
INSTANTIATE_TEST_SUITE_P(Real, FTPServersOfAUser, testing::Values(kVsftpd, kVsftpdTLS), nameOfKind);
INSTANTIATE_TEST_SUITE_P(Real, FTPServersThatStartAgain, testing::Values(kProftpd), nameOfKind);

// A server with room for one: the second session waits for the first to be given back.
TEST(FTPTooMany, SessionsWaitForTheirTurn) {
  registerFTPEngine();
  FTPServerFixture server(FTPServerKind::kProftpd, {"MaxClients 1"});
  if (!server.whyNot().empty()) {
    const char* ci = std::getenv("CI");
    ASSERT_FALSE(ci != nullptr && std::string(ci) == "true") << server.whyNot();
    GTEST_SKIP() << server.whyNot();
  }
  const std::string root = server.makeTestFolder();
  NSErrorRef error;
  const auto pool = KCConnectionPool::initWithCredentials(server.credentials(), &error);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&pool, &root, i] {
      const auto connection = pool->acquireConnection();
      NSErrorRef problem;
      EXPECT_TRUE(connection->createFolderAtPath(root + "/" + std::to_string(i), &problem))
          << problem->description();
      pool->releaseConnection(connection);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(server.storedNames(root).size(), 4u);
  pool->shutDown();
}

}  // namespace
}  // namespace ombra
