// Work over a real sshd and over a local sftp-server, and what happens when the line goes bad.
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "remote/sftp/PipeTransport.h"
#include "tests/sftp/FaultProxy.h"
#include "tests/sftp/SshTest.h"

namespace ombra::test {
namespace {

std::string readFile(const std::string& name) {
  std::ifstream stream(name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), {});
}

class SshTransfer : public SshTest {
 protected:
  // With a limit of silence that is waited out: as short as this machine and its server can keep it.
  int64_t logInImpatiently(const std::shared_ptr<const KCCredentials>& credentials) {
    idleLimit = std::chrono::milliseconds(300);
    int64_t code = logIn(credentials);
    while (code == kQuarnKitTimedOut && idleLimit < std::chrono::seconds(20)) {
      idleLimit *= 2;
      code = logIn(credentials);
    }
    return code;
  }

  std::unique_ptr<NSFileHandle> local = makeLocalFile(NSFileHandle::Kind::kScratch);
};

TEST_F(SshTransfer, BringsAndSendsContentUnchanged) {
  start();
  ASSERT_EQ(0, logIn(keyCredentials())) << error->description();
  const std::string content = pattern(5'000'003);
  const std::string path = remoteFile("content", content);
  std::string version;
  ASSERT_TRUE(session->download(path, *local, 0, &version, control, &error)) << error->description();
  EXPECT_EQ(content, readLocalFile(*local));
  ASSERT_TRUE(session->upload(*local, path + "2", 0, control, &error)) << error->description();
  EXPECT_EQ(content, readFile(path + "2"));
  size_t at = 0;
  ASSERT_TRUE(session->stream(
      [&](std::byte* to, size_t capacity) {
        const size_t count = std::min(capacity, content.size() - at);
        std::copy_n(reinterpret_cast<const std::byte*>(content.data()) + at, count, to);
        at += count;
        return count;
      },
      path + "3", control, &error));
  EXPECT_EQ(content, readFile(path + "3"));
}

TEST_F(SshTransfer, SurvivesKeyExchangesInTheMiddle) {
  start({"RekeyLimit 1M"});
  ASSERT_EQ(0, logIn(keyCredentials())) << error->description();
  const std::string content = pattern(20'000'000);
  const std::string path = remoteFile("content", content);
  ASSERT_TRUE(session->download(path, *local, 0, nullptr, control, &error)) << error->description();
  EXPECT_EQ(content, readLocalFile(*local));
  ASSERT_TRUE(session->upload(*local, path + "2", 0, control, &error)) << error->description();
  EXPECT_EQ(content, readFile(path + "2"));
}

TEST_F(SshTransfer, SurvivesALineThatCutsEverythingIntoSmallPieces) {
  start();
  FaultProxy proxy(server->port());
  proxy.fragment(7);
  auto credentials = keyCredentials();
  credentials->setPort(proxy.port());
  ASSERT_EQ(0, logIn(credentials)) << error->description();
  const std::string content = pattern(200'000);
  const std::string path = remoteFile("content", content);
  ASSERT_TRUE(session->download(path, *local, 0, nullptr, control, &error)) << error->description();
  EXPECT_EQ(content, readLocalFile(*local));
  ASSERT_TRUE(session->upload(*local, path + "2", 0, control, &error)) << error->description();
  EXPECT_EQ(content, readFile(path + "2"));
}

TEST_F(SshTransfer, ADownloadThatIsCutOffResumesOnAFreshSessionAtTheByteItReached) {
  start();
  FaultProxy proxy(server->port());
  auto credentials = keyCredentials();
  credentials->setPort(proxy.port());
  ASSERT_EQ(0, logIn(credentials)) << error->description();
  const std::string content = pattern(8'000'000);
  const std::string path = remoteFile("content", content);
  proxy.cutAfter(proxy.arrived() + 3'000'000);
  std::string version;
  EXPECT_FALSE(session->download(path, *local, 0, &version, control, &error));
  EXPECT_EQ(kQuarnKitConnectionLost, codeOf(error));
  EXPECT_FALSE(session->isAlive());
  const uint64_t reached = local->fileLength();
  EXPECT_GT(reached, 0u);
  EXPECT_LT(reached, content.size());
  EXPECT_EQ(content.substr(0, reached), readLocalFile(*local))
      << "what is there is a beginning of the content";
  ASSERT_EQ(0, logIn(keyCredentials()));
  ASSERT_TRUE(session->download(path, *local, reached, &version, control, &error)) << error->description();
  EXPECT_EQ(content, readLocalFile(*local));
}

TEST_F(SshTransfer, ResumingAChangedFileIsRefused) {
  start();
  ASSERT_EQ(0, logIn(keyCredentials()));
  const std::string path = remoteFile("content", pattern(100'000));
  std::string version;
  ASSERT_TRUE(session->download(path, *local, 0, &version, control, &error));
  remoteFile("content", pattern(100'001));
  EXPECT_FALSE(session->download(path, *local, 50'000, &version, control, &error));
  EXPECT_EQ(kQuarnKitItemChanged, codeOf(error));
}

TEST_F(SshTransfer, AServerThatFallsSilentIsLostAfterTheLimit) {
  start();
  FaultProxy proxy(server->port());
  auto credentials = keyCredentials();
  credentials->setPort(proxy.port());
  ASSERT_EQ(0, logInImpatiently(credentials)) << error->description();
  const std::string path = remoteFile("content", pattern(8'000'000));
  proxy.stallAfter(proxy.arrived() + 2'000'000);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(session->download(path, *local, 0, nullptr, control, &error));
  EXPECT_EQ(kQuarnKitTimedOut, codeOf(error));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, idleLimit + std::chrono::seconds(10));
}

TEST_F(SshTransfer, AnUploadToAServerThatFallsSilentIsLostAfterTheLimit) {
  start();
  FaultProxy proxy(server->port());
  auto credentials = keyCredentials();
  credentials->setPort(proxy.port());
  ASSERT_EQ(0, logInImpatiently(credentials)) << error->description();
  const std::string content = pattern(40'000'000);
  local = makeLocalFile(NSFileHandle::Kind::kScratch, content);
  proxy.stallAfter(proxy.arrived() + 300);
  EXPECT_FALSE(session->upload(*local, server->folder() + "/up", 0, control, &error));
  EXPECT_EQ(kQuarnKitTimedOut, codeOf(error));
  EXPECT_FALSE(local->unconfirmedExtents(0).empty());
}

TEST_F(SshTransfer, AnInterruptFromAnotherThreadEndsARunningDownload) {
  start();
  FaultProxy proxy(server->port());
  auto credentials = keyCredentials();
  credentials->setPort(proxy.port());
  ASSERT_EQ(0, logIn(credentials)) << error->description();
  const std::string path = remoteFile("content", pattern(8'000'000));
  proxy.stallAfter(proxy.arrived() + 1'000'000);
  std::thread other([&] {
    while (proxy.arrived() < 1'000'000) std::this_thread::yield();
    session->interrupt();
  });
  EXPECT_FALSE(session->download(path, *local, 0, nullptr, control, &error));
  other.join();
  EXPECT_EQ(kQuarnKitConnectionLost, codeOf(error));
  EXPECT_FALSE(session->attributes("/", nullptr, &error));
  EXPECT_EQ(kQuarnKitConnectionLost, codeOf(error));
}

TEST_F(SshTransfer, AnIdleSessionNoticesThatTheServerIsGone) {
  start();
  ASSERT_EQ(0, logIn(keyCredentials()));
  EXPECT_TRUE(session->isAlive());
  FaultProxy proxy(server->port());
  auto credentials = keyCredentials();
  credentials->setPort(proxy.port());
  ASSERT_EQ(0, logIn(credentials));
  proxy.cutAfter(0);
  // The next byte in either direction makes the proxy look at its order.
  EXPECT_FALSE(session->attributes("/", nullptr, &error));
  EXPECT_FALSE(session->isAlive());
}

// The operations against OpenSSH's own server, over the pipe: what the server in memory imitates.
class SftpServerPipe : public SshTest {
 protected:
  void SetUp() override {
    SshTest::SetUp();
    constexpr const char* kProgram = "/usr/lib/openssh/sftp-server";
    OMBRA_SKIP_UNLESS(access(kProgram, X_OK) == 0, "needs the package openssh-sftp-server");
    auto credentials = std::make_shared<KCCredentials>();
    credentials->setProtocol(kProtocolSFTP);
    credentials->setOption("sftpServer", kProgram);
    ASSERT_EQ(0, logIn(credentials)) << error->description();
  }
  std::string path(const std::string& name) const { return home + "/" + name; }
};

TEST_F(SftpServerPipe, StartsInTheHomeFolder) {
  EXPECT_EQ(home, session->loginPath());
  bool isDirectory = false;
  mkdir(path("sub").c_str(), 0755);
  EXPECT_EQ(path("sub"), session->realPath("sub/", "", &isDirectory, &error));
  EXPECT_TRUE(isDirectory);
}

TEST_F(SftpServerPipe, ListsFilesFoldersAndLinks) {
  writeHomeFile("file", "abc");
  mkdir(path("folder").c_str(), 0700);
  ASSERT_EQ(0, symlink("file", path("link").c_str()));
  ASSERT_EQ(0, symlink("self", path("self").c_str()));
  ASSERT_EQ(0, symlink("gone", path("nowhere").c_str()));
  ASSERT_EQ(0, symlink("no/way", path("farNowhere").c_str()));
  std::vector<RemoteEntry> entries;
  ASSERT_TRUE(session->list(home, &entries, &error)) << error->description();
  std::map<std::string, RemoteEntry> byName;
  for (const RemoteEntry& entry : entries) byName[entry.name] = entry;
  EXPECT_EQ(kNodeTypeFile, byName["file"].type);
  EXPECT_EQ(3u, byName["file"].attributes.fileSize);
  EXPECT_EQ(kNodeTypeFolder, byName["folder"].type);
  EXPECT_EQ(0700, byName["folder"].attributes.posixPermissions);
  EXPECT_EQ(kNodeTypeAlias, byName["link"].type);
  EXPECT_EQ("file", byName["link"].targetPath);
  EXPECT_EQ(path("file"), byName["link"].resolution->resolvedPath);
  EXPECT_FALSE(byName["self"].resolution->resolved);
  EXPECT_TRUE(byName["nowhere"].resolution->resolved);
  EXPECT_FALSE(byName["nowhere"].resolution->exists);
  EXPECT_EQ(path("gone"), byName["nowhere"].resolution->resolvedPath);
  EXPECT_EQ(path("no/way"), byName["farNowhere"].resolution->resolvedPath);
}

TEST_F(SftpServerPipe, ListsAFolderOfThousands) {
  for (int i = 0; i < 3000; ++i) writeHomeFile("many/" + std::to_string(i), "");
  std::vector<RemoteEntry> entries;
  ASSERT_TRUE(session->list(path("many"), &entries, &error));
  EXPECT_EQ(3002u, entries.size()) << "with the two dots, which the pool drops";
}

TEST_F(SftpServerPipe, AnswersWithTheCodesThatTheProgramTests) {
  writeHomeFile("file", "abc");
  writeHomeFile("full/file", "abc");
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(session->list(path("missing"), &entries, &error));
  EXPECT_EQ(kQuarnKitNoSuchItem, codeOf(error));
  EXPECT_FALSE(session->list(path("file"), &entries, &error));
  EXPECT_EQ(kQuarnKitNotAFolder, codeOf(error));
  EXPECT_FALSE(session->createFolder(path("file"), &error));
  EXPECT_EQ(kQuarnKitItemExists, codeOf(error));
  EXPECT_FALSE(session->createFolder(path(std::string(300, 'x')), &error));
  EXPECT_EQ(kQuarnKitNameInvalid, codeOf(error));
  EXPECT_FALSE(session->remove(path("full"), true, &error));
  EXPECT_EQ(kQuarnKitFolderNotEmpty, codeOf(error));
  EXPECT_FALSE(session->move(path("missing"), false, path("x"), &error));
  EXPECT_EQ(kQuarnKitNoSuchItem, codeOf(error));
  EXPECT_FALSE(session->attributes(path("missing"), nullptr, &error));
  EXPECT_EQ(kQuarnKitNoSuchItem, codeOf(error));
}

TEST_F(SftpServerPipe, ChangesNamesAndAttributes) {
  ASSERT_TRUE(session->createFolder(path("d"), &error));
  ASSERT_TRUE(session->createSymbolicLink(path("d/link"), "../target", &error));
  EXPECT_EQ("../target", std::filesystem::read_symlink(path("d/link")).string());
  writeHomeFile("a", "new");
  writeHomeFile("b", "old");
  ASSERT_TRUE(session->move(path("a"), false, path("b"), &error));
  EXPECT_EQ("new", readFile(path("b")));
  NSFileAttributes wanted;
  wanted.posixPermissions = 0640;
  wanted.modificationDate = NSDate::dateWithTimeIntervalSince1970(1234567890);
  ASSERT_TRUE(session->changeAttributes(wanted, path("b"), &error));
  struct stat status = {};
  ASSERT_EQ(0, stat(path("b").c_str(), &status));
  EXPECT_EQ(0640u, status.st_mode & 07777);
  EXPECT_EQ(1234567890, status.st_mtime);
  wanted.posixPermissions.reset();
  ASSERT_TRUE(session->changeAttributes(wanted, path("d/link"), &error)) << error->description();
  ASSERT_EQ(0, lstat(path("d/link").c_str(), &status));
  EXPECT_EQ(1234567890, status.st_mtime);
  const auto volume = session->fileSystemAttributes(home, &error);
  ASSERT_TRUE(volume);
  EXPECT_GT(volume->systemSize.value_or(0), volume->systemFreeSize.value_or(UINT64_MAX) / 2);
}

TEST_F(SftpServerPipe, AWholeUploadReplacesALongerFileAndKeepsHoles) {
  writeHomeFile("f", std::string(10'000'000, 'o'));
  const auto local = makeLocalFile(NSFileHandle::Kind::kFile, "begin");
  ASSERT_EQ(0, ftruncate(local->fileDescriptor(), 5'000'000));
  ASSERT_TRUE(session->upload(*local, path("f"), 0, control, &error)) << error->description();
  EXPECT_EQ(readLocalFile(*local), readFile(path("f")));
  struct stat status = {};
  ASSERT_EQ(0, stat(path("f").c_str(), &status));
  EXPECT_LT(status.st_blocks * 512, 1'000'000) << "the hole was written out";
}

TEST_F(SftpServerPipe, AppendingThroughTheOpenHandleAndReadingBackAgree) {
  const auto local = makeLocalFile(NSFileHandle::Kind::kScratch, "x");
  local->noteWritten({0, 1});
  ASSERT_TRUE(session->upload(*local, path("f"), 0, control, &error));
  for (unsigned i = 0; i < 20; ++i) {
    const std::string piece = pattern(70'000, i);
    const uint64_t end = local->fileLength();
    ASSERT_TRUE(local->writeAll(piece.data(), piece.size(), end));
    local->noteWritten({end, end + piece.size()});
    ASSERT_TRUE(session->upload(*local, path("f"), end, control, &error));
  }
  EXPECT_EQ(readLocalFile(*local), readFile(path("f")));
  const auto back = makeLocalFile(NSFileHandle::Kind::kScratch);
  ASSERT_TRUE(session->download(path("f"), *back, 0, nullptr, control, &error));
  EXPECT_EQ(readLocalFile(*local), readLocalFile(*back));
}

TEST_F(SftpServerPipe, AFullVolumeIsOutOfSpace) {
  const auto local = makeLocalFile(NSFileHandle::Kind::kScratch, pattern(10));
  OMBRA_SKIP_UNLESS(access("/dev/full", W_OK) == 0, "needs /dev/full");
  EXPECT_FALSE(session->upload(*local, "/dev/full", 0, control, &error));
  // The device is on a volume that has room, so nothing tells the reason.
  EXPECT_TRUE(codeOf(error) == kQuarnKitRefused || codeOf(error) == kQuarnKitOutOfSpace)
      << error->description();
}

TEST_F(SftpServerPipe, AProgramThatIsMissingOrEndsAtOnceIsAFailedConnection) {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(kProtocolSFTP);
  credentials->setOption("sftpServer", "/no/such/program");
  EXPECT_EQ(kQuarnKitCouldNotConnect, logIn(credentials));
  credentials->setOption("sftpServer", "/bin/true");
  EXPECT_EQ(kQuarnKitConnectionLost, logIn(credentials));
  credentials->setOption("sftpServer", "/bin/cat");
  EXPECT_EQ(kQuarnKitProtocolError, logIn(credentials)) << "an echo is no answer";
}

TEST_F(SftpServerPipe, AnInterruptEndsAWaitForASilentProgram) {
  int ends[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
  PipeTransport transport(ends[0]);
  struct Nobody final : SFTPTransport::Receiver {
    void received(std::span<const std::byte>) override {}
  } nobody;
  ASSERT_TRUE(transport.open(&error));
  std::thread other([&] { transport.interrupt(); });
  EXPECT_FALSE(transport.exchange({}, std::chrono::minutes(1), nobody, &error));
  other.join();
  EXPECT_EQ(kQuarnKitConnectionLost, codeOf(error));
  close(ends[1]);
}

}  // namespace
}  // namespace ombra::test
