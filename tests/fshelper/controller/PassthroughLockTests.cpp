// The lock file of a pass-through identifier.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "fshelper/OFSPassthroughLock.h"
#include "tests/fshelper/controller/ControllerTestSupport.h"

namespace ombra {
namespace {

std::atomic<int> gPauses{0};

unsigned countPause(unsigned seconds) {
  gPauses += static_cast<int>(seconds);
  return 0;
}

std::string bytesOf(int32_t number) {
  std::string bytes(sizeof number, '\0');
  std::memcpy(bytes.data(), &number, sizeof number);
  return bytes;
}

// A process that waits to be ended.
class Child {
 public:
  explicit Child(uid_t user = 0) : iProcess(::fork()) {
    if (iProcess != 0) return;
    if (user != 0 && ::setuid(user) != 0) _exit(1);
    for (;;) ::pause();
  }
  ~Child() { end(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  pid_t process() const { return iProcess; }
  void end() {
    if (iProcess <= 0) return;
    ::kill(iProcess, SIGKILL);
    ::waitpid(iProcess, nullptr, 0);
    iProcess = 0;
  }

 private:
  pid_t iProcess;
};

class PassthroughLock : public ::testing::Test {
 protected:
  void SetUp() override { gPauses = 0; }
  int lock() { return spc_lock_file(path.c_str(), &countPause); }
  TestFolder folder;
  const std::string path = folder.path("OmbraFS.id.pid");
};

TEST_F(PassthroughLock, AFreeLockIsTakenWithFourBytesOfOurNumber) {
  EXPECT_EQ(lock(), 1);
  EXPECT_EQ(readTestFile(path), bytesOf(getpid()));
  EXPECT_EQ(gPauses, 0);
}

TEST_F(PassthroughLock, TheFileIsMadeWithMode0700) {
  const mode_t former = ::umask(0);
  lock();
  ::umask(former);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
}

TEST_F(PassthroughLock, AFileWithOurOwnNumberCountsAsHeld) {
  writeTestFile(path, bytesOf(getpid()));
  EXPECT_EQ(lock(), 1);
}

TEST_F(PassthroughLock, MoreThanFourBytesAreNotLookedAt) {
  writeTestFile(path, bytesOf(getpid()) + "rest");
  EXPECT_EQ(lock(), 1);
}

TEST_F(PassthroughLock, AFileOfAnExitedOwnerIsReplaced) {
  Child owner;
  writeTestFile(path, bytesOf(owner.process()));
  owner.end();
  EXPECT_EQ(lock(), 1);
  EXPECT_EQ(readTestFile(path), bytesOf(getpid()));
  EXPECT_EQ(gPauses, 0);
}

TEST_F(PassthroughLock, ALivingOwnerKeepsItAfterThreePausesOfASecond) {
  const Child owner;
  writeTestFile(path, bytesOf(owner.process()));
  EXPECT_EQ(lock(), 0);
  EXPECT_EQ(gPauses, 3);
  EXPECT_EQ(readTestFile(path), bytesOf(owner.process()));
}

// Who starts helpers may collect them late: a container's first process often does, or never.
TEST_F(PassthroughLock, AnOwnerThatHasEndedAndIsNotCollectedIsReplaced) {
  const pid_t owner = ::fork();
  if (owner == 0) _exit(0);
  siginfo_t end{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(owner), &end, WEXITED | WNOWAIT), 0);
  ASSERT_EQ(::kill(owner, 0), 0);
  writeTestFile(path, bytesOf(owner));
  EXPECT_EQ(lock(), 1);
  EXPECT_EQ(gPauses, 0);
  EXPECT_EQ(::waitpid(owner, nullptr, 0), owner);
}

TEST_F(PassthroughLock, AThreadThatHasGotTheNumberOfAnOwnerDoesNotHoldTheLock) {
  pid_t number = 0;
  bool isWritten = false;
  std::thread other([&] {
    number = static_cast<pid_t>(::syscall(SYS_gettid));
    writeTestFile(path, bytesOf(number));
    isWritten = ::kill(number, 0) == 0;
    EXPECT_EQ(lock(), 1);
  });
  other.join();
  EXPECT_TRUE(isWritten);
  EXPECT_EQ(gPauses, 0);
}

Child* gOwner = nullptr;

unsigned endOwner(unsigned seconds) {
  gPauses += static_cast<int>(seconds);
  gOwner->end();
  return 0;
}

TEST_F(PassthroughLock, AnOwnerThatEndsWhileWeWaitIsReplaced) {
  Child owner;
  gOwner = &owner;
  writeTestFile(path, bytesOf(owner.process()));
  EXPECT_EQ(spc_lock_file(path.c_str(), &endOwner), 1);
  EXPECT_EQ(gPauses, 1);
}

int gEndingPause = 0;

unsigned endOwnerLater(unsigned seconds) {
  gPauses += static_cast<int>(seconds);
  if (gPauses == gEndingPause) gOwner->end();
  return 0;
}

// Taking away the stale file and making one of our own are no attempts: there would be none left.
TEST_F(PassthroughLock, AnOwnerThatEndsBeforeTheLastAttemptIsReplaced) {
  Child owner;
  gOwner = &owner;
  gEndingPause = 2;
  writeTestFile(path, bytesOf(owner.process()));
  EXPECT_EQ(spc_lock_file(path.c_str(), &endOwnerLater), 1);
  EXPECT_EQ(gPauses, 2);
  EXPECT_EQ(readTestFile(path), bytesOf(getpid()));
}

TEST_F(PassthroughLock, AfterTheThirdPauseNobodyLooksAgain) {
  Child owner;
  const std::string bytes = bytesOf(owner.process());
  gOwner = &owner;
  gEndingPause = 3;
  writeTestFile(path, bytes);
  EXPECT_EQ(spc_lock_file(path.c_str(), &endOwnerLater), 0);
  EXPECT_EQ(readTestFile(path), bytes);
}

TEST_F(PassthroughLock, AnOwnerThatMayNotBeAskedAboutIsAnError) {
  if (::geteuid() != 0) {
    ASSERT_EQ(std::getenv("CI"), nullptr) << "needs root to become another user";
    GTEST_SKIP() << "needs root to become another user";
  }
  writeTestFile(path, bytesOf(getppid()));
  ::chmod(folder.path().c_str(), 0755);
  ::chmod(path.c_str(), 0644);
  const pid_t contender = ::fork();
  if (contender == 0)
    _exit(::setuid(65534) != 0 ? 9 : spc_lock_file(path.c_str(), &countPause) == -1 ? 0 : 1);
  int status = 0;
  ASSERT_EQ(::waitpid(contender, &status, 0), contender);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(PassthroughLock, AMissingFolderIsAnError) {
  EXPECT_EQ(spc_lock_file(folder.path("missing/x.pid").c_str(), &countPause), -1);
  EXPECT_EQ(gPauses, 0);
}

TEST_F(PassthroughLock, AFileThatCannotBeOpenedIsAnError) {
  ASSERT_EQ(::symlink(folder.path("nowhere").c_str(), path.c_str()), 0);
  EXPECT_EQ(lock(), -1);
}

// Whatever the link leads to: a lock that can be elsewhere keeps nobody apart.
TEST_F(PassthroughLock, ALinkInItsPlaceIsAnErrorAndIsNotFollowed) {
  for (const std::string& content : {bytesOf(getpid()), bytesOf(INT32_MAX), std::string()}) {
    writeTestFile(folder.path("elsewhere"), content);
    ASSERT_EQ(::symlink(folder.path("elsewhere").c_str(), path.c_str()), 0);
    EXPECT_EQ(lock(), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(readTestFile(folder.path("elsewhere")), content);
    ASSERT_EQ(::unlink(path.c_str()), 0) << "the link is gone";
  }
  EXPECT_EQ(gPauses, 0);
}

TEST_F(PassthroughLock, APipeInItsPlaceIsAnErrorAndNotWaitedFor) {
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(lock(), -1);
  EXPECT_EQ(errno, EINVAL);
}

// The file that was made stays behind, and keeps every later contender reading.
TEST_F(PassthroughLock, ANumberThatCannotBeWrittenIsAnError) {
  const pid_t contender = ::fork();
  if (contender == 0) {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit nothing{0, 0};
    ::setrlimit(RLIMIT_FSIZE, &nothing);
    const int next = ::dup(0);  // the number that the file had, if it is closed again
    ::close(next);
    const int result = spc_lock_file(path.c_str(), &countPause);
    _exit(result != -1 || errno != EFBIG || gPauses != 0 ? 1 : ::dup(0) != next ? 2 : 0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(contender, &status, 0), contender);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(readTestFile(path), "");
}

TEST_F(PassthroughLock, AReadErrorCountsAsAnAttempt) {
  ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);  // opens, but reading answers EISDIR
  EXPECT_EQ(lock(), 0);
  EXPECT_EQ(gPauses, 3);
}

// The first contender to make the file is the only owner; the others see it live.
TEST_F(PassthroughLock, OfTwoContendersOneGetsIt) {
  int answers[2];
  pid_t contenders[2];
  int gate[2];
  ASSERT_EQ(::pipe(answers), 0);
  ASSERT_EQ(::pipe(gate), 0);
  for (pid_t& contender : contenders) {
    contender = ::fork();
    if (contender != 0) continue;
    const char result = static_cast<char>('0' + spc_lock_file(path.c_str(), &countPause));
    ::close(gate[1]);
    if (::write(answers[1], &result, 1) != 1) _exit(1);
    // Both live until both have answered.
    char byte = 0;
    _exit(::read(gate[0], &byte, 1) == 0 ? 0 : 1);
  }
  std::string results(2, ' ');
  ASSERT_EQ(::read(answers[0], &results[0], 1), 1);
  ASSERT_EQ(::read(answers[0], &results[1], 1), 1);
  std::sort(results.begin(), results.end());
  EXPECT_EQ(results, "01");
  for (const int descriptor : {answers[0], answers[1], gate[0], gate[1]}) ::close(descriptor);
  for (const pid_t contender : contenders) ::waitpid(contender, nullptr, 0);
}

// Reads at end of file, as the kernel counts them for a process.
long readCalls(pid_t process) {
  const std::string text = readTestFile("/proc/" + std::to_string(process) + "/io");
  const size_t at = text.find("syscr: ");
  return at == std::string::npos ? -1 : std::stol(text.substr(at + 7));
}

class ShortLockFile : public PassthroughLock, public ::testing::WithParamInterface<std::string> {};

TEST_P(ShortLockFile, KeepsTheContenderReading) {
  writeTestFile(path, GetParam());
  const pid_t contender = ::fork();
  if (contender == 0) _exit(spc_lock_file(path.c_str(), &countPause));
  // It has read the end of the file a thousand times and still asks.
  while (readCalls(contender) < 1000) std::this_thread::yield();
  EXPECT_EQ(::waitpid(contender, nullptr, WNOHANG), 0);
  ::kill(contender, SIGKILL);
  int status = 0;
  ::waitpid(contender, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status));
}

INSTANTIATE_TEST_SUITE_P(Contents, ShortLockFile, ::testing::Values(std::string(), std::string("\1\0\0", 3)));

TEST_F(PassthroughLock, AShortFileThatGetsItsLastBytesIsRead) {
  writeTestFile(path, "");
  pid_t contender = ::fork();
  if (contender == 0) _exit(spc_lock_file(path.c_str(), &countPause));
  while (readCalls(contender) < 1000) std::this_thread::yield();
  // In two parts, each of which it reads by itself.
  std::ofstream file(path, std::ios::binary | std::ios::app);
  file << bytesOf(contender).substr(0, 3) << std::flush;
  const long reads = readCalls(contender);
  while (readCalls(contender) < reads + 1000) std::this_thread::yield();
  file << bytesOf(contender).substr(3) << std::flush;
  int status = 0;
  ::waitpid(contender, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
}

int nextDescriptor() {
  const int next = ::dup(STDIN_FILENO);
  ::close(next);
  return next;
}

TEST_F(PassthroughLock, TheFileIsClosedWhateverIsInIt) {
  const Child owner;
  const int before = nextDescriptor();
  for (const std::string& content : {bytesOf(getpid()), bytesOf(owner.process())}) {
    writeTestFile(path, content);
    lock();
    EXPECT_EQ(nextDescriptor(), before);
  }
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);  // reading it fails
  lock();
  EXPECT_EQ(nextDescriptor(), before);
}

// The system call that a process waits in; -1 while it runs.
long waitingIn(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/syscall");
  long number = -1;
  return file >> number ? number : -1;
}

extern "C" void cutThePauseShort(int) {}

TEST_F(PassthroughLock, ThePlainCallSleepsForReal) {
  Child owner;
  writeTestFile(path, bytesOf(owner.process()));
  const pid_t contender = ::fork();
  if (contender == 0) {
    ::signal(SIGUSR1, &cutThePauseShort);
    _exit(spc_lock_file(path.c_str()));
  }
  int status = 0;
  while (waitingIn(contender) != SYS_clock_nanosleep) {
    ASSERT_EQ(::waitpid(contender, &status, WNOHANG), 0) << "it has ended without a pause";
    std::this_thread::yield();
  }
  owner.end();
  ::kill(contender, SIGUSR1);
  ::waitpid(contender, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
}

}  // namespace
}  // namespace ombra
