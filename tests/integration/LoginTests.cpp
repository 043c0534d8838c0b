// The ways to log in, and what the user is told when they fail.
#include <unistd.h>

#include <fstream>

#include "tests/integration/MountFixture.h"
#include "tests/support/TemporaryUser.h"

namespace ombra {
namespace {

class Login : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (HasFatalFailure()) return;
    std::ofstream(data() + "/file") << "text";
  }
  void expectReadable(const std::string& volume) {
    EXPECT_EQ(user->run("cat " + shellWord(volume + "/file")).output, "text");
  }
};

TEST_F(Login, ByKeyFile) { expectReadable(user->mount(mountArguments(data()))); }

TEST_F(Login, ByTheKeyInTheUsersHome) {
  ASSERT_EQ(shell("install -m 600 " + shellWord(server->identityFile()) + " " +
                  shellWord(user->home() + "/.ssh/id_ed25519"))
                .status,
            0);
  expectReadable(user->mount(shellWord(url(data()))));
}

TEST_F(Login, ByAgent) {
  const ShellResult agent = user->run("ssh-agent -a " + shellWord(user->home() + "/agent") + " -s");
  ASSERT_EQ(agent.status, 0) << agent.errors;
  user->environment()["SSH_AUTH_SOCK"] = user->home() + "/agent";
  ASSERT_EQ(user->run("ssh-add " + shellWord(server->identityFile())).status, 0);
  expectReadable(user->mount(shellWord(url(data()))));
  user->run("pkill -f " + shellWord("ssh-agent -a " + user->home()));
}

TEST_F(Login, ByAKeyWithAPassphrase) {
  const std::string key = user->home() + "/.ssh/locked";
  ASSERT_EQ(shell("install -m 600 " + shellWord(server->identityFile()) + " " + shellWord(key) +
                  " && ssh-keygen -q -p -P '' -N 'open sesame' -f " + shellWord(key))
                .status,
            0);
  std::ofstream(user->home() + "/pass") << "open sesame\n";
  ASSERT_EQ(shell("chmod 600 " + shellWord(user->home() + "/pass")).status, 0);
  expectReadable(user->mount("--identity " + shellWord(key) + " --password-file " +
                             shellWord(user->home() + "/pass") + " " + shellWord(url(data()))));
}

TEST_F(Login, ByAHostAliasOfTheSshConfiguration) {
  std::ofstream(user->home() + "/.ssh/config")
      << "Host filer\n HostName " << server->address() << "\n Port " << server->port() << "\n User "
      << server->user() << "\n IdentityFile " << server->identityFile() << "\n";
  expectReadable(user->mount("sftp://filer" + shellWord(data())));
}

TEST_F(Login, AHostThatIsNotKnownIsRefusedWithoutATerminalAndTakenWithAcceptNew) {
  ASSERT_EQ(unlink((user->home() + "/.ssh/known_hosts").c_str()), 0);
  const ShellResult refused = user->ombra("mount " + mountArguments(data()));
  EXPECT_EQ(refused.status, 5);
  EXPECT_NE(refused.errors.find("SHA256:"), std::string::npos) << refused.errors;
  EXPECT_NE(refused.errors.find("--accept-new"), std::string::npos) << refused.errors;
  expectReadable(user->mount("--accept-new " + mountArguments(data())));
  EXPECT_EQ(user->run("grep -c . " + shellWord(user->home() + "/.ssh/known_hosts")).output, "1\n");
}

TEST_F(Login, AChangedHostKeyIsRefusedWithTheLineToLookAt) {
  const SshdFixture other;
  const std::string line = other.knownHostsLine();
  std::ofstream(user->home() + "/.ssh/known_hosts")
      << "[" << server->address() << "]:" << server->port() << line.substr(line.find(' ')) << "\n";
  const ShellResult refused = user->ombra("mount " + mountArguments(data()));
  EXPECT_NE(refused.status, 0);
  EXPECT_NE(refused.errors.find("known_hosts"), std::string::npos) << refused.errors;
  EXPECT_EQ(user->ombra("mount --accept-new " + mountArguments(data())).status, refused.status);
}

