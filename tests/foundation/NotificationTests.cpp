#include <thread>

#include "platform/foundation/NSNotificationCenter.h"

namespace ombra {
namespace {

using testing::ElementsAre;

class LocalNotifications : public testing::Test {
 protected:
  NotificationHandler record(const std::string& who) {
    return
        [this, who](const NSNotification& notification) { iSeen.push_back(who + ":" + notification.name); };
  }
  NSNotificationCenter iCenter;
  std::vector<std::string> iSeen;
  int iFirst = 0;
  int iSecond = 0;
};

TEST_F(LocalNotifications, ReachTheObserversOfTheirNameInOrder) {
  iCenter.addObserver(&iFirst, "a", record("1"));
  iCenter.addObserver(&iSecond, "a", record("2"));
  iCenter.addObserver(&iSecond, "b", record("3"));
  iCenter.postNotification({"a", std::nullopt, std::nullopt});
  EXPECT_THAT(iSeen, ElementsAre("1:a", "2:a"));
}

TEST_F(LocalNotifications, CarryObjectAndUserInfo) {
  std::optional<NSNotification> seen;
  iCenter.addObserver(&iFirst, "a", [&seen](const NSNotification& notification) { seen = notification; });
  iCenter.postNotification({"a", "object", NSDictionary{{"mountPath", "/Volumes/nas"}}});
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->object, "object");
  EXPECT_EQ(seen->userInfo->stringForKey("mountPath"), "/Volumes/nas");
}

TEST_F(LocalNotifications, RunOnThePostingThread) {
  std::thread::id seen;
  iCenter.addObserver(&iFirst, "a", [&seen](const NSNotification&) { seen = std::this_thread::get_id(); });
  std::thread::id poster;
  std::thread thread([this, &poster] {
    poster = std::this_thread::get_id();
    iCenter.postNotification({"a", std::nullopt, std::nullopt});
  });
  thread.join();
  EXPECT_EQ(seen, poster);
}

TEST_F(LocalNotifications, EndWithTheRemovalOfAllHandlersOfAnObserver) {
  iCenter.addObserver(&iFirst, "a", record("1"));
  iCenter.addObserver(&iFirst, "b", record("1"));
  iCenter.addObserver(&iSecond, "a", record("2"));
  iCenter.removeObserver(&iFirst);
  iCenter.postNotification({"a", std::nullopt, std::nullopt});
  iCenter.postNotification({"b", std::nullopt, std::nullopt});
  EXPECT_THAT(iSeen, ElementsAre("2:a"));
}

TEST_F(LocalNotifications, DoNotReachAHandlerThatAnEarlierOneRemoved) {
  iCenter.addObserver(&iFirst, "a", [this](const NSNotification&) { iCenter.removeObserver(&iSecond); });
  iCenter.addObserver(&iSecond, "a", record("2"));
  iCenter.postNotification({"a", std::nullopt, std::nullopt});
  EXPECT_THAT(iSeen, ElementsAre());
}

TEST_F(LocalNotifications, LetHandlersPostAndAdd) {
  iCenter.addObserver(&iFirst, "a", [this](const NSNotification&) {
    iCenter.addObserver(&iSecond, "b", record("2"));
    iCenter.postNotification({"b", std::nullopt, std::nullopt});
  });
  iCenter.postNotification({"a", std::nullopt, std::nullopt});
  EXPECT_THAT(iSeen, ElementsAre("2:b"));
}

TEST_F(LocalNotifications, OfSeveralThreadsAllArrive) {
  std::atomic<int> seen = 0;
  iCenter.addObserver(&iFirst, "a", [&seen](const NSNotification&) { ++seen; });
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this] {
      int observer = 0;
      for (int n = 0; n < 100; ++n) {
        iCenter.addObserver(&observer, "a", [](const NSNotification&) {});
        iCenter.postNotification({"a", std::nullopt, std::nullopt});
        iCenter.removeObserver(&observer);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(seen, 400);
}

}  // namespace
}  // namespace ombra
