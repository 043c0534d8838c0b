#include "platform/userfs/ProcessOfThread.h"

#include <fcntl.h>
#include <signal.h>  // NOLINT: tgkill
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <string>
#include <string_view>

namespace ombra {

namespace {

// Signal 0 asks only. A thread that may not be sent one is there as well.
bool hasThread(pid_t process, pid_t thread) { return ::tgkill(process, thread, 0) == 0 || errno == EPERM; }

}  // namespace

bool isThreadOf(pid_t thread, pid_t process) { return thread == process || hasThread(process, thread); }

pid_t processOfThread(pid_t thread) {
  // The first thread of a process has its number.
  if (hasThread(thread, thread)) return thread;
  const int file = ::open(("/proc/" + std::to_string(thread) + "/status").c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return thread;
  std::array<char, 1024> buffer{};
  const ssize_t got = ::read(file, buffer.data(), buffer.size());
  ::close(file);
  if (got <= 0) return thread;
  constexpr std::string_view kKey = "\nTgid:\t";
  const std::string_view text(buffer.data(), static_cast<size_t>(got));
  const size_t at = text.find(kKey);
  if (at == std::string_view::npos) return thread;
  pid_t process = thread;
  std::from_chars(text.data() + at + kKey.size(), text.data() + text.size(), process);
  return process;
}

}  // namespace ombra