// An account with a password instead of a key, and a server that takes it by one method alone.
class PasswordLogin : public Login, public ::testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    Login::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(account.problem(), "");
    const bool byKeyboard = std::string(GetParam()) == "keyboard-interactive";
    daemon = std::make_unique<SshdFixture>(std::vector<std::string>{
        std::string("AuthenticationMethods ") + GetParam(), byKeyboard ? "UsePAM yes" : "UsePAM no",
        byKeyboard ? "KbdInteractiveAuthentication yes" : "PasswordAuthentication yes"});
    ASSERT_TRUE(daemon->isRunning()) << daemon->whyNot();
    user->trust(*daemon);
    ASSERT_EQ(shell("chmod 755 " + shellWord(data())).status, 0);
  }
  std::string mountWith(const std::string& password) {
    std::ofstream(user->home() + "/pass") << password << "\n";
    shell("chmod 600 " + shellWord(user->home() + "/pass"));
    return "--password-file " + shellWord(user->home() + "/pass") + " " +
           shellWord("sftp://" + account.name() + "@127.0.0.1:" + std::to_string(daemon->port()) + data());
  }
  TemporaryUser account;
  std::unique_ptr<SshdFixture> daemon;
};

TEST_P(PasswordLogin, WithTheRightOneShowsTheFolder) {
  expectReadable(user->mount(mountWith(account.password())));
}

TEST_P(PasswordLogin, WithAWrongOneSaysSoAndLeavesNothing) {
  const ShellResult refused = user->ombra("mount " + mountWith("wrong"));
  EXPECT_EQ(refused.status, 4) << refused.errors;
  EXPECT_NE(refused.errors.find("password"), std::string::npos) << refused.errors;
  EXPECT_EQ(refused.errors.find(account.password()), std::string::npos);
  EXPECT_EQ(user->volumes().size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Methods, PasswordLogin, ::testing::Values("password", "keyboard-interactive"),
                         [](const auto& method) {
                           return method.param == std::string("password") ? "Password"
                                                                          : "KeyboardInteractive";
                         });

// Name, arguments, exit status, and what the message must hold.
struct BadInput {
  std::string arguments;
  int status;
  std::string message;
};

TEST_F(Login, BadInputGetsAClearMessageAndLeavesNothing) {
  const std::string key = "--identity " + shellWord(server->identityFile()) + " ";
  std::ofstream(user->home() + "/wrong") << "not a key";
  const std::string here = "sftp://" + server->user() + "@127.0.0.1:";
  const BadInput table[] = {
      {"mount", 2, "URL"},
      {"mount --frobnicate " + shellWord(url(data())), 2, "--frobnicate"},
      {"mount nonsense", 2, "sftp://"},
      {"mount sftp://", 2, "host"},
      {"mount gopher://host/x", 2, "gopher"},
      {"mount sftp://host:99999/x", 2, "99999"},
      {"mount " + key + here + "1/x --accept-new", 1, "127.0.0.1"},
      {"mount " + key + "sftp://host.invalid/x --accept-new", 1, "host.invalid"},
      {"mount --identity " + shellWord(user->home() + "/missing") + " " + shellWord(url(data())), 2,
       "missing"},
      {"mount --identity " + shellWord(user->home() + "/wrong") + " " + shellWord(url(data())), 2,
       "no private key"},
      {"mount " + key + shellWord(url("/nonexistent/folder/here")), 3, "nonexistent"},
      {"mount --name .. " + key + shellWord(url(data())), 2, ".."},
      {"unmount nothing-here", 3, "nothing-here"},
      {"logs nothing-here", 3, "nothing-here"},
      {"frobnicate", 2, "frobnicate"},
  };
  for (const BadInput& row : table) {
    const ShellResult result = user->ombra(row.arguments);
    EXPECT_EQ(result.status, row.status) << row.arguments << "\n" << result.errors;
    EXPECT_NE(result.errors.find(row.message), std::string::npos) << row.arguments << "\n" << result.errors;
    EXPECT_EQ(result.output, "") << row.arguments;
  }
  EXPECT_EQ(user->volumes().size(), 0u);
  EXPECT_EQ(user->run("find " + shellWord(user->home() + "/tmp") + " -name '*sock*' | wc -l").output, "0\n");
}

TEST_F(Login, AMissingFuseDeviceIsNamedWithTheRemedy) {
  // A mount namespace of its own, in which /dev/fuse is hidden.
  const ShellResult result =
      user->run("unshare -m sh -c 'mount --bind /dev/null /dev/fuse && " + std::string(OMBRA_BUILD_DIR) +
                "/bin/ombra mount " + mountArguments(data()) + "'");
  EXPECT_EQ(result.status, 6) << result.errors;
  EXPECT_NE(result.errors.find("fuse"), std::string::npos) << result.errors;
}

}  // namespace
}  // namespace ombra
