#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "platform/foundation/BusConnection.h"
#include "platform/foundation/BusMessage.h"
#include "platform/foundation/NSProcessInfo.h"
#include "platform/foundation/RunLoop.h"
#include "tests/foundation/TestSupport.h"

namespace ombra {
namespace {

pid_t spawn(const std::vector<std::string>& arguments, int standardOutput) {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (standardOutput >= 0) posix_spawn_file_actions_adddup2(&actions, standardOutput, STDOUT_FILENO);
  pid_t child = -1;
  if (posix_spawnp(&child, pointers[0], &actions, nullptr, pointers.data(), environ) != 0) child = -1;
  posix_spawn_file_actions_destroy(&actions);
  return child;
}

int exitStatusOf(pid_t child) {
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// A bus of the test's own, in force for its lifetime.
class PrivateBus {
 public:
  PrivateBus() { start(); }
  ~PrivateBus() { stop(); }

  void start() {
    int pipe[2];
    if (pipe2(pipe, O_CLOEXEC) != 0) return;
    iDaemon = spawn({"dbus-daemon", "--session", "--nofork", "--print-address=1", "--address=" + iAddress},
                    pipe[1]);
    close(pipe[1]);
    // It prints its address once it listens; the end of the file means that it did not start.
    char buffer[512];
    iListens = read(pipe[0], buffer, sizeof buffer) > 0;
    close(pipe[0]);
  }
  void stop() {
    if (iDaemon <= 0) return;
    kill(iDaemon, SIGTERM);
    exitStatusOf(iDaemon);
    iDaemon = -1;
  }
  bool listens() const { return iListens; }

 private:
  TemporaryFolder iFolder;
  std::string iAddress = "unix:path=" + (iFolder / "bus");
  EnvironmentVariable iVariable{"DBUS_SESSION_BUS_ADDRESS", iAddress};
  pid_t iDaemon = -1;
  bool iListens = false;
};

class DistributedNotifications : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(iBus.listens()) << "dbus-daemon does not start; is the package dbus installed?";
    RunLoop::mainRunLoop().runOnce(0);  // a loop that has ended takes no work until it runs again
  }
  void TearDown() override {
    center().removeObserver(this);
    if (!iObserves) return;
    // The next test has another bus: wait until the listener has seen the end of this one.
    iBus.stop();
    while (iLog.count("the session bus has gone") == 0) RunLoop::mainRunLoop().runOnce(30000000);
    bool done = false;
    RunLoop::mainRunLoop().perform([&done] { done = true; });
    while (!done) RunLoop::mainRunLoop().runOnce(30000000);
  }

  static NSDistributedNotificationCenter& center() {
    return NSDistributedNotificationCenter::defaultCenter();
  }
  void observe(const std::string& name) {
    iObserves = true;
    center().addObserver(this, name,
                         [this](const NSNotification& notification) { iSeen.push_back(notification); });
  }
  // Runs the loop until that many have arrived.
  void waitFor(size_t count) {
    while (iSeen.size() < count) {
      ASSERT_TRUE(RunLoop::mainRunLoop().runOnce(30000000)) << "nothing arrives";
    }
  }

  PrivateBus iBus;
  LogCapture iLog;
  std::vector<NSNotification> iSeen;
  bool iObserves = false;
};

TEST_F(DistributedNotifications, CarryNameObjectAndUserInfo) {
  observe("OFSMountFailed");
  const NSDictionary userInfo{{"volumeName", "B\u00fccher"},
                              {"paths", NSArray{"/Volumes/nas/a", "/Volumes/nas/b"}},
                              {"none", NSArray{}},
                              {"errorData", NSData{0, 1, 255}},
                              {"empty", NSData{}}};
  EXPECT_TRUE(center().postNotificationName("OFSMountFailed", "uuid", userInfo));
  waitFor(1);
  EXPECT_EQ(iSeen[0].name, "OFSMountFailed");
  EXPECT_EQ(iSeen[0].object, "uuid");
  EXPECT_EQ(iSeen[0].userInfo, userInfo);
}

TEST_F(DistributedNotifications, KeepAbsentAndEmptyApart) {
  observe("a");
  EXPECT_TRUE(center().postNotificationName("a", std::nullopt, std::nullopt));
  EXPECT_TRUE(center().postNotificationName("a", "", NSDictionary()));
  waitFor(2);
  EXPECT_EQ(iSeen[0].object, std::nullopt);
  EXPECT_EQ(iSeen[0].userInfo, std::nullopt);
  EXPECT_EQ(iSeen[1].object, "");
  EXPECT_EQ(iSeen[1].userInfo, NSDictionary());
}

TEST_F(DistributedNotifications, ReachOnlyTheObserversOfTheirName) {
  observe("a");
  EXPECT_TRUE(center().postNotificationName("b", std::nullopt, std::nullopt));
  EXPECT_TRUE(center().postNotificationName("a", std::nullopt, std::nullopt));
  waitFor(1);
  EXPECT_EQ(iSeen[0].name, "a");
}

TEST_F(DistributedNotifications, LeaveOutWhatTheBusCannotCarry) {
  observe("a");
  // The connection may still be that to the bus of an earlier test; this finds it out.
  EXPECT_TRUE(center().postNotificationName("b", std::nullopt, std::nullopt));
  EXPECT_TRUE(center().postNotificationName("a", std::nullopt,
                                            NSDictionary{{"number", 1},
                                                         {"text",
                                                          "\xff"
                                                          "a"},
                                                         {"mixed", NSArray{"x", 1}}}));
  waitFor(1);
  EXPECT_EQ(iSeen[0].userInfo, (NSDictionary{{"text",
                                              "\ufffd"
                                              "a"}}));
  EXPECT_EQ(iLog.count("is left out of a notification"), 2U);
}

TEST_F(DistributedNotifications, OfAProcessThatEndsRightAfterPostingArrive) {
  observe("OFSDidUnmount");
  for (size_t i = 0; i < 5; ++i) {
    const pid_t child =
        spawn({NSProcessInfo::executablePath(), "--post-and-exit", "OFSDidUnmount", std::to_string(i)}, -1);
    EXPECT_EQ(exitStatusOf(child), 0);
    waitFor(i + 1);
    EXPECT_EQ(iSeen.back().object, std::to_string(i));
    EXPECT_EQ(iSeen.back().userInfo->stringForKey("volumeName"), "nas");
  }
}

TEST_F(DistributedNotifications, AreNotMissedBetweenAddingTheObserverAndRunningTheLoop) {
  observe("a");
  for (int i = 0; i < 100; ++i)
    EXPECT_TRUE(center().postNotificationName("a", std::to_string(i), std::nullopt));
  waitFor(100);
  for (size_t i = 0; i < 100; ++i) EXPECT_EQ(iSeen[i].object, std::to_string(i));
}

TEST_F(DistributedNotifications, MayBePostedFromSeveralThreads) {
  observe("a");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int n = 0; n < 25; ++n)
        EXPECT_TRUE(center().postNotificationName("a", std::nullopt, std::nullopt));
    });
  }
  waitFor(100);
  for (std::thread& thread : threads) thread.join();
}

