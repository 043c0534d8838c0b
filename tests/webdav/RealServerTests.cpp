// What a session says to real servers, and what they make of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "remote/TemporaryNames.h"
#include "remote/webdav/WebDAVEngine.h"
#include "remote/webdav/WebDAVSession.h"
#include "tests/support/SessionDoubles.h"
#include "tests/support/TemporaryFile.h"
#include "tests/support/WebDAVServer.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

struct RealKind {
  std::string name;
  WebDAVServerKind kind;
};

bool mustRun() {
  const char* value = std::getenv("CI");
  return value != nullptr && std::string_view(value) == "true";
}

class WebDAVReal : public testing::TestWithParam<RealKind> {
 protected:
  void SetUp() override {
    std::unique_ptr<WebDAVServer>& running = servers()[GetParam().name];
    if (running == nullptr) running = std::make_unique<WebDAVServer>(GetParam().kind);
    server = running.get();
    if (!server->whyNot().empty()) {
      ASSERT_FALSE(mustRun()) << server->whyNot();
      GTEST_SKIP() << server->whyNot();
    }
    root = server->makeTestFolder();
    credentials = server->credentials();
  }

  void logIn() {
    makeSession();
    ASSERT_TRUE(session->logIn(&error)) << error->description();
    transcript->clear();
  }
  void makeSession() {
    SessionEnvironment environment;
    environment.credentials = credentials;
    environment.transcript = transcript;
    environment.isWorthyTrust = [](const std::string&) { return true; };
    session = std::make_unique<WebDAVSession>(environment, std::make_shared<WebDAVFacts>());
  }
  std::string at(const std::string& name) const { return root + "/" + name; }
  // Requests since the last call.
  int roundTrips() {
    const std::string text = transcript->text();
    transcript->clear();
    int count = 0;
    for (size_t at = text.find(" HTTP/1.1\n"); at != std::string::npos; at = text.find(" HTTP/1.1\n", at + 1))
      ++count;
    return count;
  }
  bool upload(const std::string& name, const std::string& content) {
    const auto file = temporaryFile(content);
    return session->upload(*file, at(name), 0, control, &error);
  }
  bool stream(const std::string& name, size_t length) {
    const auto next = [&length](std::byte* buffer, size_t capacity) {
      const size_t count = std::min(capacity, length);
      std::fill(buffer, buffer + count, std::byte{'s'});
      length -= count;
      return count;
    };
    return session->stream(next, at(name), control, &error);
  }
  static std::map<std::string, std::unique_ptr<WebDAVServer>>& servers() {
    static std::map<std::string, std::unique_ptr<WebDAVServer>> sServers;
    return sServers;
  }

  WebDAVServer* server = nullptr;
  std::string root;
  std::shared_ptr<KCCredentials> credentials;
  std::shared_ptr<KeptTranscript> transcript = std::make_shared<KeptTranscript>();
  std::unique_ptr<WebDAVSession> session;
  KeptControl control;
  NSErrorRef error;
};

