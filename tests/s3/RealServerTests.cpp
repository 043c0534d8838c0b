// What only a server that checks signatures can show.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "tests/s3/RawStore.h"
#include "tests/support/ConnectionContract.h"
#include "tests/support/S3Server.h"
#include "tests/support/SessionDoubles.h"
#include "tests/support/TemporaryFile.h"

#include "remote/s3/S3Session.h"

namespace ombra {
namespace {

constexpr uint64_t kMiB = uint64_t{1} << 20;

// One of each kind for all tests of the program.
template <typename Server>
class RealServer {
 public:
  template <typename... Arguments>
  explicit RealServer(Arguments... arguments) : iServer(arguments...) {}

  const std::string& whyNot() const { return iServer.whyNot(); }

  std::shared_ptr<KCCredentials> credentials() const {
    auto credentials = std::make_shared<KCCredentials>();
    iServer.configure(*credentials);
    credentials->setInitialPath("/test");
    return credentials;
  }

  std::unique_ptr<S3Session> session(std::shared_ptr<KCCredentials> credentials, S3Limits limits = {}) const {
    SessionEnvironment environment;
    environment.credentials = credentials;
    environment.transcript = std::make_shared<KeptTranscript>();
    environment.isWorthyTrust = [](const std::string&) { return false; };
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
  Server iServer;
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
  RealServer<S3RverServer> server;
  REQUIRE_SERVER(server);
  const auto credentials = server.credentials();
  credentials->setPassword("wrong");
  NSErrorRef error;
  EXPECT_FALSE(server.session(credentials)->logIn(&error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitLoginFailed}));
}

// Over TLS bodies are not signed: the protocol below protects them.
TEST(S3RealServer, WorksOverTLS) {
  RealServer<S3RverServer> server(true);
  REQUIRE_SERVER(server);
  S3Limits limits;
  limits.singlePut = kMiB;
  limits.filePart = 5 * kMiB;
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
  RealServer<S3RverServer> server(true);
  REQUIRE_SERVER(server);
  const auto credentials = server.credentials();
  credentials->setOption("fingerprint", "SHA256:AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
  NSErrorRef error;
  EXPECT_FALSE(server.session(credentials)->logIn(&error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitUntrusted}));
}

class S3Gateway : public testing::Test {
 protected:
  static RealServer<RadosGatewayServer>& server() {
    static RealServer<RadosGatewayServer> sServer;
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
