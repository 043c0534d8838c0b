#include "frontend/CertificateProbe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "remote/KCTypes.h"
#include "remote/QuarnKitError.h"
#include "tests/frontend/PlainServer.h"
#include "tests/frontend/Surroundings.h"
#include "tests/support/ServerProcess.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::chrono::seconds kLimit{10};

class CertificateProbe : public testing::Test {
 protected:
  std::optional<ServerCertificate> probe(const PlainServer& server, uint32_t protocol,
                                         const std::string& host = "127.0.0.1",
                                         std::chrono::milliseconds limit = kLimit) {
    iError = nullptr;
    return probeServerCertificate({host, server.port(), protocol}, limit, &iError);
  }
  void expectError(QuarnKitErrorCode code, const std::string& words) const {
    ASSERT_NE(iError, nullptr);
    EXPECT_TRUE(QuarnKitError::isCode(iError, code)) << iError->description();
    EXPECT_THAT(iError->description(), HasSubstr(words));
  }

  const TestCertificate iCertificate = makeLocalhostCertificate();
  NSErrorRef iError;
};

TEST_F(CertificateProbe, TellsWhatTheServerShows) {
  const PlainServer server([this](int socket) { serveTLS(socket, iCertificate); });
  const auto seen = probe(server, kProtocolWebDAVTLS);
  ASSERT_TRUE(seen) << iError->description();
  EXPECT_EQ(seen->fingerprint, iCertificate.fingerprint);
  EXPECT_EQ(seen->subject, "CN=localhost");
  EXPECT_EQ(seen->issuer, "CN=localhost");
  EXPECT_THAT(seen->names, ElementsAre("localhost", "127.0.0.1", "::1"));
  EXPECT_THAT(seen->validFrom, testing::MatchesRegex("20[0-9]{2}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2} UTC"));
  EXPECT_LT(seen->validFrom, seen->validUntil);
  EXPECT_THAT(seen->problem, HasSubstr("self-signed"));
}

TEST_F(CertificateProbe, FindsNoProblemWhereAnAuthorityVouches) {
  const TestCertificate authority = makeTestCertificate(
      {.commonName = "Authority", .names = {}, .firstDay = -1, .lastDay = 30, .isAuthority = true});
  const TestCertificate good = makeLocalhostCertificate(&authority);
  const TemporaryFolder folder;
  writeFile(folder / "authorities.pem", authority.pem);
  const ScopedEnvironment file("SSL_CERT_FILE", (folder / "authorities.pem").c_str());
  const PlainServer server([&good](int socket) { serveTLS(socket, good); });
  const auto seen = probe(server, kProtocolFTPImplicitTLS);
  ASSERT_TRUE(seen) << iError->description();
  EXPECT_EQ(seen->problem, "");
  EXPECT_EQ(seen->issuer, "CN=Authority");
}

TEST_F(CertificateProbe, AsksForNamesButNotForAddressesAndSendsNothingMore) {
  std::string name;
  std::string sent = "";
  {
    const PlainServer server([&](int socket) { serveTLS(socket, iCertificate, &name, &sent); });
    ASSERT_TRUE(probe(server, kProtocolWebDAVTLS, "localhost"));
  }
  EXPECT_EQ(name, "localhost");
  {
    const PlainServer server([&](int socket) { serveTLS(socket, iCertificate, &name, &sent); });
    ASSERT_TRUE(probe(server, kProtocolWebDAVTLS, "127.0.0.1"));
  }
  EXPECT_EQ(name, "");
  EXPECT_EQ(sent, "");
}

TEST_F(CertificateProbe, UpgradesFTPFirst) {
  std::string asked;
  const PlainServer server([&](int socket) {
    sayTo(socket, "220-Welcome\r\n 220 not yet\r\n221 nor here\r\n220x\r\n220 Ready\r\n");
    asked = readLineOf(socket);
    sayTo(socket, "234-Go\r\n 234 still not\r\n234\r\n");
    serveTLS(socket, iCertificate);
  });
  const auto seen = probe(server, kProtocolFTPExplicitTLS);
  ASSERT_TRUE(seen) << iError->description();
  EXPECT_EQ(seen->fingerprint, iCertificate.fingerprint);
  EXPECT_EQ(asked, "AUTH TLS");
}

