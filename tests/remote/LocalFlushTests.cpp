// Whether fsync(2) of a file on the local engine reaches the system.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "remote/QuarnKitError.h"
#include "remote/local/LocalSession.h"
#include "tests/support/TemporaryFolder.h"

namespace {

// The flushes of one item: how many there were, and what the system answers to them.
std::atomic<ino_t> gWatchedItem{0};
std::atomic<int> gFlushes{0};
std::atomic<int> gFailure{0};

}  // namespace

// Stands before the system's own for this whole program.
extern "C" int fsync(int descriptor) {
  struct stat status {};
  if (fstat(descriptor, &status) == 0 && status.st_ino == gWatchedItem) {
    ++gFlushes;
    if (gFailure != 0) {
      errno = gFailure;
      return -1;
    }
  }
  return static_cast<int>(syscall(SYS_fsync, descriptor));
}

namespace ombra {
namespace {

class LocalFlush : public testing::Test {
 protected:
  LocalFlush() : session(SessionEnvironment{}), path(folder / "f") {
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    EXPECT_GE(descriptor, 0);
    ::close(descriptor);
    watch(path);
  }
  ~LocalFlush() override { gWatchedItem = 0; }
  static void watch(const std::string& item) {
    struct stat status {};
    EXPECT_EQ(stat(item.c_str(), &status), 0);
    gWatchedItem = status.st_ino;
    gFlushes = 0;
    gFailure = 0;
  }

  TemporaryFolder folder;
  LocalSession session;
  const std::string path;
  NSErrorRef error;
};

TEST_F(LocalFlush, BringsTheFileToTheDisk) {
  EXPECT_TRUE(session.flushFile(path, &error));
  EXPECT_EQ(gFlushes, 1);
}

TEST_F(LocalFlush, BringsTheNameToTheDisk) {
  watch(folder.path());
  EXPECT_TRUE(session.flushFile(path, &error));
  EXPECT_EQ(gFlushes, 1);
}

TEST_F(LocalFlush, TellsWhatTheDiskSays) {
  gFailure = ENOSPC;
  EXPECT_FALSE(session.flushFile(path, &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitOutOfSpace));
  ASSERT_NE(error->underlyingError(), nullptr);
  EXPECT_EQ(error->underlyingError()->code(), ENOSPC);
}

TEST_F(LocalFlush, OfWhatCannotBeFlushedHasNothingToDo) {
  for (const int answer : {EINVAL, EROFS}) {
    gFailure = answer;
    EXPECT_TRUE(session.flushFile(path, &error)) << answer;
  }
}

TEST_F(LocalFlush, OfAPipeDoesNotWaitForItsOtherEnd) {
  const std::string pipe = folder / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0644), 0);
  EXPECT_TRUE(session.flushFile(pipe, &error));
}

TEST_F(LocalFlush, OfWhatIsGoneSaysSo) {
  EXPECT_FALSE(session.flushFile(folder / "gone", &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNoSuchItem));
}

// Root may read what its mode forbids, so that root steps down for the look.
TEST_F(LocalFlush, OfAFileThatMayOnlyBeWrittenIsDoneThroughAHandleForWriting) {
  constexpr uid_t kNobody = 65534;
  ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
  const bool isRoot = geteuid() == 0;
  if (isRoot) {
    ASSERT_EQ(chown(path.c_str(), kNobody, kNobody), 0);
  }
  ASSERT_EQ(chmod(path.c_str(), 0200), 0);
  // Of this thread alone, unlike seteuid.
  if (isRoot) {
    ASSERT_EQ(syscall(SYS_setresuid, -1, kNobody, -1), 0);
  }
  const bool done = session.flushFile(path, &error);
  const int readable = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (isRoot) {
    ASSERT_EQ(syscall(SYS_setresuid, -1, 0, -1), 0);
  }
  EXPECT_LT(readable, 0) << "the file could be read, so that this shows nothing";
  EXPECT_TRUE(done);
  EXPECT_EQ(gFlushes, 1);
}

TEST_F(LocalFlush, OfAnInterruptedSessionFails) {
  session.interrupt();
  EXPECT_FALSE(session.flushFile(path, &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitConnectionLost));
  EXPECT_EQ(gFlushes, 0);
}

}  // namespace
}  // namespace ombra
