// What only a server that checks signatures can show.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "remote/s3/S3Session.h"
#include "tests/s3/RawStore.h"
#include "tests/s3/SharedServers.h"
#include "tests/support/ConnectionContract.h"
#include "tests/support/SessionDoubles.h"
#include "tests/support/TemporaryFile.h"
#include "tests/support/TemporaryFolder.h"

namespace ombra {
namespace {

constexpr uint64_t kMiB = uint64_t{1} << 20;

// A server, its store and sessions with it.
class RealServer {
 public:
  explicit RealServer(const S3Server& server) : iServer(server) {}

  const std::string& whyNot() const { return iServer.whyNot(); }

  std::shared_ptr<KCCredentials> credentials() const {
    auto credentials = std::make_shared<KCCredentials>();
    iServer.configure(*credentials);
    credentials->setInitialPath("/test");
    return credentials;
  }

  std::unique_ptr<S3Session> session(std::shared_ptr<KCCredentials> credentials, S3Limits limits = {},
                                     std::function<bool(const std::string&)> isWorthyTrust = {}) const {
    SessionEnvironment environment;
    environment.credentials = credentials;
    environment.transcript = std::make_shared<KeptTranscript>();
    environment.isWorthyTrust = std::move(isWorthyTrust);
    return std::make_unique<S3Session>(environment, S3Endpoint::fromCredentials(*credentials),
                                       std::make_shared<S3Knowledge>(), limits);
  }

  RawStore& store() {
    if (iStore == nullptr) {
      iStore = std::make_unique<RawStore>(credentials(), "test");
      iStore->makeBucket();
    }
    return *iStore;
  }

 private:
  const S3Server& iServer;
  std::unique_ptr<RawStore> iStore;
};

bool mustRun() {
  const char* value = std::getenv("CI");
  return value != nullptr && std::string_view(value) == "true";
}

#define REQUIRE_SERVER(server)                                                      \
  if (!(server).whyNot().empty()) {                                                 \
    ASSERT_FALSE(mustRun()) << "this test needs its server: " << (server).whyNot(); \
    GTEST_SKIP() << (server).whyNot();                                              \
  }

bool streamContent(S3Session& session, const std::string& path, const std::string& content,
                   NSErrorRef* error) {
  size_t given = 0;
  const auto next = [&](std::byte* buffer, size_t capacity) {
    const size_t count = std::min(capacity, content.size() - given);
    std::copy_n(reinterpret_cast<const std::byte*>(content.data()) + given, count, buffer);
    given += count;
    return count;
  };
  KeptControl control;
  return session.stream(next, path, control, error);
}

std::string fetched(S3Session& session, const std::string& path) {
  const auto file = temporaryFile();
  KeptControl control;
  NSErrorRef error;
  EXPECT_TRUE(session.download(path, *file, 0, nullptr, control, &error))
      << (error ? error->description() : "");
  return contentOf(*file);
}

TEST(S3RealServer, AWrongSecretIsAFailedLogin) {
  RealServer server(sharedS3Rver());
  REQUIRE_SERVER(server);
  const auto credentials = server.credentials();
  credentials->setPassword("wrong");
  NSErrorRef error;
  EXPECT_FALSE(server.session(credentials)->logIn(&error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitLoginFailed}));
}

// Over TLS bodies are not signed: the protocol below protects them.
TEST(S3RealServer, WorksOverTLS) {
  const TestCertificate certificate = makeLocalhostCertificate();
  const S3RverServer running(&certificate);
  RealServer server(running);
  REQUIRE_SERVER(server);
  S3Limits limits;
  limits.singlePut = kMiB;
  limits.filePart = 5 * kMiB;
  limits.firstStreamPart = 5 * kMiB;
  const auto session = server.session(server.credentials(), limits);
  NSErrorRef error;
  ASSERT_TRUE(session->logIn(&error)) << error->description();
  KeptControl control;
  for (const size_t size : {size_t{0}, size_t{100000}, size_t{11 * kMiB}}) {
    const std::string content = contractContent(size);
    const auto file = temporaryFile(content);
    ASSERT_TRUE(session->upload(*file, "/test/file", 0, control, &error)) << error->description();
    EXPECT_TRUE(fetched(*session, "/test/file") == content) << size;
    ASSERT_TRUE(streamContent(*session, "/test/stream", content, &error)) << error->description();
    EXPECT_TRUE(fetched(*session, "/test/stream") == content) << size;
  }
}

TEST(S3RealServer, ACertificateThatWasNotAcceptedEndsTheLogin) {
  const TestCertificate certificate = makeLocalhostCertificate();
  const S3RverServer running(&certificate);
  RealServer server(running);
  REQUIRE_SERVER(server);
  const auto credentials = server.credentials();
  credentials->setOption("fingerprint", "SHA256:AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
  NSErrorRef error;
  EXPECT_FALSE(server.session(credentials)->logIn(&error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitUntrusted}));
}

// Whoever is asked about a certificate is there for the login alone: later connections are not refused for
// that.
TEST(S3RealServer, TheTrustOfTheLoginLasts) {
  const TestCertificate authority =
      makeTestCertificate({.commonName = "Authority", .names = {}, .isAuthority = true});
  const TestCertificate certificate = makeLocalhostCertificate(&authority);
  const TemporaryFolder folder;
  std::ofstream(folder / "authority.pem") << authority.pem;
  setenv("SSL_CERT_FILE", (folder / "authority.pem").c_str(), 1);
  const S3RverServer running(&certificate);
  RealServer server(running);
  REQUIRE_SERVER(server);
  const auto credentials = server.credentials();
  credentials->setOption("fingerprint", "");
  int asked = 0;
  const auto session = server.session(credentials, {}, [&asked](const std::string&) { return ++asked == 1; });
  NSErrorRef error;
  ASSERT_TRUE(session->logIn(&error)) << error->description();
  // Several at a time, on connections of their own.
  for (int i = 0; i < 40; ++i) server.store().put("many/" + std::to_string(i), "x");
  EXPECT_TRUE(session->move("/test/many", true, "/test/moved", &error))
      << (error ? error->description() : "");
  EXPECT_EQ(server.store().keys("moved/").size(), 40u);
  EXPECT_TRUE(server.store().keys("many/").empty());
  EXPECT_EQ(asked, 1);
  unsetenv("SSL_CERT_FILE");
}

class S3Gateway : public testing::Test {
 protected:
  static RealServer& server() {
    static RealServer sServer(sharedGateway());
    return sServer;
  }

