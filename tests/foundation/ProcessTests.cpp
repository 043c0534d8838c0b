#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>

#include "platform/foundation/Gestalt.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSProcessInfo.h"
#include "platform/foundation/NSThread.h"
#include "tests/foundation/TestSupport.h"

namespace ombra {
namespace {

constexpr uint32_t kSelector = 0x4B446267;  // 'KDbg'

class GestaltRegistry : public testing::Test {
 protected:
  void SetUp() override { DeleteGestaltValue(kSelector); }
  void TearDown() override { DeleteGestaltValue(kSelector); }
};

TEST_F(GestaltRegistry, DoesNotKnowASelectorUntilItIsRegistered) {
  int32_t response = 7;
  EXPECT_EQ(Gestalt(kSelector, &response), gestaltUndefSelectorErr);
  EXPECT_EQ(static_cast<uint16_t>(gestaltUndefSelectorErr), 0xEA51);
  EXPECT_EQ(response, 7);
  EXPECT_EQ(NewGestaltValue(kSelector, 1), 0);
  EXPECT_EQ(Gestalt(kSelector, &response), 0);
  EXPECT_EQ(response, 1);
}

TEST_F(GestaltRegistry, KeepsTheFirstValue) {
  EXPECT_EQ(NewGestaltValue(kSelector, 1), 0);
  EXPECT_EQ(NewGestaltValue(kSelector, 2), gestaltDupSelectorErr);
  int32_t response = 0;
  EXPECT_EQ(Gestalt(kSelector, &response), 0);
  EXPECT_EQ(response, 1);
}

TEST_F(GestaltRegistry, AnswersWithoutAPlaceForTheValue) {
  EXPECT_EQ(NewGestaltValue(kSelector, 1), 0);
  EXPECT_EQ(Gestalt(kSelector, nullptr), 0);
}

TEST(ProcessInfo, TellsTheArgumentsThatWereSet) {
  const std::vector<std::string> before = NSProcessInfo::arguments();
  EXPECT_FALSE(before.empty());
  const char* arguments[] = {"/opt/x/program", "--uuid=1"};
  NSProcessInfo::setArguments(2, arguments);
  EXPECT_THAT(NSProcessInfo::arguments(), testing::ElementsAre("/opt/x/program", "--uuid=1"));
  EXPECT_EQ(NSProcessInfo::processName(), "program");
  std::vector<const char*> old;
  for (const std::string& one : before) old.push_back(one.c_str());
  NSProcessInfo::setArguments(static_cast<int>(old.size()), old.data());
}

TEST(ProcessInfo, KnowsItsExecutableAndItsMachine) {
  EXPECT_EQ(access(NSProcessInfo::executablePath().c_str(), X_OK), 0);
  EXPECT_FALSE(NSProcessInfo::kc_architectureString().empty());
  EXPECT_FALSE(NSProcessInfo::operatingSystemVersionString().empty());
  EXPECT_EQ(NSProcessInfo::operatingSystemVersionString().find('"'), std::string::npos);
}

TEST(Thread, DictionariesArePerThread) {
  NSThread::threadDictionary("level") = 5;
  std::promise<bool> empty;
  ASSERT_TRUE(NSThread::detachNewThread(
      [&empty] { empty.set_value(!NSThread::threadDictionary("level").has_value()); }));
  EXPECT_TRUE(empty.get_future().get());
  EXPECT_EQ(std::any_cast<int>(NSThread::threadDictionary("level")), 5);
  NSThread::threadDictionary("level").reset();
}

TEST(Thread, DictionaryGoesWithItsThread) {
  std::promise<void> promise;
  std::future<void> gone = promise.get_future();
  ASSERT_TRUE(NSThread::detachNewThread([&promise] {
    std::promise<void>* told = &promise;
    NSThread::threadDictionary("value") =
        std::shared_ptr<void>(nullptr, [told](std::nullptr_t) { told->set_value(); });
  }));
  EXPECT_EQ(gone.wait_for(std::chrono::seconds(30)), std::future_status::ready);
}

TEST(Thread, KeepsAFullNameAndShowsTheSystemWholeCharacters) {
  std::promise<std::pair<std::string, std::string>> names;
  ASSERT_TRUE(NSThread::detachNewThread([&names] {
    NSThread::setName("download /a/\u00fc\u00fc\u00fc");
    char shown[32] = {};
    pthread_getname_np(pthread_self(), shown, sizeof shown);
    names.set_value({NSThread::name(), shown});
  }));
  const auto [full, shown] = names.get_future().get();
  EXPECT_EQ(full, "download /a/\u00fc\u00fc\u00fc");
  EXPECT_EQ(shown, "download /a/\u00fc");
}

TEST(Thread, AnExceptionEndsTheThreadWithALogLine) {
  std::promise<void> done;
  LogCapture log;
  ASSERT_TRUE(NSThread::detachNewThread([&done] {
    // Told by the end of the thread, after the line was logged.
    std::promise<void>* promise = &done;
    NSThread::threadDictionary("end") =
        std::shared_ptr<void>(nullptr, [promise](std::nullptr_t) { promise->set_value(); });
    throw KCException("out of luck");
  }));
  done.get_future().wait();
  EXPECT_EQ(log.count("KCException: out of luck"), 1U);
}

TEST(Log, WritesOneLineWithTimeProcessAndThread) {
  int pipe[2];
  ASSERT_EQ(::pipe(pipe), 0);
  const int saved = dup(STDERR_FILENO);
  dup2(pipe[1], STDERR_FILENO);
  NSLog("mounted {} of {}", 1, "nas\nsecond");
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(pipe[1]);
  char buffer[512] = {};
  const ssize_t length = ::read(pipe[0], buffer, sizeof buffer - 1);
  close(pipe[0]);
  ASSERT_GT(length, 0);
  const std::string tail =
      fmt::format(" {}[{}:{}] mounted 1 of nas\nsecond\n", NSProcessInfo::processName(), getpid(), gettid());
  const std::string line(buffer, static_cast<size_t>(length));
  EXPECT_THAT(line, testing::EndsWith(tail));
  EXPECT_EQ(line.size(), tail.size() + std::string("2001-01-01 00:00:00.000").size());
}

TEST(Log, LeavesErrnoAsItWas) {
  LogCapture log;
  errno = EXDEV;
  NSLog("text");
  EXPECT_EQ(errno, EXDEV);
}

}  // namespace
}  // namespace ombra
