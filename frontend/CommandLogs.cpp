#include <fmt/format.h>
#include <unistd.h>

#include "frontend/Commands.h"
#include "frontend/HelperLogs.h"
#include "frontend/Volumes.h"

namespace ombra {

namespace {

Failure noLog(const LogsOptions& options, const std::string& folder) {
  std::string names;
  for (const std::string& name : volumesWithLogs(folder))
    names += (names.empty() ? "" : ", ") + inQuotes(name);
  return {kExitNotFound,
          fmt::format("There is no {} of a volume {}.", options.transcript ? "transcript" : "log",
                      inQuotes(options.name)),
          names.empty() ? fmt::format("{} holds no logs.", inQuotes(folder))
                        : fmt::format("There are logs of {}.", names),
          ""};
}

// A log holds what servers sent. To a terminal it goes line by line and cleaned; to a file as it is.
class LogWriter {
 public:
  explicit LogWriter(FILE* out) : iOut(out), iClean(isatty(fileno(out)) == 1) {}
  ~LogWriter() {
    if (!iRest.empty()) writeLine(iRest);
  }
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;

  bool hasWritten() const { return iHasWritten; }
  bool write(std::string_view text) {
    iHasWritten = iHasWritten || !text.empty();
    if (!iClean) {
      fwrite(text.data(), 1, text.size(), iOut);
    } else {
      iRest += text;
      for (size_t end = iRest.find('\n'); end != std::string::npos || iRest.size() > kLongestLine;
           end = iRest.find('\n')) {
        const size_t length = std::min(end, kLongestLine);
        writeLine(std::string_view(iRest).substr(0, length));
        iRest.erase(0, length + (length == end ? 1 : 0));
      }
    }
    return fflush(iOut) == 0;
  }

 private:
  static constexpr size_t kLongestLine = 4096;

  void writeLine(std::string_view line) { fmt::print(iOut, "{}\n", printable(line, 2 * kLongestLine)); }

  FILE* iOut;
  bool iClean;
  bool iHasWritten = false;
  std::string iRest;
};

}  // namespace

int runLogs(const LogsOptions& options, const Output& output) {
  const std::string folder = helperLogsFolder();
  const LogKind kind = options.transcript ? LogKind::kTranscript : LogKind::kConsole;
  // A mount path names its volume by its last component.
  const std::string name =
      options.name.starts_with('/') ? options.name.substr(options.name.rfind('/') + 1) : options.name;
  const auto log = newestLog(folder, name, kind);
  if (!log) return output.fail(noLog(options, folder));
  const Interruption interruption;
  LogWriter writer(output.out);
  Failure failure;
  const bool done = readLog(
      log->path, options.follow, interruption,
      [&writer](std::string_view text) { return writer.write(text); }, &failure);
  if (!done) return output.fail(failure);
  if (!writer.hasWritten() && kind == LogKind::kConsole)
    output.remark("The log is empty. To have more written: ombra defaults set DebugLogging true");
  return kExitSuccess;
}

}  // namespace ombra
