// A password in a desktop's keyring: a real one, on a message bus of its own.
#include <sys/stat.h>

#include <fstream>

#include "tests/integration/MountFixture.h"
#include "tests/support/TemporaryUser.h"

namespace ombra {
namespace {

// Runs a command at a terminal of its own, and types its input when the password is asked for.
constexpr const char* kTerminal = R"(
import os, pty, sys
process, terminal = pty.fork()
if process == 0:
    os.execv(sys.argv[1], sys.argv[1:])
seen = b""
try:
    while piece := os.read(terminal, 4096):
        asked = b"Password of" in seen
        seen += piece
        if b"Password of" in seen and not asked:
            os.write(terminal, sys.stdin.buffer.read())
except OSError:
    pass  # the other end has closed it
status = os.waitstatus_to_exitcode(os.waitpid(process, 0)[1])
sys.exit(status if b"Password of" in seen else 99)
)";

// A server that takes a password alone, and a user at a desktop.
class RealKeyring : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(account.problem(), "");
    daemon = std::make_unique<SshdFixture>(std::vector<std::string>{
        "AuthenticationMethods password", "UsePAM no", "PasswordAuthentication yes"});
    ASSERT_TRUE(daemon->isRunning()) << daemon->whyNot();
    user->trust(*daemon);
    ASSERT_EQ(shell("chmod 755 " + shellWord(data())).status, 0);
    std::ofstream(data() + "/file") << "text";
    std::ofstream(user->home() + "/pass") << account.password() << "\n";
    ASSERT_EQ(::chmod((user->home() + "/pass").c_str(), 0600), 0);
    ASSERT_EQ(::mkdir((user->home() + "/run").c_str(), 0700), 0);
    user->environment()["XDG_RUNTIME_DIR"] = user->home() + "/run";
    startBus();
  }
  void TearDown() override {
    // Volumes are unmounted over the bus. With it goes the keyring.
    user.reset();
    bus.stop();
  }
  // One on which nobody is started by a message: whether there is a keyring is for the test to say.
  void startBus() {
    const std::string address = "unix:path=" + user->home() + "/run/bus";
    const std::string settings = user->home() + "/run/bus.conf";
    std::ofstream(settings)
        << "<busconfig><type>session</type><listen>" << address
        << "</listen><policy context=\"default\"><allow send_destination=\"*\"/>"
           "<allow receive_sender=\"*\"/><allow own=\"*\"/><allow user=\"*\"/></policy></busconfig>\n";
    ASSERT_TRUE(bus.start({ServerProcess::findProgram("dbus-daemon"), "--nofork", "--nopidfile",
                           "--print-address=1", "--config-file=" + settings},
                          "unix:", 0))
        << bus.log();
    user->environment()["DBUS_SESSION_BUS_ADDRESS"] = address;
  }
  // As a login does it, with the password that the user has typed there.
  void startKeyring() {
    const ShellResult result = user->run(
        "printf 'login password' | gnome-keyring-daemon --daemonize --unlock --components=secrets"
        " --control-directory=\"$HOME/run/keyring\" >\"$HOME/keyring.log\" 2>&1; cat \"$HOME/keyring.log\"");
    ASSERT_NE(result.output.find("GNOME_KEYRING_CONTROL"), std::string::npos)
        << result.output << result.errors;
  }
  std::string url() const {
    return shellWord("sftp://" + account.name() + "@127.0.0.1:" + std::to_string(daemon->port()) + data());
  }
  std::string withPassword() const {
    return "--password-file " + shellWord(user->home() + "/pass") + " " + url();
  }
  void mountAndUnmount(const std::string& arguments) {
    const std::string volume = user->mount(arguments);
    EXPECT_EQ(user->run("cat " + shellWord(volume + "/file")).output, "text");
    EXPECT_EQ(user->ombra("unmount " + shellWord(volume)).status, 0);
  }
  // A person at a terminal who is asked for the password, and types it. The status of the command; 99 when
  // nobody was asked.
  int mountAtATerminal() {
    std::ofstream(user->home() + "/terminal.py") << kTerminal;
    return user
        ->run("python3 \"$HOME/terminal.py\" " + std::string(OMBRA_BUILD_DIR) + "/bin/ombra mount --name " +
                  shellWord(ownName("Asked")) + " " + url() + " <\"$HOME/pass\"",
              60)
        .status;
  }
  TemporaryUser account;
  std::unique_ptr<SshdFixture> daemon;
  ServerProcess bus;
};

TEST_F(RealKeyring, KeepsAPasswordForLaterMountsUntilItIsForgotten) {
  startKeyring();
  mountAndUnmount("--save " + withPassword());
  EXPECT_EQ(user->run("grep -rlF " + shellWord(account.password()) + " \"$XDG_DATA_HOME\"").output, "")
      << "only in a sealed form";
  mountAndUnmount(url());
  const ShellResult forgotten = user->ombra("forget " + url());
  EXPECT_EQ(forgotten.status, 0) << forgotten.errors;
  EXPECT_EQ(user->ombra("forget " + url()).status, 3);
  EXPECT_EQ(user->ombra("mount " + url()).status, 4);
  EXPECT_EQ(mountAtATerminal(), 0);
  EXPECT_EQ(user->ombra("unmount " + shellWord(ownName("Asked"))).status, 0);
}

TEST_F(RealKeyring, ThatIsLockedIsToldAndThePasswordAskedFor) {
  startKeyring();
  mountAndUnmount("--save " + withPassword());
  ASSERT_EQ(
      user->run("dbus-send --session --print-reply --dest=org.freedesktop.secrets /org/freedesktop/secrets"
                " org.freedesktop.Secret.Service.Lock array:objpath:/org/freedesktop/secrets/aliases/default")
          .status,
      0);
  const ShellResult refused = user->ombra("mount " + url());
  EXPECT_EQ(refused.status, 4);
  EXPECT_NE(refused.errors.find("It is locked"), std::string::npos) << refused.errors;
  mountAndUnmount(withPassword());
}

TEST_F(RealKeyring, ThatIsNotThereIsToldWhoeverWantsToSave) {
  const ShellResult mounted = user->ombra("mount --save " + withPassword());
  EXPECT_EQ(mounted.status, 0);
  EXPECT_NE(mounted.errors.find("There is no keyring here, so nothing is saved."), std::string::npos)
      << mounted.errors;
  EXPECT_EQ(user->ombra("unmount " + shellWord(mounted.output.substr(0, mounted.output.find('\n')))).status,
            0);
  EXPECT_EQ(user->ombra("forget --all").status, 1);
}

}  // namespace
}  // namespace ombra
