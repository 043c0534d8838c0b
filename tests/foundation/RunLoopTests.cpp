#include <thread>

#include "platform/foundation/NSError.h"
#include "platform/foundation/RunLoop.h"
#include "tests/foundation/TestSupport.h"

namespace ombra {
namespace {

TEST(RunLoop, RunsWorkOfOtherThreadsOnItsOwnInOrderUntilItIsStopped) {
  RunLoop& loop = RunLoop::mainRunLoop();
  // One that another test has ended takes no work until it runs again, and the thread may come before that.
  while (loop.runOnce(0)) {
  }
  std::vector<int> seen;
  std::thread::id where;
  std::thread other([&loop, &seen, &where] {
    loop.perform([&seen, &where] {
      seen.push_back(1);
      where = std::this_thread::get_id();
    });
    loop.perform([&seen] { seen.push_back(2); });
    loop.perform([&loop] { loop.stop(7); });
  });
  EXPECT_EQ(loop.run(), 7);
  other.join();
  EXPECT_THAT(seen, testing::ElementsAre(1, 2));
  EXPECT_EQ(where, std::this_thread::get_id());
}

TEST(RunLoop, DropsWorkGivenAfterItsEnd) {
  RunLoop& loop = RunLoop::mainRunLoop();
  bool ran = false;
  loop.stop(0);
  loop.run();
  loop.perform([&ran] { ran = true; });
  while (loop.runOnce(0)) {
  }
  EXPECT_FALSE(ran);
}

TEST(RunLoop, AStopBeforeTheRunEndsIt) {
  RunLoop::mainRunLoop().stop(3);
  EXPECT_EQ(RunLoop::mainRunLoop().run(), 3);
}

TEST(RunLoop, HandlesOneThingAtATimeWhenAsked) {
  RunLoop& loop = RunLoop::mainRunLoop();
  while (loop.runOnce(0)) {
  }
  EXPECT_FALSE(loop.runOnce(0));
  bool ran = false;
  loop.perform([&ran] { ran = true; });
  EXPECT_TRUE(loop.runOnce(30000000));
  EXPECT_TRUE(ran);
}

TEST(RunLoop, LogsAnExceptionAndGoesOn) {
  LogCapture log;
  RunLoop& loop = RunLoop::mainRunLoop();
  while (loop.runOnce(0)) {
  }
  loop.perform([] { throw KCException("out of luck"); });
  loop.perform([&loop] { loop.stop(0); });
  EXPECT_EQ(loop.run(), 0);
  EXPECT_EQ(log.count("KCException: out of luck"), 1U);
}

}  // namespace
}  // namespace ombra
