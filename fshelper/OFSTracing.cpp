#include "fshelper/OFSTracing.h"

#include <any>
#include <utility>

#include "platform/foundation/Gestalt.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSThread.h"
#include "platform/foundation/NSUserDefaults.h"
#include "remote/KCTypes.h"

namespace ombra {

std::atomic<bool> gTracingEnabled{false};

namespace {

constexpr uint32_t kDebugLoggingSelector = fourCharacterCode("KDbg");
constexpr std::string_view kNestingLevelKey = "OFSDebugNestingLevel";

enum class DebugLogging : int { kUndecided, kOff, kOn };
std::atomic<DebugLogging> gDebugLogging{DebugLogging::kUndecided};
Mutex gDebugLoggingLock;

// What another part of the process has registered counts; the first one to ask decides for all.
bool decideDebugLogging() {
  int32_t registered = 0;
  if (Gestalt(kDebugLoggingSelector, &registered) != gestaltUndefSelectorErr) return registered != 0;
  const bool enabled = NSUserDefaults::standardUserDefaults().boolForKey("DebugLogging");
  if (enabled) NSLogMessage("DEBUG LOGGING IS ON");
  NewGestaltValue(kDebugLoggingSelector, enabled ? 1 : 0);
  return enabled;
}

long nestingLevel() {
  const long* level = std::any_cast<long>(&NSThread::threadDictionary(kNestingLevelKey));
  return level == nullptr ? 0 : *level;
}

void setNestingLevel(long level) { NSThread::threadDictionary(kNestingLevelKey) = level; }

}  // namespace

bool KCDebugLoggingIsEnabled() {
  DebugLogging known = gDebugLogging.load(std::memory_order_acquire);
  if (known == DebugLogging::kUndecided) {
    const MutexLock lock(gDebugLoggingLock);
    known = gDebugLogging.load(std::memory_order_relaxed);
    if (known == DebugLogging::kUndecided) {
      known = decideDebugLogging() ? DebugLogging::kOn : DebugLogging::kOff;
      gDebugLogging.store(known, std::memory_order_release);
    }
  }
  return known == DebugLogging::kOn;
}

void ofs_forgetDebugLogging() { gDebugLogging.store(DebugLogging::kUndecided, std::memory_order_release); }

void OFSTrace::enter(const char* signature, std::string description) {
  iLevel = nestingLevel();
  iSignature = signature;
  iDescription = std::move(description);
  NSLog("{}{{ {} {}", ofs_times(" ", static_cast<size_t>(iLevel)), iSignature, iDescription);
  setNestingLevel(iLevel + 1);
}

void OFSTrace::leave() {
  NSLog("{}}} {} {}", ofs_times(" ", static_cast<size_t>(iLevel)), iSignature, iDescription);
  setNestingLevel(iLevel);
}

std::string_view ofs_sourceName(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

void ofs_traceMessage(const char* file, int line, std::string_view message) {
  NSLog("{}:{}: {}", ofs_sourceName(file), line, message);
}

void ofs_reportError(const char* file, int line, const NSErrorRef& error) {
  const bool tracing = gTracingEnabled.load(std::memory_order_relaxed);
  const bool debugLogging = KCDebugLoggingIsEnabled();
  if (!tracing && !debugLogging) return;
  const std::string text = error == nullptr ? "(null)" : error->description();
  if (debugLogging) NSLogMessage(text);
  if (tracing) ofs_traceMessage(file, line, text);
}

void ofs_conditionFailed(std::string_view message) { NSLog("CONDITION FAILED: {}", message); }

void ofs_raise(const char* file, const char* function, int line, std::string_view message) {
  throw KCException(fmt::format("{}\n\nfile:{}\nfunction:{}\nline:{}", message, file, function, line));
}

std::string_view ofs_describe(const std::optional<std::string_view>& path) { return path.value_or("(null)"); }

}  // namespace ombra
