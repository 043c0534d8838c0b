// When the feed is looked at, and who is told of what is in it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <future>

#include "fshelper/SUUpdater.h"
#include "platform/foundation/NSFileHandle.h"
#include "platform/foundation/NSUserDefaults.h"
#include "tests/fshelper/controller/ControllerTestSupport.h"
#include "tests/fshelper/controller/FeedServer.h"
#include "tests/fshelper/controller/NotificationService.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr double kHour = 3600;

// Settings and a state folder of its own.
class UpdateTest : public ::testing::Test {
 protected:
  UpdateTest() { NSUserDefaults::standardUserDefaults().reload(); }
  ~UpdateTest() override { NSUserDefaults::standardUserDefaults().reload(); }
  void set(std::string_view key, PropertyValue value) {
    NSErrorRef error;
    ASSERT_TRUE(NSUserDefaults::standardUserDefaults().setObject(std::move(value), key, &error));
  }

  TestFolder folder;
  const TestVariable iState{"XDG_STATE_HOME", folder.path("state")};
  const TestVariable iConfiguration{"XDG_CONFIG_HOME", folder.path("config")};
  LogRecord log;
  ManualClock clock;
};

// --- when

using UpdateSchedule = UpdateTest;

TEST_F(UpdateSchedule, ALookIsDueOnceADay) {
  SUUpdateSchedule schedule;
  EXPECT_NE(schedule.claim(), nullptr);
  EXPECT_EQ(schedule.claim(), nullptr);
  clock.advance(24 * kHour - 1);
  EXPECT_EQ(schedule.claim(), nullptr);
  clock.advance(1);
  EXPECT_NE(schedule.claim(), nullptr);
  EXPECT_EQ(schedule.claim(), nullptr);
}

TEST_F(UpdateSchedule, TheDayIsRememberedAcrossProcesses) {
  EXPECT_NE(SUUpdateSchedule().claim(), nullptr);
  const auto kept = NSUserDefaults::standardUserDefaults().objectForKey("SULastCheckTime");
  ASSERT_TRUE(kept.has_value() && kept->asDate() != nullptr);
  EXPECT_EQ(*kept->asDate(), clock.now());
  NSUserDefaults::standardUserDefaults().reload();
  EXPECT_EQ(SUUpdateSchedule().claim(), nullptr);
}

TEST_F(UpdateSchedule, OnlyOneOfTwoLooks) {
  SUUpdateSchedule schedule;
  const auto claim = schedule.claim();
  ASSERT_NE(claim, nullptr);
  clock.advance(25 * kHour);  // a look that hangs
  EXPECT_EQ(SUUpdateSchedule().claim(), nullptr);
}

TEST_F(UpdateSchedule, ALookInTheFutureDoesNotCount) {
  set("SULastCheckTime", clock.now().dateByAddingTimeInterval(1));
  EXPECT_NE(SUUpdateSchedule().claim(), nullptr);
}

TEST_F(UpdateSchedule, AnotherKindOfValueDoesNotCount) {
  set("SULastCheckTime", "yesterday");
  EXPECT_NE(SUUpdateSchedule().claim(), nullptr);
}

TEST_F(UpdateSchedule, WithoutSettingsItIsADayAllTheSame) {
  writeTestFile(folder.path("config"), "no folder");
  SUUpdateSchedule schedule;
  EXPECT_NE(schedule.claim(), nullptr);
  EXPECT_THAT(log.lines(), Contains(StartsWith("When updates were looked for cannot be kept: ")));
  EXPECT_EQ(schedule.claim(), nullptr);
}

TEST_F(UpdateSchedule, WithoutAPlaceForTheLockNobodyLooks) {
  writeTestFile(folder.path("state"), "no folder");
  EXPECT_EQ(SUUpdateSchedule().claim(), nullptr);
}

// --- what

class Updater : public UpdateTest {
 protected:
  Updater() {
    updater.setFeedURL("file://" + folder.path("feed.xml"));
    updater.setAutomaticallyChecksForUpdates(true);
  }
  void publish(const std::string& version, const std::string& page = "https://example.org/get?a&b") {
    std::string link;
    for (const char c : page) link += c == '&' ? "&amp;" : std::string(1, c);
    writeTestFile(folder.path("feed.xml"), "<rss><channel><item><link>" + link + "</link><sparkle:version>" +
                                               version + "</sparkle:version></item></channel></rss>");
  }
  // One look, up to its end.
  void look() {
    updater.startUpdater();
    clock.waitForSleepers(1);
    updater.stop();
  }

  std::vector<NSUserNotification> delivered;
  std::atomic<size_t> deliveries = 0;  // for a test that must not look into `delivered` yet
  bool hasDesktop = true;
  SUUpdater updater{"1.9.0", [this](const NSUserNotification& notification, std::string* reason) {
                      delivered.push_back(notification);
                      ++deliveries;
                      if (!hasDesktop) *reason = "no desktop";
                      return hasDesktop;
                    }};
};

TEST_F(Updater, TellsOfALaterVersion) {
  publish("1.10");
  look();
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(delivered[0].title, "Ombra 1.10 is available");
  EXPECT_EQ(delivered[0].informativeText, "This is 1.9.0. Get it from https://example.org/get?a&b");
  EXPECT_THAT(log.lines(), ElementsAre("Ombra 1.10 is available; this is 1.9.0. Get it from "
                                       "https://example.org/get?a&b"));
}

TEST_F(Updater, WithoutADesktopTheLogTellsOfIt) {
  hasDesktop = false;
  publish("1.10", "");
  look();
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("Get it from where this one came from."),
                                       "Nobody at a desktop could be told of it: no desktop"));
}

