#include "frontend/HelperLogs.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "frontend/UniqueFd.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"

namespace ombra {

namespace {

constexpr std::string_view kConsoleEnd = "_Console.log";
constexpr std::string_view kTranscriptEnd = "_Transcript.log";
constexpr std::string_view kDatePattern = "0000-00-00-000000";

bool isDate(std::string_view text) {
  return text.size() == kDatePattern.size() &&
         std::equal(text.begin(), text.end(), kDatePattern.begin(), [](char c, char pattern) {
           return pattern == '0' ? c >= '0' && c <= '9' : c == pattern;
         });
}

std::vector<HelperLog> logsIn(const std::string& folder) {
  std::vector<HelperLog> logs;
  const auto names = NSFileManager::contentsOfDirectoryAtPath(folder, nullptr);
  for (const std::string& name : names.value_or(std::vector<std::string>())) {
    auto log = parseLogName(name);
    if (!log) continue;
    log->path = stringByAppendingPathComponent(folder, name);
    logs.push_back(std::move(*log));
  }
  return logs;
}

constexpr double kKeptSeconds = 14.0 * 24 * 60 * 60;

// A plain file that nothing was written to for so long. What a link leads to is not ours to judge.
bool isOld(const HelperLog& log, NSDate now) {
  struct stat status {};
  return lstat(log.path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         now.timeIntervalSinceDate(kc_dateWithTimespec(status.st_mtim)) > kKeptSeconds;
}

// Whether a helper may have it open: it is the newest of its kind of a mounted volume.
bool isInUse(const HelperLog& log, const std::vector<HelperLog>& logs,
             const std::vector<std::string>& mounted) {
  const auto isItsVolume = [&log](const std::string& name) {
    return canonicallyEqual(kc_stringByReplacingCharactersInSet(name, "/:,", "-"), log.volumeName);
  };
  if (std::none_of(mounted.begin(), mounted.end(), isItsVolume)) return false;
  return std::none_of(logs.begin(), logs.end(), [&log](const HelperLog& other) {
    return other.kind == log.kind && other.date > log.date &&
           canonicallyEqual(other.volumeName, log.volumeName);
  });
}

// Reads from the file's place to its present end. False when reading fails or the sink wants no more.
bool drain(int fd, const std::function<bool(std::string_view)>& sink) {
  std::array<char, 32768> buffer{};
  while (true) {
    const ssize_t count = read(fd, buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return count == 0;
    if (!sink(std::string_view(buffer.data(), static_cast<size_t>(count)))) return false;
  }
}

// A log that was cut starts again.
void rewindIfCut(int fd) {
  struct stat status {};
  if (fstat(fd, &status) == 0 && status.st_size < lseek(fd, 0, SEEK_CUR)) lseek(fd, 0, SEEK_SET);
}

void waitForChange(int watch, const Interruption& interruption) {
  constexpr int kLookAgainMilliseconds = 1000;  // in case no watch was to be had
  std::array<pollfd, 2> waiting{{{watch, POLLIN, 0}, {interruption.fd(), POLLIN, 0}}};
  if (poll(waiting.data(), waiting.size(), kLookAgainMilliseconds) <= 0 || waiting[0].revents == 0) return;
  std::array<char, 4096> events{};
  (void)!read(watch, events.data(), events.size());
}

}  // namespace

std::optional<HelperLog> parseLogName(std::string_view filename) {
  HelperLog log;
  std::string_view rest = filename;
  if (rest.ends_with(kConsoleEnd)) {
    rest.remove_suffix(kConsoleEnd.size());
  } else if (rest.ends_with(kTranscriptEnd)) {
    log.kind = LogKind::kTranscript;
    rest.remove_suffix(kTranscriptEnd.size());
  } else {
    return std::nullopt;
  }
  if (rest.size() < kDatePattern.size() + 1) return std::nullopt;
  const size_t underscore = rest.size() - kDatePattern.size() - 1;
  if (rest[underscore] != '_' || !isDate(rest.substr(underscore + 1))) return std::nullopt;
  log.volumeName = rest.substr(0, underscore);
  log.date = rest.substr(underscore + 1);
  return log;
}

std::string helperLogsFolder() {
  return stringByAppendingPathComponent(NSFileManager::kc_chewableItemsFolderCreate(false),
                                        "OmbraFSHelperLogs");
}

std::optional<HelperLog> newestLog(const std::string& folder, std::string_view volumeName, LogKind kind) {
  const std::string wanted = kc_stringByReplacingCharactersInSet(volumeName, "/:,", "-");
  std::optional<HelperLog> newest;
  for (HelperLog& log : logsIn(folder)) {
    if (log.kind != kind || !canonicallyEqual(log.volumeName, wanted)) continue;
    if (!newest || newest->date < log.date) newest = std::move(log);
  }
  return newest;
}

std::vector<std::string> volumesWithLogs(const std::string& folder) {
  std::vector<std::string> names;
  for (HelperLog& log : logsIn(folder)) names.push_back(std::move(log.volumeName));
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

int clearOldLogs(const std::string& folder, NSDate now,
                 const std::function<std::vector<std::string>()>& mounted) {
  const std::vector<HelperLog> logs = logsIn(folder);
  std::vector<HelperLog> old;
  std::copy_if(logs.begin(), logs.end(), std::back_inserter(old),
               [now](const HelperLog& log) { return isOld(log, now); });
  if (old.empty()) return 0;
  const std::vector<std::string> names = mounted();
  std::erase_if(old, [&](const HelperLog& log) { return isInUse(log, logs, names); });
  return static_cast<int>(std::count_if(old.begin(), old.end(),
                                        [](const HelperLog& log) { return unlink(log.path.c_str()) == 0; }));
}

bool readLog(const std::string& path, bool follow, const Interruption& interruption,
             const std::function<bool(std::string_view)>& sink, Failure* failure) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!file) {
    *failure = {kExitFailure, fmt::format("The log {} cannot be read.", inQuotes(path)), std::strerror(errno),
                ""};
    return false;
  }
  const UniqueFd watch(follow ? inotify_init1(IN_CLOEXEC | IN_NONBLOCK) : -1);
  if (watch) inotify_add_watch(watch.get(), path.c_str(), IN_MODIFY);
  bool wanted = drain(file.get(), sink);
  while (follow && wanted && !interruption.requested()) {
    waitForChange(watch.get(), interruption);
    rewindIfCut(file.get());
    wanted = drain(file.get(), sink);
  }
  return true;
}

}  // namespace ombra