TEST_P(WebDAVReal, NeedsFewRoundTrips) {
  logIn();
  std::vector<RemoteEntry> entries;
  EXPECT_TRUE(session->createFolder(at("folder"), &error));
  EXPECT_EQ(roundTrips(), 1) << "new folder";
  EXPECT_TRUE(upload("small", "hello"));
  EXPECT_EQ(roundTrips(), 1) << "new small file";
  EXPECT_TRUE(upload("empty", ""));
  EXPECT_EQ(roundTrips(), 1) << "empty file";
  EXPECT_TRUE(upload("large", std::string(1'000'000, 'x')));
  EXPECT_EQ(roundTrips(), 2) << "new large file";
  EXPECT_TRUE(upload("large", std::string(1'000'000, 'y')));
  EXPECT_LE(roundTrips(), 4) << "a file replaced";
  EXPECT_TRUE(session->list(root, &entries, &error));
  EXPECT_EQ(roundTrips(), 1) << "listing";
  EXPECT_EQ(entries.size(), 4u);
  EXPECT_TRUE(session->attributes(at("small"), nullptr, &error).has_value());
  EXPECT_EQ(roundTrips(), 1) << "attributes";
  const auto file = temporaryFile();
  EXPECT_TRUE(session->download(at("small"), *file, 0, nullptr, control, &error));
  EXPECT_EQ(roundTrips(), 1) << "download";
  EXPECT_TRUE(session->move(at("small"), false, at("moved"), &error));
  EXPECT_EQ(roundTrips(), 1) << "move";
  EXPECT_TRUE(session->remove(at("moved"), false, &error));
  EXPECT_EQ(roundTrips(), 1) << "removal";
  EXPECT_TRUE(session->remove(at("folder"), true, &error));
  EXPECT_EQ(roundTrips(), 2) << "removal of a folder";
  EXPECT_TRUE(stream("stream", 100'000)) << error->description();
  (void)roundTrips();
  EXPECT_TRUE(stream("stream", 100'000));
  // Under digest the server is asked for its newest nonce before what can be sent only once.
  EXPECT_EQ(roundTrips(), GetParam().kind == WebDAVServerKind::kApacheDigest ? 2 : 1) << "stream";
}

TEST_P(WebDAVReal, AnotherPasswordIsALoginThatFailed) {
  credentials->setPassword("another");
  makeSession();
  EXPECT_FALSE(session->logIn(&error));
  EXPECT_EQ(error->code(), kQuarnKitLoginFailed);
  EXPECT_EQ(roundTrips(), 2) << "not tried again and again";
}

TEST_P(WebDAVReal, ACancelledReplacementLeavesTheOldFileAlone) {
  server->putFile(at("file"), "old");
  logIn();
  control.cancelAt = 1;
  EXPECT_FALSE(upload("file", std::string(30'000'000, 'x')));
  EXPECT_EQ(error->code(), kQuarnKitCancelled);
  control.cancelAt = UINT64_MAX;
  EXPECT_EQ(server->storedContent(at("file")), "old");
  EXPECT_TRUE(upload("file", "new")) << error->description();
  EXPECT_EQ(server->storedContent(at("file")), "new");
  EXPECT_THAT(server->storedNames(root), ElementsAre("file"));
}

TEST_P(WebDAVReal, ADownloadIsNotResumedInAnotherFile) {
  server->putFile(at("file"), std::string(100'000, 'a'));
  logIn();
  const auto file = temporaryFile();
  std::string version;
  ASSERT_TRUE(session->download(at("file"), *file, 0, &version, control, &error));
  // Unchanged, it goes on.
  ASSERT_TRUE(session->download(at("file"), *file, 50'000, &version, control, &error))
      << error->description();
  EXPECT_TRUE(contentOf(*file) == std::string(100'000, 'a'));
  server->putFile(at("file"), std::string(120'000, 'b'));
  EXPECT_FALSE(session->download(at("file"), *file, 50'000, &version, control, &error));
  EXPECT_EQ(error->code(), kQuarnKitItemChanged) << error->description();
  EXPECT_TRUE(contentOf(*file) == std::string(100'000, 'a'));
}

TEST_P(WebDAVReal, AFolderInAFilesPlaceSurvivesWhatIsMeantForTheFile) {
  server->makeFolder(at("place"));
  server->putFile(at("place/precious"), "content");
  server->putFile(at("other"), "x");
  logIn();
  EXPECT_FALSE(session->remove(at("place"), false, &error));
  EXPECT_FALSE(upload("place", "small"));
  const bool wasSent = upload("place", std::string(1'000'000, 'x'));
  const bool wasMoved = session->move(at("other"), false, at("place"), &error);
  EXPECT_EQ(server->storedContent(at("place/precious")), "content");
  // lighttpd takes a move to a folder for one into it; nothing is lost by that.
  if (GetParam().kind == WebDAVServerKind::kLighttpd) return;
  EXPECT_FALSE(wasSent);
  EXPECT_FALSE(wasMoved);
  EXPECT_THAT(server->storedNames(root), ElementsAre("other", "place"));
}

TEST_P(WebDAVReal, TheNamesOfUploadsAreNeverListedAndDoNotKeepAFolder) {
  server->makeFolder(at("folder"));
  const std::string leftOver = at("folder/") + makeTemporaryName();
  server->putFile(leftOver, "half");
  logIn();
  std::vector<RemoteEntry> entries;
  EXPECT_TRUE(session->list(at("folder"), &entries, &error));
  EXPECT_TRUE(entries.empty());
  EXPECT_TRUE(session->remove(at("folder"), true, &error)) << error->description();
  EXPECT_FALSE(server->exists(at("folder")));
}

TEST_P(WebDAVReal, TheConversationIsShownWithoutItsSecrets) {
  makeSession();
  ASSERT_TRUE(session->logIn(&error));
  EXPECT_TRUE(upload("file", "content-of-the-file"));
  const std::string text = transcript->text();
  EXPECT_THAT(text, HasSubstr("> PROPFIND /dav/ HTTP/1.1\n"));
  EXPECT_THAT(text, HasSubstr("> Authorization: ***\n"));
  EXPECT_THAT(text, HasSubstr("< HTTP/1.1 401"));
  EXPECT_THAT(text, HasSubstr("> PUT " + at("file")));
  EXPECT_THAT(text, HasSubstr("< HTTP/1.1 201 Created\n"));
  for (const char* secret : {WebDAVServer::kPassword, "Basic ", "response=", "content-of-the-file"})
    EXPECT_THAT(text, Not(HasSubstr(secret == std::string("Basic ") ? "> Authorization: Basic" : secret)));
}

INSTANTIATE_TEST_SUITE_P(Servers, WebDAVReal,
                         testing::Values(RealKind{"apacheBasic", WebDAVServerKind::kApacheBasic},
                                         RealKind{"apacheDigest", WebDAVServerKind::kApacheDigest},
                                         RealKind{"nginx", WebDAVServerKind::kNginx},
                                         RealKind{"lighttpd", WebDAVServerKind::kLighttpd}),
                         [](const auto& test) { return test.param.name; });

class WebDAVRealApache : public WebDAVReal {};

TEST_P(WebDAVRealApache, AFolderThatHasMovedIsListedWhereItIsNow) {
  server->putFile(at("file"), "hello");
  logIn();
  const std::string former = "/formerly" + root.substr(std::string("/dav").size());
  std::vector<RemoteEntry> entries;
  ASSERT_TRUE(session->list(former, &entries, &error)) << error->description();
  EXPECT_EQ(roundTrips(), 2) << "the answer, and the question where it points to";
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].name, "file");
  const auto attributes = session->attributes(former + "/file", nullptr, &error);
  ASSERT_TRUE(attributes.has_value()) << error->description();
  EXPECT_EQ(attributes->fileSize, 5u);
  // Nobody says that a change is meant for the other place.
  EXPECT_FALSE(session->remove(former + "/file", false, &error));
  EXPECT_EQ(server->storedContent(at("file")), "hello");
}

INSTANTIATE_TEST_SUITE_P(Servers, WebDAVRealApache,
                         testing::Values(RealKind{"apacheBasic", WebDAVServerKind::kApacheBasic},
                                         RealKind{"apacheDigest", WebDAVServerKind::kApacheDigest}),
                         [](const auto& test) { return test.param.name; });

class WebDAVRealTLS : public WebDAVReal {};

TEST_P(WebDAVRealTLS, AnotherCertificateThanTheAcceptedOneIsNotTrusted) {
  const std::string accepted = credentials->option("fingerprint").value_or("");
  credentials->setOption("fingerprint", "SHA256:AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
  makeSession();
  EXPECT_FALSE(session->logIn(&error));
  EXPECT_EQ(error->code(), kQuarnKitUntrusted);
  EXPECT_THAT(error->localizedDescription(), HasSubstr(accepted));
  EXPECT_EQ(roundTrips(), 0) << "nothing is said to a server that is not trusted";
}

TEST_P(WebDAVRealTLS, ACertificateThatNobodyVouchesForIsNotTrusted) {
  credentials->setOption("fingerprint", "");
  makeSession();
  EXPECT_FALSE(session->logIn(&error));
  EXPECT_EQ(error->code(), kQuarnKitUntrusted);
  EXPECT_EQ(roundTrips(), 0);
}

TEST_P(WebDAVRealTLS, TheAcceptedOneIsTrustedOnEachConnection) {
  for (int i = 0; i < 2; ++i) {
    makeSession();
    EXPECT_TRUE(session->logIn(&error));
  }
}

INSTANTIATE_TEST_SUITE_P(Servers, WebDAVRealTLS,
                         testing::Values(RealKind{"apacheTLS", WebDAVServerKind::kApacheTLS}),
                         [](const auto& test) { return test.param.name; });

// The whole way through the pool: nobody notices that the server was away for a moment.
TEST_P(WebDAVReal, AServerThatWasRestartedIsUsedOnWithoutAFailure) {
  registerWebDAVEngine();
  server->putFile(at("file"), "hello");
  const auto pool = KCConnectionPool::initWithCredentials(credentials, &error);
  ASSERT_NE(pool, nullptr);
  auto connection = pool->acquireConnection();
  std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
  ASSERT_TRUE(connection->contentsAtPath(root, &nodes, &error)) << error->description();
  server->stop();
  ASSERT_TRUE(server->restart());
  nodes.clear();
  EXPECT_TRUE(connection->contentsAtPath(root, &nodes, &error)) << error->description();
  EXPECT_EQ(nodes.size(), 1u);
  EXPECT_TRUE(connection->deleteItemAtPath(at("file"), false, &error)) << error->description();
  pool->releaseConnection(std::move(connection));
  pool->shutDown();
}

}  // namespace
}  // namespace ombra