  void SetUp() override {
    if (!RadosGatewayServer::isWanted()) GTEST_SKIP() << "takes long: set OMBRA_FULL=1";
    REQUIRE_SERVER(server());
    (void)server().store();
  }

  NSErrorRef iError;
};

TEST_F(S3Gateway, PartsAreCopiedAndKeepWhatTheObjectHasBesides) {
  S3Limits limits;
  limits.singleCopy = 6 * kMiB;
  limits.copyPart = 5 * kMiB;
  const auto session = server().session(server().credentials(), limits);
  const std::string content = contractContent(12 * kMiB + 7);
  server().store().put("parts/large", content, {{"Content-Type", "video/mp4"}, {"x-amz-meta-mine", "yes"}});
  ASSERT_TRUE(session->move("/test/parts", true, "/test/parts moved", &iError)) << iError->description();
  EXPECT_TRUE(server().store().get("parts moved/large") == content);
  const auto head = server().store().head("parts moved/large");
  ASSERT_TRUE(head.has_value());
  EXPECT_EQ(*head->header("Content-Type"), "video/mp4");
  EXPECT_EQ(*head->header("x-amz-meta-mine"), "yes");
  EXPECT_FALSE(server().store().head("parts/large").has_value());
  EXPECT_EQ(server().store().unfinishedUploads(), 0u);
}

TEST_F(S3Gateway, ACancelledStreamLeavesNoPartBehind) {
  const auto session = server().session(server().credentials());
  KeptControl control;
  control.cancelAt = 10 * kMiB;
  const auto next = [](std::byte* buffer, size_t capacity) {
    std::fill_n(buffer, capacity, std::byte{1});
    return capacity;
  };
  EXPECT_FALSE(session->stream(next, "/test/cancelled", control, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitCancelled}));
  EXPECT_EQ(server().store().unfinishedUploads(), 0u);
  EXPECT_FALSE(server().store().head("cancelled").has_value());
}

TEST_F(S3Gateway, BucketsAreFoundByTheirHostNamesToo) {
  const auto credentials = server().credentials();
  credentials->setOption("endpoint", "http://s3.localhost:" + std::to_string(credentials->port()));
  credentials->setOption("pathStyle", "0");
  const auto session = server().session(credentials);
  ASSERT_TRUE(session->logIn(&iError)) << iError->description();
  server().store().put("by host", "content");
  EXPECT_EQ(fetched(*session, "/test/by host"), "content");
}

TEST_F(S3Gateway, ADownloadDoesNotGoOnWithAnotherVersion) {
  const auto session = server().session(server().credentials());
  server().store().put("changing", contractContent(1000));
  const auto file = temporaryFile();
  KeptControl control;
  std::string version;
  ASSERT_TRUE(session->download("/test/changing", *file, 0, &version, control, &iError));
  server().store().put("changing", contractContent(1000, 2));
  EXPECT_FALSE(session->download("/test/changing", *file, 500, &version, control, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitItemChanged}));
}

}  // namespace
}  // namespace ombra
