#include "tests/fshelper/remotefile/RemoteFileFixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <regex>
#include <thread>

#include "fshelper/OFSTracing.h"
#include "platform/foundation/NSLog.h"

namespace ombra {
namespace {

Mutex gLinesLock;
struct Line {
  std::thread::id thread;
  std::string text;
};
std::vector<Line> gLines;

void recordLine(std::string_view text) {
  const MutexLock lock(gLinesLock);
  gLines.push_back({std::this_thread::get_id(), std::string(text)});
}

const std::regex kMessagePrefix("^OFSRemoteFile[A-Za-z+]*\\.cpp:[0-9]+: ");

std::vector<std::string> messagesWhere(const std::function<bool(const Line&)>& wanted) {
  const MutexLock lock(gLinesLock);
  std::vector<std::string> result;
  for (const Line& line : gLines) {
    if (!wanted(line) || !std::regex_search(line.text, kMessagePrefix)) continue;
    result.push_back(std::regex_replace(line.text, kMessagePrefix, ""));
  }
  return result;
}

}  // namespace

BreakingLocalCalls::BreakingLocalCalls() { OFSRemoteFileLocalCalls::setCurrent(this); }
BreakingLocalCalls::~BreakingLocalCalls() { OFSRemoteFileLocalCalls::setCurrent(nullptr); }

void BreakingLocalCalls::fail(Call call, int errorNumber, int times, int after) {
  const MutexLock lock(iLock);
  iFailures[call] = {errorNumber, times, after};
}

bool BreakingLocalCalls::breaks(Call call) {
  const MutexLock lock(iLock);
  const auto found = iFailures.find(call);
  if (found == iFailures.end()) return false;
  Failure& failure = found->second;
  if (failure.after > 0) {
    --failure.after;
    return false;
  }
  errno = failure.errorNumber;
  if (--failure.times == 0) iFailures.erase(found);
  return true;
}

void BreakingLocalCalls::afterNextThread(std::function<void()> hook) {
  const MutexLock lock(iLock);
  iThreadHook = std::move(hook);
}

void BreakingLocalCalls::delayNextThread(std::shared_future<void> go) {
  const MutexLock lock(iLock);
  iThreadDelay = std::move(go);
}

int BreakingLocalCalls::open(const char* path, int flags, mode_t mode) {
  if (breaks(Call::kOpen)) return -1;
  {
    const MutexLock lock(iLock);
    iLastFlags = flags;
    iLastMode = mode;
  }
  return OFSRemoteFileLocalCalls::open(path, flags, mode);
}

std::shared_ptr<NSFileHandle> BreakingLocalCalls::scratchHandle(int descriptor) {
  if (!breaks(Call::kHandle)) return OFSRemoteFileLocalCalls::scratchHandle(descriptor);
  ::close(descriptor);
  return nullptr;
}

ssize_t BreakingLocalCalls::pread(int descriptor, void* buffer, size_t size, off_t offset) {
  return breaks(Call::kPread) ? -1 : OFSRemoteFileLocalCalls::pread(descriptor, buffer, size, offset);
}

ssize_t BreakingLocalCalls::pwrite(int descriptor, const void* buffer, size_t size, off_t offset) {
  return breaks(Call::kPwrite) ? -1 : OFSRemoteFileLocalCalls::pwrite(descriptor, buffer, size, offset);
}

int BreakingLocalCalls::ftruncate(int descriptor, off_t length) {
  return breaks(Call::kFtruncate) ? -1 : OFSRemoteFileLocalCalls::ftruncate(descriptor, length);
}

int BreakingLocalCalls::fstat(int descriptor, struct stat* status) {
  return breaks(Call::kFstat) ? -1 : OFSRemoteFileLocalCalls::fstat(descriptor, status);
}

int BreakingLocalCalls::fchmod(int descriptor, mode_t mode) {
  return breaks(Call::kFchmod) ? -1 : OFSRemoteFileLocalCalls::fchmod(descriptor, mode);
}

int BreakingLocalCalls::futimes(int descriptor, const timeval times[2]) {
  return breaks(Call::kFutimes) ? -1 : OFSRemoteFileLocalCalls::futimes(descriptor, times);
}

ssize_t BreakingLocalCalls::copyRange(int from, off_t* fromOffset, int to, off_t* toOffset, size_t length) {
  return breaks(Call::kCopyRange)
             ? -1
             : OFSRemoteFileLocalCalls::copyRange(from, fromOffset, to, toOffset, length);
}

bool BreakingLocalCalls::detachNewThread(std::function<void()> body) {
  if (breaks(Call::kThread)) return false;
  std::function<void()> hook;
  std::shared_future<void> delay;
  {
    const MutexLock lock(iLock);
    hook = std::exchange(iThreadHook, nullptr);
    delay = std::exchange(iThreadDelay, {});
  }
  if (delay.valid()) {
    body = [delay, inner = std::move(body)] {
      delay.wait();
      inner();
    };
  }
  if (!OFSRemoteFileLocalCalls::detachNewThread(std::move(body))) return false;
  if (hook) hook();
  return true;
}

int BreakingLocalCalls::lastFlags() const {
  const MutexLock lock(iLock);
  return iLastFlags;
}

mode_t BreakingLocalCalls::lastMode() const {
  const MutexLock lock(iLock);
  return iLastMode;
}

TraceRecorder::TraceRecorder() {
  {
    const MutexLock lock(gLinesLock);
    gLines.clear();
  }
  setLogSink(recordLine);
  gTracingEnabled = true;
}

TraceRecorder::~TraceRecorder() {
  gTracingEnabled = false;
  setLogSink(nullptr);
}

std::vector<std::string> TraceRecorder::lines() const {
  const MutexLock lock(gLinesLock);
  std::vector<std::string> result;
  for (const Line& line : gLines) result.push_back(std::regex_replace(line.text, kMessagePrefix, ""));
  return result;
}

std::vector<std::string> TraceRecorder::placedLines() const {
  const MutexLock lock(gLinesLock);
  std::vector<std::string> result;
  for (const Line& line : gLines) result.push_back(line.text);
  return result;
}

std::vector<std::string> TraceRecorder::messages() const {
  return messagesWhere([](const Line&) { return true; });
}

std::vector<std::string> TraceRecorder::messagesHere() const {
  return messagesWhere([](const Line& line) { return line.thread == std::this_thread::get_id(); });
}

std::vector<std::string> TraceRecorder::messagesElsewhere() const {
  return messagesWhere([](const Line& line) { return line.thread != std::this_thread::get_id(); });
}

std::vector<std::string> TraceRecorder::messagesWith(std::string_view prefix) const {
  std::vector<std::string> result;
  for (std::string& message : messages()) {
    if (message.starts_with(prefix)) result.push_back(std::move(message));
  }
  return result;
}

RemoteFileTest::RemoteFileTest(uint32_t protocol) : server(protocol) {}
RemoteFileTest::~RemoteFileTest() = default;

void RemoteFileTest::SetUp() {
  std::string pattern = std::filesystem::temp_directory_path() / "remotefile-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
  iFolder = pattern;
  ASSERT_EQ(::setenv("OMBRAFS_TMPDIR", iFolder.c_str(), 1), 0);
  gHardLimit = 60.0;
  gStreamingSupported = true;
  gUploadingSupported = true;
  clock = std::make_unique<ManualClock>();
}

void RemoteFileTest::TearDown() {
  file.reset();
  for (const auto& made : iMade) {
    try {
      made->close();  // ends a stream that a test left idle
    } catch (const KCException&) {
      // The subject of other tests.
    }
  }
  // Workers outlive the calls that started them; the clock and the folder must not go before they do.
  eventually(
      [this] {
        return std::all_of(iMade.begin(), iMade.end(), [](auto& made) { return made.use_count() == 1; });
      },
      "workers that let go of their files");
  iMade.clear();
  EXPECT_TRUE(server.waitUntilAllReleased());
  EXPECT_THAT(cacheFolder(), ::testing::IsEmpty()) << "a cache file was left behind";
  std::filesystem::remove_all(iFolder);
  gHardLimit = 60.0;
  gStreamingSupported = true;
  gUploadingSupported = true;
}

std::shared_ptr<OFSRemoteFile> RemoteFileTest::makeFile(const std::string& path) {
  auto made = OFSRemoteFile::remoteFileForPath(path);
  made->setConnectionPool(server.pool());
  iMade.push_back(made);
  return made;
}

std::shared_ptr<OFSRemoteFile> RemoteFileTest::downloadedFile(const std::string& content) {
  server.addFile(kPath, content);
  auto made = makeFile();
  EXPECT_TRUE(made->openWithMode(kO_RDWR, nullptr));
  waitForState(*made, kOFSSettled);
  EXPECT_TRUE(server.waitUntilAllReleased());
  server.clearCalls();
  return made;
}

std::shared_ptr<OFSRemoteFile> RemoteFileTest::createdFile() {
  server.addFolder("/docs");
  auto made = makeFile();
  EXPECT_TRUE(made->openWithMode(kO_RDWR | kO_CREAT, nullptr));
  server.clearCalls();
  return made;
}

std::shared_ptr<OFSRemoteFile> RemoteFileTest::arrivingFile(const std::string& content, uint64_t arrived) {
  server.addFile(kPath, content);
  auto made = makeFile();
  EXPECT_TRUE(made->openWithMode(kO_RDWR, nullptr));
  eventually([&] { return made->bytesAvailable() >= arrived; }, "the first bytes of the download");
  return made;
}

int RemoteFileTest::write(OFSRemoteFile& file, std::string_view bytes, int64_t offset, NSErrorRef* error) {
  return file._writeFromBuffer(bytes.data(), bytes.size(), offset, error);
}

std::string RemoteFileTest::read(OFSRemoteFile& file, size_t size, int64_t offset, NSErrorRef* error) {
  std::string bytes(size, '\0');
  const int count = file._readToBuffer(bytes.data(), size, offset, error);
  if (count < 0) return "<-1>";
  bytes.resize(static_cast<size_t>(count));
  return bytes;
}

std::string RemoteFileTest::onServer(const std::string& path) const {
  return server.content(path).value_or("<no such file>");
}

std::vector<std::string> RemoteFileTest::cacheFolder() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(iFolder))
    names.push_back(entry.path().filename());
  return names;
}

