// The logs that helpers keep of their volumes.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "frontend/Failure.h"
#include "frontend/Interruption.h"
#include "platform/foundation/NSDate.h"

namespace ombra {

enum class LogKind { kConsole, kTranscript };

struct HelperLog {
  std::string path;
  std::string volumeName;
  std::string date;  // "2024-05-14-093000"
  LogKind kind = LogKind::kConsole;
};

// What a log's file name says; absent for other files. The volume's name may hold underscores itself.
std::optional<HelperLog> parseLogName(std::string_view filename);

// The folder of all logs.
std::string helperLogsFolder();

// The newest log of that kind and volume in `folder`; names are compared as file names are, after the
// replacements that helpers make in them. Absent when there is none.
std::optional<HelperLog> newestLog(const std::string& folder, std::string_view volumeName, LogKind kind);

// The names of all volumes that have logs in `folder`, sorted.
std::vector<std::string> volumesWithLogs(const std::string& folder);

// Removes the logs in `folder` that nothing was written to for two weeks before `now`, but never the newest
// ones of a volume that is mounted: its helper goes on writing to them. Files of other names stay. `mounted`
// is asked for the names of those volumes, and only when there is something to remove. Answers how many were
// removed.
int clearOldLogs(const std::string& folder, NSDate now,
                 const std::function<std::vector<std::string>()>& mounted);

// Hands the content of a log to `sink` in pieces and, with `follow`, what is added to it until interrupted.
// False with the failure filled when it cannot be read.
bool readLog(const std::string& path, bool follow, const Interruption& interruption,
             const std::function<bool(std::string_view)>& sink, Failure* failure);

}  // namespace ombra
