// Which process a thread belongs to.
#include "platform/userfs/ProcessOfThread.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>

namespace ombra {
namespace {

// What `ask` says on a thread that is not the first one.
template <typename Ask>
auto onAnotherThread(Ask ask) {
  return std::async(std::launch::async, ask).get();
}

pid_t processThatHasGone() {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
  return child;
}

TEST(ProcessOfThread, EachThreadTellsItsProcess) {
  EXPECT_EQ(processOfThread(getpid()), getpid());
  EXPECT_EQ(onAnotherThread([] { return processOfThread(gettid()); }), getpid());
}

TEST(ProcessOfThread, OfOneThatIsGoneItIsItsOwnNumber) {
  const pid_t gone = processThatHasGone();
  EXPECT_EQ(processOfThread(gone), gone);
}

TEST(ProcessOfThread, OnlyItsOwnThreadsAreThoseOfAProcess) {
  EXPECT_TRUE(isThreadOf(getpid(), getpid()));
  EXPECT_TRUE(onAnotherThread([] { return isThreadOf(gettid(), getpid()); }));
  EXPECT_FALSE(isThreadOf(getppid(), getpid()));
  EXPECT_FALSE(onAnotherThread([] { return isThreadOf(getpid(), gettid()); }));
  EXPECT_FALSE(isThreadOf(processThatHasGone(), getpid()));
}

}  // namespace
}  // namespace ombra
