// Trace lines, logged errors, condition checks and hard failures.
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/NSError.h"

namespace ombra {

// Whether methods write trace lines. Set once at start from the user default "TracingEnabled".
extern std::atomic<bool> gTracingEnabled;

// Whether errors are logged: decided once per process from the user default "DebugLogging", shared under the
// Gestalt selector 'KDbg'.
bool KCDebugLoggingIsEnabled();
// Forgets the cached answer, so that the next question decides anew. For tests.
void ofs_forgetDebugLogging();

// Writes the enter and leave lines of one method, indented by the thread's nesting level. Costs one relaxed
// load when tracing is off.
class OFSTrace {
 public:
  // `signature` must have static storage. `describe` makes the argument text, called only when tracing is on.
  template <typename Describe>
  OFSTrace(const char* signature, Describe&& describe) {
    if (gTracingEnabled.load(std::memory_order_relaxed)) enter(signature, describe());
  }
  ~OFSTrace() {
    if (iSignature != nullptr) leave();
  }
  OFSTrace(const OFSTrace&) = delete;
  OFSTrace& operator=(const OFSTrace&) = delete;

 private:
  void enter(const char* signature, std::string description);
  void leave();
  const char* iSignature = nullptr;
  std::string iDescription;
  long iLevel = 0;
};

// The last component of a source path.
std::string_view ofs_sourceName(std::string_view path);
// Logs "file:line: message"; call it through OFS_TRACE_MESSAGE.
void ofs_traceMessage(const char* file, int line, std::string_view message);
// Logs an error that a method returns: "%@" when debug logging is on, "%@:%d: %@" when tracing is on.
void ofs_reportError(const char* file, int line, const NSErrorRef& error);
// Logs "CONDITION FAILED: message"; the caller goes on.
void ofs_conditionFailed(std::string_view message);
// Raises the KCException with the reason "message\n\nfile:…\nfunction:…\nline:…".
[[noreturn]] void ofs_raise(const char* file, const char* function, int line, std::string_view message);
// A path for trace lines: the path, or "(null)".
std::string_view ofs_describe(const std::optional<std::string_view>& path);

// The trace of a whole method: OFS_TRACE("-[Class selector:]", "{}", path). Arguments are formatted only if
// needed.
#define OFS_TRACE(signature, ...) \
  const ::ombra::OFSTrace ofsTrace((signature), [&] { return ::fmt::format(__VA_ARGS__); })
#define OFS_TRACE_MESSAGE(...)                                                   \
  do {                                                                           \
    if (::ombra::gTracingEnabled.load(std::memory_order_relaxed))                \
      ::ombra::ofs_traceMessage(__FILE__, __LINE__, ::fmt::format(__VA_ARGS__)); \
  } while (false)
#define OFS_REPORT_ERROR(error) ::ombra::ofs_reportError(__FILE__, __LINE__, (error))
#define OFS_CONDITION(condition, message)                    \
  do {                                                       \
    if (!(condition)) ::ombra::ofs_conditionFailed(message); \
  } while (false)
// Inside a method whose trace signature is `signature`.
#define OFS_RAISE(signature, ...) \
  ::ombra::ofs_raise(__FILE__, (signature), __LINE__, ::fmt::format(__VA_ARGS__))

}  // namespace ombra
