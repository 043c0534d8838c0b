// Which certificates a session goes on with.
#include "remote/tls/ServerTrust.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "remote/QuarnKitError.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tls/Handshake.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// The authorities of this machine are, for the length of a test, the one that the test made.
class ServerTrustTest : public testing::Test {
 protected:
  ServerTrustTest() {
    const std::string file = iFolder.path() + "/authorities.pem";
    std::ofstream(file) << iAuthority.pem;
    setenv("SSL_CERT_FILE", file.c_str(), 1);
    setenv("SSL_CERT_DIR", "/nonexistent", 1);
  }
  ~ServerTrustTest() override {
    unsetenv("SSL_CERT_FILE");
    unsetenv("SSL_CERT_DIR");
  }

  void accept(const std::string& fingerprints) { iCredentials->setOption("fingerprint", fingerprints); }

  HandshakeResult connectTo(const TestCertificate& certificate, const std::string& host,
                            int newestVersion = 0) {
    SessionEnvironment environment;
    environment.credentials = iCredentials;
    environment.isWorthyTrust = [this](const std::string& fingerprint) {
      iAsked.push_back(fingerprint);
      return iAnswer;
    };
    ServerTrust trust(environment, host);
    const HandshakeResult result = shakeHands(trust, {certificate, newestVersion});
    iRefusal = trust.refusal();
    return result;
  }

  void expectRefused(const TestCertificate& certificate, const std::string& host, const std::string& why) {
    EXPECT_FALSE(connectTo(certificate, host).done);
    ASSERT_NE(iRefusal, nullptr);
    EXPECT_TRUE(QuarnKitError::isCode(iRefusal, kQuarnKitUntrusted));
    const std::string text = iRefusal->localizedDescription();
    EXPECT_THAT(text, HasSubstr(host));
    EXPECT_THAT(text, HasSubstr(certificate.fingerprint));
    EXPECT_THAT(text, HasSubstr(why));
  }

  TestCertificate signedFor(CertificateWish wish) { return makeTestCertificate(wish, &iAuthority); }

  const TestCertificate iAuthority = makeTestCertificate({.commonName = "Authority of the test",
                                                          .names = {},
                                                          .firstDay = -1,
                                                          .lastDay = 30,
                                                          .isAuthority = true});
  const TestCertificate iGood = makeLocalhostCertificate(&iAuthority);
  TemporaryFolder iFolder;
  std::shared_ptr<KCCredentials> iCredentials = std::make_shared<KCCredentials>();
  bool iAnswer = true;
  std::vector<std::string> iAsked;
  NSErrorRef iRefusal;
};

TEST_F(ServerTrustTest, ACertificateThatAnAuthorityVouchesForIsTrusted) {
  const HandshakeResult result = connectTo(iGood, "localhost");
  EXPECT_TRUE(result.done);
  EXPECT_EQ(iRefusal, nullptr);
  EXPECT_THAT(iAsked, ElementsAre(iGood.fingerprint));
}

TEST_F(ServerTrustTest, AnAuthorityDoesNotOverruleTheDelegate) {
  iAnswer = false;
  expectRefused(iGood, "localhost", "it was not accepted");
}

TEST_F(ServerTrustTest, WithoutADelegateNothingIsTrusted) {
  SessionEnvironment environment;
  environment.credentials = iCredentials;
  ServerTrust trust(environment, "localhost");
  EXPECT_FALSE(shakeHands(trust, {iGood, 0}).done);
  EXPECT_TRUE(QuarnKitError::isCode(trust.refusal(), kQuarnKitUntrusted));
}

TEST_F(ServerTrustTest, ASelfSignedCertificateIsRefusedWithoutAskingTheDelegate) {
  expectRefused(makeLocalhostCertificate(), "localhost", "self-signed");
  EXPECT_THAT(iAsked, IsEmpty());
}

TEST_F(ServerTrustTest, ACertificateOfAnUnknownAuthorityIsRefused) {
  const TestCertificate other = makeTestCertificate(
      {.commonName = "Another authority", .names = {}, .firstDay = -1, .lastDay = 30, .isAuthority = true});
  expectRefused(makeLocalhostCertificate(&other), "localhost", "unable to get local issuer certificate");
}

TEST_F(ServerTrustTest, DatesAreLookedAt) {
  const std::vector<std::string> names = {"DNS:localhost"};
  expectRefused(signedFor({.commonName = "x", .names = names, .firstDay = -9, .lastDay = -2}), "localhost",
                "certificate has expired");
  expectRefused(signedFor({.commonName = "x", .names = names, .firstDay = 2, .lastDay = 9}), "localhost",
                "certificate is not yet valid");
}

struct HostCase {
  const char* host;
  bool isTrusted;
};

