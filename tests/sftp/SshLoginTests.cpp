// Logging in to a real sshd.
#include <fmt/format.h>

#include <fstream>

#include "tests/sftp/FaultProxy.h"
#include "tests/sftp/SshTest.h"
#include "tests/support/ChildProcess.h"

namespace ombra::test {
namespace {

class SshLogin : public SshTest {};

TEST_F(SshLogin, WithAKeyFileLandsInTheLoginFolder) {
  start();
  ASSERT_EQ(0, logIn(keyCredentials())) << error->description();
  EXPECT_EQ("/root", session->loginPath());
  EXPECT_TRUE(session->isAlive());
}

TEST_F(SshLogin, WithAnEncryptedKeyNeedsItsPassphrase) {
  start();
  auto credentials = bareCredentials();
  credentials->setOption("identityFile", makeEncryptedKey("open sesame"));
  EXPECT_EQ(kQuarnKitLoginFailed, logIn(credentials));
  EXPECT_NE(std::string::npos, error->description().find("needs a passphrase")) << error->description();
  credentials->setOption("passphrase", "wrong");
  EXPECT_EQ(kQuarnKitLoginFailed, logIn(credentials));
  EXPECT_NE(std::string::npos, error->description().find("another passphrase")) << error->description();
  credentials->setOption("passphrase", "open sesame");
  EXPECT_EQ(0, logIn(credentials)) << error->description();
}

TEST_F(SshLogin, WithAMissingKeyFileSaysWhichOne) {
  start();
  auto credentials = bareCredentials();
  credentials->setOption("identityFile", "/no/such/key");
  EXPECT_EQ(kQuarnKitLoginFailed, logIn(credentials));
  EXPECT_NE(std::string::npos, error->description().find("/no/such/key"));
}

TEST_F(SshLogin, WithAPasswordTakesTheRightOneOnly) {
  start({"PasswordAuthentication yes"});
  TemporaryUser user;
  ASSERT_EQ("", user.problem());
  auto credentials = bareCredentials();
  credentials->setUsername(user.name());
  credentials->setPassword(user.password());
  transcript->enabled = true;
  EXPECT_EQ(0, logIn(credentials)) << error->description();
  credentials->setPassword("wrong");
  EXPECT_EQ(kQuarnKitLoginFailed, logIn(credentials));
  EXPECT_NE(std::string::npos, error->description().find("password refused")) << error->description();
  for (const auto& [line, isOutgoing] : transcript->lines) {
    EXPECT_EQ(std::string::npos, line.find(user.password())) << "a password in the transcript";
  }
}

TEST_F(SshLogin, IsToldInAVerboseTranscriptWithoutItsSecrets) {
  start({"PasswordAuthentication yes"});
  TemporaryUser user;
  ASSERT_EQ("", user.problem());
  auto credentials = bareCredentials();
  credentials->setUsername(user.name());
  credentials->setPassword(user.password());
  transcript->enabled = true;
  const auto remarks = [&] {
    std::string text;
    for (const auto& [line, isOutgoing] : transcript->lines) {
      if (line.starts_with("* ")) text += line;
    }
    return text;
  };
  EXPECT_EQ(0, logIn(credentials)) << error->description();
  EXPECT_EQ("", remarks()) << "nobody has asked for it";
  credentials->setUseVerboseLogging(true);
  EXPECT_EQ(0, logIn(credentials)) << error->description();
  EXPECT_NE(std::string::npos, remarks().find("OpenSSH")) << remarks();
  EXPECT_EQ(std::string::npos, remarks().find(user.password())) << remarks();
  credentials->setUseVerboseLogging(false);
  transcript->lines.clear();
  EXPECT_EQ(0, logIn(credentials)) << error->description();
  EXPECT_EQ("", remarks()) << "the next one is as before";
}

TEST_F(SshLogin, AnswersTheServersQuestionsWithThePassword) {
  start({"UsePAM yes", "KbdInteractiveAuthentication yes"});
  TemporaryUser user;
  ASSERT_EQ("", user.problem());
  auto credentials = bareCredentials();
  credentials->setUsername(user.name());
  credentials->setPassword(user.password());
  EXPECT_EQ(0, logIn(credentials)) << error->description();
}

TEST_F(SshLogin, AnswersTheServersQuestionsWithTheGivenLines) {
  start({"UsePAM yes", "KbdInteractiveAuthentication yes"});
  TemporaryUser user;
  ASSERT_EQ("", user.problem());
  auto credentials = bareCredentials();
  credentials->setUsername(user.name());
  credentials->setOption("keyboardInteractive", user.password() + "\nmore");
  EXPECT_EQ(0, logIn(credentials)) << error->description();
}

TEST_F(SshLogin, GivesUpWhenTheServerRefusesTheAnswers) {
  start({"UsePAM yes", "KbdInteractiveAuthentication yes"});
  TemporaryUser user;
  ASSERT_EQ("", user.problem());
  auto credentials = bareCredentials();
  credentials->setUsername(user.name());
  credentials->setPassword("wrong");
  EXPECT_EQ(kQuarnKitLoginFailed, logIn(credentials)) << error->description();
}

TEST_F(SshLogin, GoesThroughSeveralMethodsWhenTheServerWantsThem) {
  start({"PasswordAuthentication yes", "AuthenticationMethods publickey,password"});
  TemporaryUser user;
  ASSERT_EQ("", user.problem());
  auto credentials = keyCredentials();
  credentials->setUsername(user.name());
  EXPECT_EQ(kQuarnKitLoginFailed, logIn(credentials)) << "the key alone is only half of it";
  credentials->setPassword(user.password());
  EXPECT_EQ(0, logIn(credentials)) << error->description();
}

TEST_F(SshLogin, UsesTheAgentsKeys) {
  start();
  EXPECT_EQ(kQuarnKitLoginFailed, logIn(bareCredentials())) << "there is no other key";
  const std::string socket = server->folder() + "/agent";
  ChildProcess agent({"ssh-agent", "-D", "-a", socket});
  ASSERT_NE("", agent.waitForLine("SSH_AUTH_SOCK"));
  setenv("SSH_AUTH_SOCK", socket.c_str(), 1);
  ASSERT_TRUE(runProgram({"ssh-add", server->identityFile()}));
  EXPECT_EQ(0, logIn(bareCredentials())) << error->description();
  unsetenv("SSH_AUTH_SOCK");
}

TEST_F(SshLogin, UsesTheKeysInTheUsersFolder) {
  start();
  std::ifstream key(server->identityFile());
  writeHomeFile(".ssh/id_ed25519", std::string(std::istreambuf_iterator<char>(key), {}));
  std::ifstream publicKey(server->identityFile() + ".pub");
  writeHomeFile(".ssh/id_ed25519.pub", std::string(std::istreambuf_iterator<char>(publicKey), {}));
  EXPECT_EQ(0, logIn(bareCredentials())) << error->description();
}

TEST_F(SshLogin, HonoursTheUsersConfiguration) {
  start();
  writeHomeFile(".ssh/config",
                fmt::format("Host alias\n  HostName 127.0.0.1\n  Port {}\n  User root\n  IdentityFile {}\n"
                            "Host other\n  HostName 127.0.0.1\n  Port 1\n",
                            server->port(), server->identityFile()));
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(kProtocolSFTP);
  credentials->setAddress("alias");
  ASSERT_EQ(0, logIn(credentials)) << error->description();
  EXPECT_EQ("/root", session->loginPath());
  // What is said explicitly wins.
  credentials->setPort(1);
  EXPECT_EQ(kQuarnKitCouldNotConnect, logIn(credentials));
  credentials->setAddress("other");
  credentials->setPort(server->port());
  credentials->setUsername("root");
  credentials->setOption("identityFile", server->identityFile());
  EXPECT_EQ(0, logIn(credentials)) << error->description();
}

TEST_F(SshLogin, GoesThroughAProxyCommand) {
  start();
  OMBRA_SKIP_UNLESS(runProgram({"sh", "-c", "command -v bash"}), "needs bash for a proxy of its own");
  writeHomeFile(
      ".ssh/config",
      fmt::format(
          "Host far\n  HostName far.invalid\n  ProxyCommand bash -c 'exec 3<>/dev/tcp/127.0.0.1/{}; cat "
          "<&3 & exec cat >&3'\n",
          server->port()));
  auto credentials = keyCredentials();
  credentials->setAddress("far");
  credentials->setPort(0);
  ASSERT_EQ(0, logIn(credentials)) << error->description();
  EXPECT_TRUE(session->attributes("/", nullptr, &error));
}

TEST_F(SshLogin, ChecksTheAcceptedFingerprintItself) {
  start();
  trusts = false;
  auto credentials = keyCredentials();
  credentials->setOption("fingerprint", server->fingerprint());
  EXPECT_EQ(0, logIn(credentials)) << error->description();
  credentials->setOption("fingerprint", "SHA256:AAAA  " + server->fingerprint() + " SHA256:BBBB");
  EXPECT_EQ(0, logIn(credentials)) << error->description();
  for (const std::string& other : {std::string("SHA256:AAAA"), server->fingerprint() + "x", std::string()}) {
    credentials->setOption("fingerprint", other);
    trusts = true;
    EXPECT_EQ(kQuarnKitUntrusted, logIn(credentials)) << other;
    EXPECT_NE(std::string::npos, error->description().find(server->fingerprint())) << error->description();
  }
  EXPECT_TRUE(trustQuestions.empty()) << "the fingerprint decides alone";
}

TEST_F(SshLogin, AsksForTrustWithoutAnAcceptedFingerprint) {
  start();
  trusts = false;
  EXPECT_EQ(kQuarnKitUntrusted, logIn(keyCredentials()));
  EXPECT_EQ(std::vector<std::string>{server->fingerprint()}, trustQuestions);
  trusts = true;
  EXPECT_EQ(0, logIn(keyCredentials()));
}

TEST_F(SshLogin, NoCredentialIsShownToAnUntrustedServer) {
  start({"LogLevel DEBUG1", "PasswordAuthentication yes"});
  auto credentials = bareCredentials();
  credentials->setPassword("secret");
  credentials->setOption("fingerprint", "SHA256:AAAA");
  EXPECT_EQ(kQuarnKitUntrusted, logIn(credentials));
  session.reset();
  const std::string log = server->waitForLog("onnection closed by");
  EXPECT_NE("", log);
  EXPECT_EQ(std::string::npos, log.find("userauth-request")) << log;
}

TEST_F(SshLogin, WhereALoginScriptTalksSaysSo) {
  start({"ForceCommand echo Welcome to this machine"});
  EXPECT_EQ(kQuarnKitProtocolError, logIn(keyCredentials()));
  EXPECT_NE(std::string::npos, error->description().find("login script")) << error->description();
}

TEST_F(SshLogin, WhereTheServerHasNoFileTransferSaysSo) {
  start({"MaxSessions 0"});
  EXPECT_EQ(kQuarnKitRefused, logIn(keyCredentials()));
  EXPECT_NE(std::string::npos, error->description().find("no file transfer")) << error->description();
}

TEST_F(SshLogin, TellsWhatKeepsItFromConnecting) {
  start();
  auto credentials = keyCredentials();
  credentials->setPort(1);
  EXPECT_EQ(kQuarnKitCouldNotConnect, logIn(credentials));
  credentials->setAddress("no-such-host.invalid");
  EXPECT_EQ(kQuarnKitCouldNotResolveHost, logIn(credentials));
}

TEST_F(SshLogin, TooManyConnectionsOnlyWhenTheServerSaysSo) {
  start();
  FaultProxy proxy(server->port());
  auto credentials = keyCredentials();
  credentials->setPort(proxy.port());
  const std::pair<const char*, int64_t> table[] = {
      {"Exceeded MaxStartups\r\n", kQuarnKitTooManyConnections},
      {"Not allowed at this time\r\n", kQuarnKitTooManyConnections},
      {"", kQuarnKitConnectionLost},
  };
  for (const auto& [greeting, code] : table) {
    proxy.refuseWith(greeting);
    EXPECT_EQ(code, logIn(credentials)) << greeting;
  }
}

TEST_F(SshLogin, EndsWithinItsLimitWhateverStepTheServerStopsAt) {
  start();
  connectLimit = std::chrono::milliseconds(300);
  // Bytes from the server before it falls silent: before the greeting, in the key exchange, in the login.
  for (const uint64_t bytes : {0, 30, 900, 1500, 2200}) {
    FaultProxy proxy(server->port());
    proxy.stallAfter(bytes);
    auto credentials = keyCredentials();
    credentials->setPort(proxy.port());
    const auto begin = std::chrono::steady_clock::now();
    const int64_t code = logIn(credentials);
    EXPECT_TRUE(code == kQuarnKitTimedOut || code == kQuarnKitCouldNotConnect) << bytes << ": " << code;
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    session.reset();
  }
}

TEST_F(SshLogin, IsALostConnectionWhateverStepTheServerHangsUpAt) {
  start();
  for (const uint64_t bytes : {1, 30, 900, 1500, 2200}) {
    FaultProxy proxy(server->port());
    proxy.cutAfter(bytes);
    auto credentials = keyCredentials();
    credentials->setPort(proxy.port());
    EXPECT_EQ(kQuarnKitConnectionLost, logIn(credentials)) << bytes << (error ? error->description() : "");
    session.reset();
  }
}

TEST_F(SshLogin, CanBeInterrupted) {
  start();
  FaultProxy proxy(server->port());
  proxy.stallAfter(0);
  auto credentials = keyCredentials();
  credentials->setPort(proxy.port());
  session = makeSession(credentials);
  std::thread other([&] { session->interrupt(); });
  EXPECT_FALSE(session->logIn(&error));
  EXPECT_EQ(kQuarnKitConnectionLost, codeOf(error));
  other.join();
}

}  // namespace
}  // namespace ombra::test
