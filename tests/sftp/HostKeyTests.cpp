// What known_hosts files say about a server, with and without asking it.
#include "remote/sftp/SSHHostKeys.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <fstream>

#include "remote/sftp/KnownHosts.h"
#include "tests/sftp/SshTest.h"
#include "tests/support/ChildProcess.h"

namespace ombra::test {
namespace {

TEST(KnownHosts, NameIsInLowerCaseAndBracketedWithAnOddPort) {
  EXPECT_EQ("host.example", knownHostsName("Host.Example", 22));
  EXPECT_EQ("[host]:2222", knownHostsName("host", 2222));
}

TEST(KnownHosts, AKeyIsJudgedByTheEntriesOfItsType) {
  const auto entry = [](const char* type, const char* key, bool revoked = false) {
    return SSHKnownHostEntry{{type, std::string("SHA256:") + key, key}, "file", 7, revoked};
  };
  const SSHHostKey shown{"ssh-ed25519", "SHA256:A", "A"};
  struct Case {
    const char* what;
    std::vector<SSHKnownHostEntry> entries;
    SSHHostKeyStatus status;
    bool hasConflict;
  };
  const Case table[] = {
      {"none", {}, SSHHostKeyStatus::kUnknown, false},
      {"this one", {entry("ssh-ed25519", "A")}, SSHHostKeyStatus::kKnown, false},
      {"another of the type", {entry("ssh-ed25519", "B")}, SSHHostKeyStatus::kChanged, true},
      {"another and this one",
       {entry("ssh-ed25519", "B"), entry("ssh-ed25519", "A")},
       SSHHostKeyStatus::kKnown,
       false},
      {"of another type", {entry("ssh-rsa", "B")}, SSHHostKeyStatus::kUnknown, false},
      {"known and revoked",
       {entry("ssh-ed25519", "A"), entry("ssh-ed25519", "A", true)},
       SSHHostKeyStatus::kRevoked,
       true},
      {"another one revoked", {entry("ssh-ed25519", "B", true)}, SSHHostKeyStatus::kUnknown, false},
  };
  for (const Case& row : table) {
    std::optional<SSHKnownHostEntry> conflict;
    EXPECT_EQ(row.status, judgeHostKey(row.entries, shown, &conflict)) << row.what;
    EXPECT_EQ(row.hasConflict, conflict.has_value()) << row.what;
  }
}

class SshHostKeys : public SshTest {
 protected:
  SSHServerAddress address() const { return {"127.0.0.1", server->port(), ""}; }
  std::string knownHostsFile() const { return home + "/.ssh/known_hosts"; }
  std::string knownHosts() const {
    std::ifstream stream(knownHostsFile());
    return std::string(std::istreambuf_iterator<char>(stream), {});
  }
  SSHHostKeyProbe probe() {
    auto result = probeSSHHostKey(address(), std::chrono::seconds(15), &error);
    if (!result) ADD_FAILURE() << error->description();
    return result.value_or(SSHHostKeyProbe{});
  }
  // "type base64" of a fresh key that nobody has.
  std::string otherKey(const char* type = "ed25519") {
    const std::string file = server->folder() + "/other_" + type;
    runProgram({"ssh-keygen", "-q", "-t", type, "-N", "", "-f", file});
    std::ifstream stream(file + ".pub");
    std::string kind, base64;
    stream >> kind >> base64;
    return kind + " " + base64;
  }
};

TEST_F(SshHostKeys, AServerIsUnknownUntilItsKeyIsRemembered) {
  start();
  const SSHHostKeyProbe first = probe();
  EXPECT_EQ(SSHHostKeyStatus::kUnknown, first.status);
  EXPECT_EQ("ssh-ed25519", first.key.type);
  EXPECT_EQ(server->fingerprint(), first.key.fingerprint);
  EXPECT_TRUE(first.known.empty());
  EXPECT_EQ("", knownSSHFingerprints(address()));
  ASSERT_TRUE(rememberSSHHostKey(address(), first.key, &error)) << error->description();
  EXPECT_EQ(SSHHostKeyStatus::kKnown, probe().status);
  EXPECT_EQ(server->fingerprint(), knownSSHFingerprints(address()));
  EXPECT_EQ(fmt::format("[127.0.0.1]:{} ssh-ed25519 {}\n", server->port(), first.key.base64), knownHosts());
  struct stat status = {};
  ASSERT_EQ(0, stat(knownHostsFile().c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
  ASSERT_EQ(0, stat((home + "/.ssh").c_str(), &status));
  EXPECT_EQ(0700u, status.st_mode & 0777);
}

TEST_F(SshHostKeys, RememberingTwiceAddsOneLineAndEndsAnUnendedOne) {
  start();
  writeHomeFile(".ssh/known_hosts", "# a comment without an end");
  const SSHHostKey key = probe().key;
  ASSERT_TRUE(rememberSSHHostKey(address(), key, &error));
  ASSERT_TRUE(rememberSSHHostKey(address(), key, &error));
  EXPECT_EQ(
      fmt::format("# a comment without an end\n[127.0.0.1]:{} ssh-ed25519 {}\n", server->port(), key.base64),
      knownHosts());
}

TEST_F(SshHostKeys, HashedEntriesCount) {
  start();
  const SSHHostKey key = probe().key;
  ASSERT_TRUE(rememberSSHHostKey(address(), key, &error));
  ASSERT_TRUE(runProgram({"ssh-keygen", "-H", "-f", knownHostsFile()}));
  ASSERT_EQ(std::string::npos, knownHosts().find("127.0.0.1"));
  EXPECT_EQ(SSHHostKeyStatus::kKnown, probe().status);
  EXPECT_EQ(server->fingerprint(), knownSSHFingerprints(address()));
}

TEST_F(SshHostKeys, AChangedKeyIsToldWithFileAndLine) {
  start();
  writeHomeFile(".ssh/known_hosts",
                fmt::format("# comment\n\n[127.0.0.1]:{} {} me@here\n", server->port(), otherKey()));
  const SSHHostKeyProbe changed = probe();
  EXPECT_EQ(SSHHostKeyStatus::kChanged, changed.status);
  ASSERT_TRUE(changed.conflict);
  EXPECT_EQ(knownHostsFile(), changed.conflict->file);
  EXPECT_EQ(3, changed.conflict->line);
  EXPECT_NE(server->fingerprint(), changed.conflict->key.fingerprint);
  EXPECT_EQ(server->fingerprint(), changed.key.fingerprint);
}

TEST_F(SshHostKeys, AKeyOfAnotherTypeLeavesThisOneUnknown) {
  start();
  writeHomeFile(".ssh/known_hosts", fmt::format("[127.0.0.1]:{} {}\n", server->port(), otherKey("ecdsa")));
  const SSHHostKeyProbe result = probe();
  EXPECT_EQ(SSHHostKeyStatus::kUnknown, result.status);
  EXPECT_EQ(1u, result.known.size());
}

TEST_F(SshHostKeys, ARevokedKeyIsNoneToTrust) {
  start();
  const SSHHostKey key = probe().key;
  const std::string line = fmt::format("[127.0.0.1]:{} {} {}\n", server->port(), key.type, key.base64);
  writeHomeFile(".ssh/known_hosts", line + "@revoked " + line);
  const SSHHostKeyProbe revoked = probe();
  EXPECT_EQ(SSHHostKeyStatus::kRevoked, revoked.status);
  ASSERT_TRUE(revoked.conflict);
  EXPECT_EQ(2, revoked.conflict->line);
  EXPECT_EQ("", knownSSHFingerprints(address()));
}

TEST_F(SshHostKeys, AuthoritiesOtherHostsAndNonsenseAreNotEntries) {
  start();
  const SSHHostKey key = probe().key;
  writeHomeFile(
      ".ssh/known_hosts",
      fmt::format("@cert-authority [127.0.0.1]:{0} {1} {2}\nother {1} {2}\n[127.0.0.1]:{0}\n[127.0.0.1]:{0} "
                  "ssh-ed25519 !!!!\n|1|bad|bad {1} {2}\n{3}\n127.0.0.1 {1} {2}\n",
                  server->port(), key.type, key.base64, std::string(100000, 'x')));
  EXPECT_TRUE(knownSSHHostKeys(address()).empty());
}

TEST_F(SshHostKeys, SeveralKeysOfAHostAreAllTold) {
  start();
  const SSHHostKey key = probe().key;
  writeHomeFile(".ssh/known_hosts",
                fmt::format("[127.0.0.1]:{0} {1} {2}\n[127.0.0.1]:{0} {3}\n[127.0.0.1]:{0} {1} {2}\n",
                            server->port(), key.type, key.base64, otherKey("ecdsa")));
  const std::string fingerprints = knownSSHFingerprints(address());
  EXPECT_TRUE(fingerprints.starts_with(server->fingerprint() + " SHA256:")) << fingerprints;
  EXPECT_EQ(1, std::count(fingerprints.begin(), fingerprints.end(), ' ')) << "each once: " << fingerprints;
  auto credentials = keyCredentials();
  credentials->setOption("fingerprint", fingerprints);
  EXPECT_EQ(0, logIn(credentials)) << error->description();
}

TEST_F(SshHostKeys, AnAliasIsKnownByTheNameThatItStandsFor) {
  start();
  writeHomeFile(".ssh/config", fmt::format("Host alias\n  HostName 127.0.0.1\n  Port {}\n", server->port()));
  const auto result = probeSSHHostKey({"alias", 0, ""}, std::chrono::seconds(15), &error);
  ASSERT_TRUE(result) << error->description();
  EXPECT_EQ(fmt::format("[127.0.0.1]:{}", server->port()), result->knownHostsName);
  ASSERT_TRUE(rememberSSHHostKey({"alias", 0, ""}, result->key, &error));
  EXPECT_EQ(server->fingerprint(), knownSSHFingerprints(address()));
}

TEST_F(SshHostKeys, AnotherKnownHostsFileOfTheConfigurationIsUsed) {
  start();
  writeHomeFile(".ssh/config", fmt::format("Host *\n  UserKnownHostsFile {}/mine\n", home));
  ASSERT_TRUE(rememberSSHHostKey(address(), probe().key, &error));
  EXPECT_EQ("", knownHosts());
  EXPECT_EQ(server->fingerprint(), knownSSHFingerprints(address()));
}

TEST_F(SshHostKeys, AServerThatIsNotThereIsAnError) {
  start();
  EXPECT_FALSE(probeSSHHostKey({"127.0.0.1", 1, ""}, std::chrono::seconds(5), &error));
  EXPECT_EQ(kQuarnKitCouldNotConnect, codeOf(error));
}

}  // namespace
}  // namespace ombra::test