TEST_F(Updater, SaysNothingAtTheDesktopOfWhatIsNotLater) {
  for (const char* version : {"1.9.0", "1.9", "1.8.99", "1.9.0rc1"}) {
    publish(version);
    clock.advance(25 * kHour);
    look();
  }
  EXPECT_THAT(delivered, IsEmpty());
  EXPECT_THAT(log.lines(), Contains("There is no later version than this one, 1.9.0.").Times(4));
}

TEST_F(Updater, LeavesOutAVersionThatIsToBeSkipped) {
  publish("1.10");
  set("SUSkippedVersion", "1.10");
  look();
  EXPECT_THAT(delivered, IsEmpty());
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("Version 1.10 is there, and skipped")));
}

TEST_F(Updater, SaysWhyAFeedCannotBeUsed) {
  writeTestFile(folder.path("feed.xml"), "Please log in");
  look();
  EXPECT_THAT(log.lines(), ElementsAre(AllOf(StartsWith("The update feed file://"),
                                             HasSubstr("could not be used: it is no XML"),
                                             HasSubstr("asked again in a day"))));
  EXPECT_THAT(delivered, IsEmpty());
}

TEST_F(Updater, DoesNotAskAFeedInTheClear) {
  updater.setFeedURL("http://127.0.0.1:1/feed.xml");
  look();
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("a feed is read over https alone")));
}

TEST_F(Updater, LooksAgainWhenADayHasPassed) {
  publish("1.10");
  updater.startUpdater();
  clock.waitForSleepers(1);
  EXPECT_EQ(delivered.size(), 1u);
  publish("1.11");
  clock.advance(25 * kHour);
  // A sleeper that has not woken yet is one of the first wait.
  while (deliveries < 2) std::this_thread::yield();
  updater.stop();
  ASSERT_EQ(delivered.size(), 2u);
  EXPECT_EQ(delivered[1].title, "Ombra 1.11 is available");
}

TEST_F(Updater, StartedTwiceLooksOnce) {
  publish("1.10");
  updater.startUpdater();
  updater.startUpdater();
  clock.waitForSleepers(1);
  updater.stop();
  EXPECT_EQ(delivered.size(), 1u);
}

TEST_F(Updater, AnEmptyFeedIsSaidOnceAndNeverAsked) {
  updater.setFeedURL("");
  updater.setAutomaticallyChecksForUpdates(true);
  updater.setAutomaticallyChecksForUpdates(true);
  updater.startUpdater();
  updater.stop();
  EXPECT_THAT(log.lines(), ElementsAre("Software updates are off: this copy has no update feed."));
  EXPECT_FALSE(NSUserDefaults::standardUserDefaults().objectForKey("SULastCheckTime").has_value());
}

TEST_F(Updater, CanBeSwitchedOffByTheUser) {
  set("SUEnableAutomaticChecks", false);
  publish("1.10");
  updater.startUpdater();
  updater.stop();
  EXPECT_THAT(log.lines(),
              ElementsAre("Software updates are off in the settings (SUEnableAutomaticChecks)."));
  EXPECT_FALSE(NSUserDefaults::standardUserDefaults().objectForKey("SULastCheckTime").has_value());
}

TEST_F(Updater, DoesNotLookWhenThatIsNotWanted) {
  updater.setAutomaticallyChecksForUpdates(false);
  publish("1.10");
  updater.startUpdater();
  updater.stop();
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Updater, AServerThatHangsHoldsUpNeitherTheStartNorTheEnd) {
  const DeafPort deaf;
  updater.setFeedURL(deaf.url());
  updater.startUpdater();
  updater.stop();
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_THAT(delivered, IsEmpty());
}

// --- at the desktop

class DesktopNotification : public ::testing::Test {
 protected:
  PrivateBus bus;
  const TestVariable iAddress{"DBUS_SESSION_BUS_ADDRESS", bus.address()};
  std::string reason;
};

TEST_F(DesktopNotification, IsHandedToTheService) {
  NotificationService service(bus, {"body"});
  EXPECT_TRUE(NSUserNotificationCenter::deliver({"Title", "a & <b>", "an-icon"}, &reason)) << reason;
  const std::vector<ShownNotification> shown = service.shown(1);
  EXPECT_EQ(shown[0].application, "Ombra");
  EXPECT_EQ(shown[0].icon, "an-icon");
  EXPECT_EQ(shown[0].title, "Title");
  EXPECT_EQ(shown[0].body, "a & <b>");
}

TEST_F(DesktopNotification, IsNoMarkupToAServiceThatReadsIt) {
  NotificationService service(bus, {"actions", "body", "body-markup"});
  EXPECT_TRUE(NSUserNotificationCenter::deliver({"Title", "a & <b>", ""}, &reason)) << reason;
  EXPECT_EQ(service.shown(1)[0].body, "a &amp; &lt;b&gt;");
}

TEST_F(DesktopNotification, WithoutAServiceFailsWithAReason) {
  EXPECT_FALSE(NSUserNotificationCenter::deliver({"Title", "text", ""}, &reason));
  EXPECT_THAT(reason, HasSubstr("org.freedesktop.Notifications"));
}

TEST_F(DesktopNotification, WithoutABusFailsWithAReason) {
  const TestVariable nowhere("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus");
  EXPECT_FALSE(NSUserNotificationCenter::deliver({"Title", "text", ""}, &reason));
  EXPECT_THAT(reason, Not(IsEmpty()));
}

}  // namespace
}  // namespace ombra