TEST_F(CertificateProbe, WaitsForAGreetingThatIsAnnounced) {
  const PlainServer server([&](int socket) {
    sayTo(socket, "120 Ready in a moment\r\n220 Ready\r\n");
    readLineOf(socket);
    sayTo(socket, "234 Go ahead\r\n");
    serveTLS(socket, iCertificate);
  });
  EXPECT_TRUE(probe(server, kProtocolFTPExplicitTLS));
}

struct Refusal {
  const char* greeting;
  const char* answer;  // to AUTH TLS; null = none is waited for
  QuarnKitErrorCode code;
  const char* words;
};

TEST_F(CertificateProbe, TellsFTPServersThatRefuseApart) {
  const Refusal table[] = {
      {"220 Hello\r\n", "500 AUTH not understood\r\n", kQuarnKitNotSupported, "AUTH not understood"},
      {"220 Hello\r\n", "534 Not here\r\n", kQuarnKitNotSupported, "Not here"},
      {"421 Too many users\r\n", nullptr, kQuarnKitTooManyConnections, "Too many users"},
      {"530 Too many from you\r\n", nullptr, kQuarnKitTooManyConnections, "Too many from you"},
      {"554 Go away\r\n", nullptr, kQuarnKitRefused, "Go away"},
      {"220 Hello\r\n", "", kQuarnKitConnectionLost, ""},
      {"", nullptr, kQuarnKitConnectionLost, ""},
      {"SSH-2.0-OpenSSH_9.2\r\n", nullptr, kQuarnKitProtocolError, "no FTP server"},
  };
  for (const Refusal& row : table) {
    const PlainServer server([&row](int socket) {
      sayTo(socket, row.greeting);
      if (row.answer == nullptr) return;
      readLineOf(socket);
      sayTo(socket, row.answer);
    });
    EXPECT_FALSE(probe(server, kProtocolFTPExplicitTLS)) << row.greeting;
    expectError(row.code, row.words);
  }
}

TEST_F(CertificateProbe, EndsWithAServerThatTalksOnAndOn) {
  for (const std::string& piece : {std::string("220-more\r\n"), std::string("x")}) {
    const PlainServer server([&piece](int socket) {
      std::string text;
      while (text.size() < 8192) text += piece;
      while (send(socket, text.data(), text.size(), MSG_NOSIGNAL) > 0) {
      }
    });
    EXPECT_FALSE(probe(server, kProtocolFTPExplicitTLS));
    expectError(kQuarnKitProtocolError, "no FTP server");
  }
}

TEST_F(CertificateProbe, SaysWhenAServerSpeaksNoTLS) {
  const PlainServer server([](int socket) {
    sayTo(socket, "220 Hello, this is FTP without TLS\r\n");
    readLineOf(socket);
  });
  EXPECT_FALSE(probe(server, kProtocolFTPImplicitTLS));
  expectError(kQuarnKitProtocolError, "wrong version number");
}

TEST_F(CertificateProbe, SaysWhenTheConnectionEndsInTheMiddle) {
  const PlainServer server([](int) {});
  EXPECT_FALSE(probe(server, kProtocolWebDAVTLS));
  expectError(kQuarnKitConnectionLost, "");
}

TEST_F(CertificateProbe, DoesNotWaitForEver) {
  const PlainServer server([](int socket) {
    char c = 0;
    while (recv(socket, &c, 1, 0) > 0) {
    }
  });
  for (const uint32_t protocol : {kProtocolWebDAVTLS, kProtocolFTPExplicitTLS}) {
    EXPECT_FALSE(probe(server, protocol, "127.0.0.1", std::chrono::milliseconds(50)));
    expectError(kQuarnKitTimedOut, "");
  }
}

TEST_F(CertificateProbe, SaysWhenNobodyListens) {
  const int port = ServerProcess::freePort();
  EXPECT_FALSE(probeServerCertificate({"127.0.0.1", port, kProtocolWebDAVTLS}, kLimit, &iError));
  expectError(kQuarnKitCouldNotConnect, "");
}

}  // namespace
}  // namespace ombra
