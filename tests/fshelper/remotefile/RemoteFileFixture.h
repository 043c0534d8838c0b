// What tests of the open file share: a scripted server, a cache folder of their own, time that stands still,
// local system calls that fail on demand, and recorded trace lines.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "fshelper/OFSRemoteFile.h"
#include "fshelper/OFSRemoteFileLocalCalls.h"
#include "platform/foundation/Mutex.h"
#include "tests/support/ManualClock.h"
#include "tests/support/ScriptedServer.h"

namespace ombra {

// The system's calls, except those that the test has broken. Thread-safe.
class BreakingLocalCalls final : public OFSRemoteFileLocalCalls {
 public:
  enum class Call {
    kOpen,
    kHandle,
    kPread,
    kPwrite,
    kFtruncate,
    kFstat,
    kFchmod,
    kFutimes,
    kCopyRange,
    kThread
  };

  BreakingLocalCalls();
  ~BreakingLocalCalls() override;
  // The next `times` calls fail with that errno; calls before them, `after` in number, go through.
  void fail(Call call, int errorNumber, int times = 1, int after = 0) EXCLUDES(iLock);

  // Called once, right after the next thread has been started, on the thread that started it.
  void afterNextThread(std::function<void()> hook) EXCLUDES(iLock);
  // The next thread is started, but does nothing before `go` is ready.
  void delayNextThread(std::shared_future<void> go) EXCLUDES(iLock);

  int open(const char* path, int flags, mode_t mode) override;
  std::shared_ptr<NSFileHandle> scratchHandle(int descriptor) override;
  ssize_t pread(int descriptor, void* buffer, size_t size, off_t offset) override;
  ssize_t pwrite(int descriptor, const void* buffer, size_t size, off_t offset) override;
  int ftruncate(int descriptor, off_t length) override;
  int fstat(int descriptor, struct stat* status) override;
  int fchmod(int descriptor, mode_t mode) override;
  int futimes(int descriptor, const timeval times[2]) override;
  ssize_t copyRange(int from, off_t* fromOffset, int to, off_t* toOffset, size_t length) override;
  bool detachNewThread(std::function<void()> body) override;

  // The flags and the mode of the last open.
  int lastFlags() const EXCLUDES(iLock);
  mode_t lastMode() const EXCLUDES(iLock);

 private:
  struct Failure {
    int errorNumber;
    int times;
    int after;
  };
  bool breaks(Call call) EXCLUDES(iLock);
  mutable Mutex iLock;
  std::map<Call, Failure> iFailures GUARDED_BY(iLock);
  std::function<void()> iThreadHook GUARDED_BY(iLock);
  std::shared_future<void> iThreadDelay GUARDED_BY(iLock);
  int iLastFlags GUARDED_BY(iLock) = 0;
  mode_t iLastMode GUARDED_BY(iLock) = 0;
};

// Switches tracing on and keeps every log line for its lifetime.
class TraceRecorder {
 public:
  TraceRecorder();
  ~TraceRecorder();
  // All texts; messages without their "file:line: ".
  std::vector<std::string> lines() const;
  // The same with the places.
  std::vector<std::string> placedLines() const;
  // Messages inside of methods alone, in order.
  std::vector<std::string> messages() const;
  // Those of the calling thread, and those of all others.
  std::vector<std::string> messagesHere() const;
  std::vector<std::string> messagesElsewhere() const;
  // Messages that begin with `prefix`.
  std::vector<std::string> messagesWith(std::string_view prefix) const;
};

class RemoteFileTest : public ::testing::Test {
 protected:
  static constexpr const char* kPath = "/docs/a.bin";

  // `protocol` decides whether writes go in place ('SFTP') or not ('DAV ').
  explicit RemoteFileTest(uint32_t protocol = kProtocolWebDAV);
  ~RemoteFileTest() override;
  void SetUp() override;
  void TearDown() override;

  // A new object for a path of the scripted server.
  std::shared_ptr<OFSRemoteFile> makeFile(const std::string& path = kPath);
  // The object that a fresh `open` of an existing file with `content` gives, fully downloaded.
  std::shared_ptr<OFSRemoteFile> downloadedFile(const std::string& content);
  // The object of a file just created, empty here and on the server.
  std::shared_ptr<OFSRemoteFile> createdFile();
  // An existing file whose download is held after `arrived` bytes.
  std::shared_ptr<OFSRemoteFile> arrivingFile(const std::string& content, uint64_t arrived);

  static int write(OFSRemoteFile& file, std::string_view bytes, int64_t offset, NSErrorRef* error = nullptr);
  // What a read gives; "<-1>" for a failed one.
  static std::string read(OFSRemoteFile& file, size_t size, int64_t offset, NSErrorRef* error = nullptr);
  std::string onServer(const std::string& path = kPath) const;
  std::vector<std::string> cacheFolder() const;

  // Waits for what another thread publishes; fails the test after 30 s.
  static void eventually(const std::function<bool()>& condition, const char* what);
  static void waitForState(const OFSRemoteFile& file, int32_t state);
  // Until so many callers sleep in the file.
  static void waitForWaiters(const OFSRemoteFile& file, size_t count);

  // Moves the time by less than the one timed wait that is under way may take. A waiter that counted its
  // limit from there would have too much.
  void advanceWithin(double seconds) { clock->advanceWithin(seconds, 1); }

  // Runs on a thread of its own. By way of one type for each result: a hundred kinds of threads take the
  // compilers half a minute.
  template <typename Body>
  static auto inBackground(Body&& body) {
    using Result = std::invoke_result_t<Body&>;
    return std::async(std::launch::async, std::function<Result()>(std::forward<Body>(body)));
  }
  // The result of such a thread; ends the whole program when it hangs, since it cannot be taken back.
  template <typename Result>
  static Result finish(std::future<Result>& task) {
    abortIfHanging(task.wait_for(std::chrono::seconds(30)) == std::future_status::ready);
    return task.get();
  }
  template <typename Result>
  static bool isRunning(std::future<Result>& task) {
    return task.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
  }

  std::string iFolder;
  ScriptedServer server;
  std::unique_ptr<ManualClock> clock;
  BreakingLocalCalls calls;
  using Call = BreakingLocalCalls::Call;
  std::shared_ptr<OFSRemoteFile> file;  // most tests need only one

 private:
  // Kept so that no worker drops the last reference after the clock is gone.
  std::vector<std::shared_ptr<OFSRemoteFile>> iMade;
  static void abortIfHanging(bool finished);
};

// A server that cannot write at an offset and takes no streams: writes go by whole-file uploads.
class UploadingFileTest : public RemoteFileTest {
 protected:
  void SetUp() override;
};

// A server that writes at an offset.
class InPlaceFileTest : public RemoteFileTest {
 protected:
  InPlaceFileTest();
};

// An error of NSPOSIXErrorDomain with that code.
::testing::AssertionResult isPosixError(const NSErrorRef& error, int code);

}  // namespace ombra
