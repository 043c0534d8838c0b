// The keys held at launch, on a real X server.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "fshelper/OFSControllerApplication.h"
#include "fshelper/SUUpdater.h"
#include "tests/fshelper/controller/ControllerFixture.h"

extern char** environ;

namespace ombra {
namespace {

// Starts a program; -1, with errno set, when there is none of that name.
pid_t spawnWords(std::vector<std::string> words, posix_spawn_file_actions_t* actions) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t process = -1;
  errno = ::posix_spawnp(&process, argv[0], actions, nullptr, argv.data(), environ);
  return errno == 0 ? process : -1;
}

// A virtual X server on a display of its own, for its lifetime.
class VirtualDisplay {
 public:
  VirtualDisplay() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 3);
    // Its keyboard compiler talks much.
    for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO})
      posix_spawn_file_actions_addopen(&actions, descriptor, "/dev/null", O_WRONLY, 0);
    iServer = spawnWords(
        {"Xvfb", "-displayfd", "3", "-nolisten", "tcp", "-noreset", "-screen", "0", "64x64x24"}, &actions);
    posix_spawn_file_actions_destroy(&actions);
    ::close(ends[1]);
    // The number is told when it can be reached.
    char byte = 0;
    while (iServer > 0 && ::read(ends[0], &byte, 1) == 1 && byte != '\n') iName.push_back(byte);
    ::close(ends[0]);
    if (!iName.empty()) iName.insert(0, ":");
  }
  ~VirtualDisplay() {
    if (iServer <= 0) return;
    ::kill(iServer, SIGTERM);
    ::waitpid(iServer, nullptr, 0);
  }
  VirtualDisplay(const VirtualDisplay&) = delete;
  VirtualDisplay& operator=(const VirtualDisplay&) = delete;
  // Empty when it could not be started.
  const std::string& name() const { return iName; }

 private:
  pid_t iServer = -1;
  std::string iName;
};

struct HeldKeys {
  const char* keys;  // as xdotool names them
  uint32_t flags;
};

class ModifierKeys : public ControllerTest, public ::testing::WithParamInterface<HeldKeys> {
 protected:
  static void SetUpTestSuite() { sDisplay = new VirtualDisplay; }
  static void TearDownTestSuite() {
    delete sDisplay;
    sDisplay = nullptr;
  }
  void SetUp() override {
    if (!sDisplay->name().empty()) {
      ::setenv("DISPLAY", sDisplay->name().c_str(), 1);
    } else {
      ASSERT_EQ(std::getenv("CI"), nullptr) << "Xvfb could not be started: scripts/dependencies test";
      GTEST_SKIP() << "needs Xvfb and xdotool: scripts/dependencies test";
    }
  }
  void TearDown() override {
    if (!iHeld.empty()) press("keyup", iHeld);
    ::unsetenv("DISPLAY");
  }
  void hold(const std::string& keys) {
    iHeld = keys;
    press("keydown", keys);
  }

  static VirtualDisplay* sDisplay;

 private:
  static void press(const std::string& how, const std::string& keys) {
    if (keys.empty()) return;
    std::vector<std::string> words{"xdotool"};
    for (size_t at = 0; at < keys.size();) {
      const size_t end = std::min(keys.find(' ', at), keys.size());
      words.insert(words.end(), {how, keys.substr(at, end - at)});
      at = end + 1;
    }
    const pid_t tool = spawnWords(std::move(words), nullptr);
    ASSERT_GT(tool, 0) << "xdotool cannot be started: scripts/dependencies test";
    int status = 0;
    ::waitpid(tool, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  std::string iHeld;
};

VirtualDisplay* ModifierKeys::sDisplay = nullptr;

TEST_P(ModifierKeys, AreToldAndChooseTheFeed) {
  hold(GetParam().keys);
  constexpr uint32_t kAll = 0x1a0000;
  EXPECT_EQ(modifierFlagsOfCurrentEvent() & kAll, GetParam().flags);
  environment.modifierFlags = [] { return modifierFlagsOfCurrentEvent(); };
  launch(arguments());
  EXPECT_EQ(SUUpdater::sharedUpdater().feedURL(),
            GetParam().flags == kAll ? environment.stagingUpdateFeed : environment.updateFeed);
}

INSTANTIATE_TEST_SUITE_P(Held, ModifierKeys,
                         ::testing::Values(HeldKeys{"", 0}, HeldKeys{"shift", 0x20000},
                                           HeldKeys{"alt", 0x80000}, HeldKeys{"super", 0x100000},
                                           HeldKeys{"shift alt", 0xa0000}, HeldKeys{"shift super", 0x120000},
                                           HeldKeys{"alt super", 0x180000},
                                           HeldKeys{"shift alt super", 0x1a0000},
                                           HeldKeys{"ctrl shift alt super", 0x1a0000}));

TEST(NoModifierKeys, AreHeldWithoutAnXServer) {
  ::unsetenv("DISPLAY");
  EXPECT_EQ(modifierFlagsOfCurrentEvent(), 0U);
  for (const char* display : {"", ":999999", "nonsense", ":0.99"}) {
    const TestVariable variable("DISPLAY", display);
    EXPECT_EQ(modifierFlagsOfCurrentEvent(), 0U) << display;
  }
}

}  // namespace
}  // namespace ombra
