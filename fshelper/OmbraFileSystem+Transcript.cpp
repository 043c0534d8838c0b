// The log of what is said to and by the server.
#include <any>

#include "fshelper/OFSTracing.h"
#include "fshelper/OmbraFileSystem.h"
#include "platform/foundation/NSDateFormatter.h"
#include "platform/foundation/NSProcessInfo.h"
#include "platform/foundation/NSThread.h"

namespace ombra {

namespace {

constexpr std::string_view kDateFormatterKey = "OFSDateFormatter";
constexpr std::string_view kBundleShortVersionString = OMBRA_VERSION;
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// One per thread, made on first use.
const NSDateFormatter& dateFormatter() {
  std::any& formatter = NSThread::threadDictionary(kDateFormatterKey);
  if (!formatter.has_value()) formatter = NSDateFormatter("HH:mm:ss.SSS");
  return *std::any_cast<NSDateFormatter>(&formatter);
}

void write(std::FILE* log, std::string_view text) { std::fwrite(text.data(), 1, text.size(), log); }

}  // namespace

// A log that is opened again gains a second mark and header. The stream stays open to the end of this object,
// since the connections write to it from threads of their own.
std::FILE* OmbraFileSystem::openTranscriptLogAtPath(const std::string& path) {
  OFS_TRACE("-[OmbraFileSystem openTranscriptLogAtPath:]", "{}", path);
  std::FILE* log = std::fopen(path.c_str(), "abe");
  if (log == nullptr) return nullptr;
  write(log, kByteOrderMark);
  write(log,
        fmt::format("{} {} ({}) [Mac OS {}]\n", NSProcessInfo::processName(), kBundleShortVersionString,
                    NSProcessInfo::kc_architectureString(), NSProcessInfo::operatingSystemVersionString()));
  std::fflush(log);
  {
    MutexLock lock(iPropertyLock);
    iTranscriptLogs.push_back(log);
  }
  iTranscriptLog.store(log);
  return log;
}

void OmbraFileSystem::connectionUUID(const KCUUID& uuid, std::string_view appendTranscript, bool isOutgoing) {
  // The text itself is in the transcript, and only there.
  OFS_TRACE("-[OmbraFileSystem connectionUUID:appendTranscript:isOutgoing:]", "{}", uuid.stringValue());
  std::FILE* log = iTranscriptLog.load();
  if (log == nullptr) return;
  const std::string identifier = uuid.stringValue();
  // npos + 1 is 0: an identifier without "-" is written whole.
  const std::string_view part = std::string_view(identifier).substr(identifier.rfind('-') + 1);
  // One call per piece, so that pieces of several connections do not mix. The text has line ends of its own.
  write(log, fmt::format("{} {} {} {}", part, dateFormatter().stringFromDate(NSDate::date()),
                         isOutgoing ? ">" : "<", appendTranscript));
}

void OmbraFileSystem::connectionUUIDFlushTranscript(const KCUUID& uuid) {
  OFS_TRACE("-[OmbraFileSystem connectionUUIDFlushTranscript:]", "{}", uuid.stringValue());
  std::FILE* log = iTranscriptLog.load();
  if (log != nullptr) std::fflush(log);
}

}  // namespace ombra