TEST_F(DistributedNotifications, ArePostedAgainAfterTheBusWasRestarted) {
  EXPECT_TRUE(center().postNotificationName("a", std::nullopt, std::nullopt));
  iBus.stop();
  EXPECT_FALSE(center().postNotificationName("a", std::nullopt, std::nullopt));
  iBus.start();
  EXPECT_TRUE(center().postNotificationName("a", std::nullopt, std::nullopt));
}

TEST_F(DistributedNotifications, OfStrangersWithOtherContentsAreIgnored) {
  observe("a");
  int result = 0;
  const BusRef bus = openSessionBus(&result);
  ASSERT_NE(bus, nullptr);
  EXPECT_GE(
      sd_bus_emit_signal(bus.get(), kNotificationPath, kNotificationInterface, kNotificationMember, "i", 1),
      0);
  EXPECT_GE(sd_bus_emit_signal(bus.get(), kNotificationPath, kNotificationInterface, kNotificationMember,
                               "ssbba{sv}", "a", "", 0, 1, 2, "odd", "i", 5, "even", "s", "x"),
            0);
  sd_bus_flush(bus.get());
  waitFor(1);
  EXPECT_EQ(iSeen[0].userInfo, (NSDictionary{{"even", "x"}}));
}

TEST_F(DistributedNotifications, EndWithTheRemovalOfTheObserver) {
  observe("a");
  int other = 0;
  size_t seen = 0;
  center().addObserver(&other, "a", [&seen](const NSNotification&) { ++seen; });
  center().removeObserver(this);
  EXPECT_TRUE(center().postNotificationName("a", std::nullopt, std::nullopt));
  while (seen == 0) ASSERT_TRUE(RunLoop::mainRunLoop().runOnce(30000000));
  EXPECT_TRUE(iSeen.empty());
  center().removeObserver(&other);
}

TEST(WithoutASessionBus, PostingIsRefusedWithOneLogLine) {
  EnvironmentVariable variable("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus");
  LogCapture log;
  BusPoster poster;
  EXPECT_FALSE(poster.post({"OFSDidMount", "uuid", std::nullopt}));
  EXPECT_FALSE(poster.post({"OFSDidUnmount", "uuid", std::nullopt}));
  EXPECT_EQ(log.count("the session bus is not available"), 1U);
  EXPECT_EQ(log.lines().size(), 1U);
}

TEST(WithoutASessionBus, ObservingIsLogged) {
  EnvironmentVariable variable("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus");
  LogCapture log;
  BusListener listener;
  int observer = 0;
  listener.addObserver(&observer, "a", [](const NSNotification&) {});
  EXPECT_EQ(log.count("other programs cannot be heard"), 1U);
}

TEST(DistributedCenter, CanBeReplaced) {
  struct Silent final : NSDistributedNotificationCenter {
    bool postNotificationName(std::string_view, std::optional<std::string>,
                              std::optional<NSDictionary>) override {
      return true;
    }
    void addObserver(const void*, std::string_view, NotificationHandler) override {}
    void removeObserver(const void*) override {}
  } silent;
  NSDistributedNotificationCenter& bus = NSDistributedNotificationCenter::defaultCenter();
  NSDistributedNotificationCenter::setDefaultCenter(&silent);
  EXPECT_EQ(&NSDistributedNotificationCenter::defaultCenter(), &silent);
  NSDistributedNotificationCenter::setDefaultCenter(nullptr);
  EXPECT_EQ(&NSDistributedNotificationCenter::defaultCenter(), &bus);
}

}  // namespace
}  // namespace ombra
