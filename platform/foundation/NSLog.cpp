#include "platform/foundation/NSLog.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "platform/foundation/NSDateFormatter.h"
#include "platform/foundation/NSProcessInfo.h"

namespace ombra {
namespace {

std::atomic<LogSink> gLogSink{nullptr};

// The wall clock, not the clock in force: a log tells when it was written, also under a test's clock.
NSDate wallClock() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return kc_dateWithTimespec(time);
}

void writeToStandardError(const std::string& line) {
  size_t done = 0;
  while (done < line.size()) {
    const ssize_t count = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
    if (count < 0 && errno == EINTR) continue;
    // Nobody can be told that the log cannot be written.
    if (count <= 0) return;
    done += static_cast<size_t>(count);
  }
}

}  // namespace

void NSLogMessage(std::string_view text) {
  const int savedErrno = errno;
  if (LogSink sink = gLogSink.load(std::memory_order_acquire); sink != nullptr) {
    sink(text);
  } else {
    const std::string time = NSDateFormatter("yyyy-MM-dd HH:mm:ss.SSS").stringFromDate(wallClock());
    writeToStandardError(
        fmt::format("{} {}[{}:{}] {}\n", time, NSProcessInfo::processName(), getpid(), gettid(), text));
  }
  // Logging stands between a system call and the look at its errno in many places.
  errno = savedErrno;
}

void setLogSink(LogSink sink) { gLogSink.store(sink, std::memory_order_release); }

}  // namespace ombra