TEST_F(ServerTrustTest, TheNameOrAddressThatWasAskedForMustStandInTheCertificate) {
  const TestCertificate certificate =
      signedFor({.commonName = "elsewhere.example",
                 .names = {"DNS:files.example", "DNS:*.wild.example", "IP:192.0.2.7", "IP:fe80::1"},
                 .firstDay = -1,
                 .lastDay = 30});
  const HostCase table[] = {
      {"files.example", true},
      {"FILES.example", true},
      {"files.example.", true},
      {"a.wild.example", true},
      {"192.0.2.7", true},
      {"fe80::1", true},
      {"fe80::1%eth0", true},
      {"a.b.wild.example", false},
      {"wild.example", false},
      {"files.example.org", false},
      {"xfiles.example", false},
      {"elsewhere.example", false},  // the subject counts only where no names are listed
      {"192.0.2.8", false},
      {"fe80::2", false},
      {"", false},
  };
  for (const HostCase& row : table) {
    EXPECT_EQ(connectTo(certificate, row.host).done, row.isTrusted) << row.host;
    EXPECT_EQ(iRefusal == nullptr, row.isTrusted) << row.host;
  }
}

TEST_F(ServerTrustTest, AnAddressIsNotMatchedByAName) {
  expectRefused(signedFor({.commonName = "x", .names = {"DNS:127.0.0.1"}, .firstDay = -1, .lastDay = 30}),
                "127.0.0.1", "IP address mismatch");
}

TEST_F(ServerTrustTest, AnAcceptedFingerprintIsAllThatCounts) {
  const TestCertificate expired =
      makeTestCertificate({.commonName = "old", .names = {}, .firstDay = -9, .lastDay = -2});
  accept(expired.fingerprint);
  iAnswer = false;
  EXPECT_TRUE(connectTo(expired, "localhost").done);
  EXPECT_EQ(iRefusal, nullptr);
  EXPECT_THAT(iAsked, IsEmpty());
}

TEST_F(ServerTrustTest, OneOfSeveralAcceptedFingerprintsIsEnough) {
  const TestCertificate first = makeLocalhostCertificate();
  const TestCertificate second = makeLocalhostCertificate();
  accept(first.fingerprint + "  " + second.fingerprint);
  EXPECT_TRUE(connectTo(first, "localhost").done);
  EXPECT_TRUE(connectTo(second, "localhost").done);
  expectRefused(makeLocalhostCertificate(), "localhost", "another one");
}

TEST_F(ServerTrustTest, WithAnAcceptedFingerprintNoAuthorityHelps) {
  accept(makeLocalhostCertificate().fingerprint);
  expectRefused(iGood, "localhost", "another one");
}

TEST_F(ServerTrustTest, AFingerprintOfNothingButBlanksIsNone) {
  accept("  ");
  EXPECT_TRUE(connectTo(iGood, "localhost").done);
  expectRefused(makeLocalhostCertificate(), "localhost", "self-signed");
}

TEST_F(ServerTrustTest, PartOfAFingerprintDoesNotCount) {
  const TestCertificate certificate = makeLocalhostCertificate();
  accept(certificate.fingerprint.substr(0, certificate.fingerprint.size() - 1));
  EXPECT_FALSE(connectTo(certificate, "localhost").done);
}

TEST_F(ServerTrustTest, TheServerLearnsOfTheRefusal) {
  EXPECT_THAT(connectTo(makeLocalhostCertificate(), "localhost").serverError, Not(IsEmpty()));
}

TEST_F(ServerTrustTest, VersionsBefore12AreNotSpoken) {
  EXPECT_FALSE(connectTo(iGood, "localhost", TLS1_1_VERSION).done);
  EXPECT_EQ(iRefusal, nullptr);
  EXPECT_EQ(connectTo(iGood, "localhost", TLS1_2_VERSION).version, "TLSv1.2");
  EXPECT_EQ(connectTo(iGood, "localhost").version, "TLSv1.3");
}

TEST_F(ServerTrustTest, AnExceptionOfTheDelegateIsANo) {
  SessionEnvironment environment;
  environment.credentials = iCredentials;
  environment.isWorthyTrust = [](const std::string&) -> bool { throw std::runtime_error("no answer"); };
  ServerTrust trust(environment, "localhost");
  EXPECT_FALSE(shakeHands(trust, {iGood, 0}).done);
  EXPECT_TRUE(QuarnKitError::isCode(trust.refusal(), kQuarnKitUntrusted));
}

TEST_F(ServerTrustTest, ARefusalIsForgottenWhenTheNextHandshakeIsFine) {
  SessionEnvironment environment;
  environment.credentials = iCredentials;
  environment.isWorthyTrust = [](const std::string&) { return true; };
  ServerTrust trust(environment, "localhost");
  EXPECT_FALSE(shakeHands(trust, {makeLocalhostCertificate(), 0}).done);
  ASSERT_NE(trust.refusal(), nullptr);
  EXPECT_TRUE(shakeHands(trust, {iGood, 0}).done);
  EXPECT_EQ(trust.refusal(), nullptr);
}

}  // namespace
}  // namespace ombra