void RemoteFileTest::eventually(const std::function<bool()>& condition, const char* what) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) {
      std::cerr << "nothing happened for 30 s while waiting for: " << what << std::endl;
      std::abort();
    }
    std::this_thread::yield();
  }
}

void RemoteFileTest::waitForState(const OFSRemoteFile& file, int32_t state) {
  eventually([&] { return file.state() == state; }, "a state of the open file");
}

void RemoteFileTest::waitForWaiters(const OFSRemoteFile& file, size_t count) {
  eventually([&] { return file.waiterCount() >= count; }, "callers that wait in the open file");
}

void RemoteFileTest::abortIfHanging(bool finished) {
  if (finished) return;
  std::cerr << "a call into the open file did not return within 30 s" << std::endl;
  std::abort();
}

void UploadingFileTest::SetUp() {
  RemoteFileTest::SetUp();
  gStreamingSupported = false;
}

InPlaceFileTest::InPlaceFileTest() : RemoteFileTest(kProtocolSFTP) {}

::testing::AssertionResult isPosixError(const NSErrorRef& error, int code) {
  if (error == nullptr) return ::testing::AssertionFailure() << "no error, expected POSIX " << code;
  if (error->domain() == NSPOSIXErrorDomain && error->code() == code) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << error->description() << ", expected POSIX " << code;
}

}  // namespace ombra
