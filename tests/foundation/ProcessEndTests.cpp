#include "platform/foundation/ProcessEnd.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace ombra {
namespace {

TEST(ProcessEnd, OneThatRunsHasNotEnded) { EXPECT_FALSE(processHasEnded(getpid())); }

TEST(ProcessEnd, OneThatWasNotCollectedHasEnded) {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  siginfo_t end{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT), 0);
  EXPECT_TRUE(processHasEnded(child));
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_TRUE(processHasEnded(child)) << "collected";
}

TEST(ProcessEnd, OfNumbersThatNoProcessHasNothingIsSaid) {
  EXPECT_FALSE(processHasEnded(0));
  EXPECT_FALSE(processHasEnded(-1));
}

}  // namespace
}  // namespace ombra
