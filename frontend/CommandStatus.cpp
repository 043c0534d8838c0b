#include <fmt/format.h>
#include <poll.h>

#include <string>
#include <vector>

#include "frontend/Commands.h"
#include "frontend/Interruption.h"
#include "frontend/LiveLines.h"
#include "frontend/StatusText.h"
#include "frontend/VolumeObject.h"
#include "frontend/Volumes.h"

namespace ombra {

namespace {

constexpr int kWatchMilliseconds = 1000;

void append(std::vector<std::string>* lines, std::vector<std::string> more) {
  for (std::string& line : more) lines->push_back(std::move(line));
}

class StatusCommand {
 public:
  StatusCommand(const StatusOptions& options, const Output& output)
      : iOptions(options), iOutput(output), iLive(output.out, !output.json) {}

  int run() {
    Failure failure;
    std::vector<Volume> volumes;
    if (!look(&volumes, &failure)) return iOutput.fail(failure);
    if (iOptions.watch) return watch(std::move(volumes));
    if (iOutput.json) {
      iOutput.result(volumesText(volumes));
    } else if (volumes.empty()) {
      iOutput.remark("Nothing is mounted. To mount a folder: ombra mount URL");
    } else {
      for (const std::string& line : linesOf(volumes)) iOutput.result(line);
    }
    return kExitSuccess;
  }

 private:
  // The volumes that are asked for, now. False when there is no such one.
  bool look(std::vector<Volume>* volumes, Failure* failure) const {
    *volumes = currentVolumes();
    if (!iOptions.target) return true;
    const Volume* found = findVolume(*volumes, *iOptions.target, currentFolder(), failure);
    if (found == nullptr) return false;
    *volumes = {*found};
    return true;
  }

  std::vector<std::string> linesOf(const std::vector<Volume>& volumes) const {
    std::vector<std::string> lines;
    const size_t columns = terminalSize(iOutput.out).columns;
    for (const Volume& volume : volumes) {
      append(&lines, iLive.enabled() ? statusBlock(volume, columns) : statusLines(volume));
    }
    return lines;
  }

  // Until interrupted. One volume alone is watched to its end: nothing more can come of it.
  int watch(std::vector<Volume> volumes) {
    const Interruption interruption;
    pollfd waiting{interruption.fd(), POLLIN, 0};
    do {
      show(volumes);
      poll(&waiting, 1, kWatchMilliseconds);
      if (interruption.requested()) return kExitSuccess;
      Failure failure;
      if (!look(&volumes, &failure)) {
        if (failure.code != kExitNotFound) return iOutput.fail(failure);
        iOutput.remark(fmt::format("{} is not mounted any more.", inQuotes(*iOptions.target)));
        return kExitSuccess;
      }
    } while (ferror(iOutput.out) == 0);
    return kExitFailure;
  }

  void show(const std::vector<Volume>& volumes) {
    if (iOutput.json) {
      iOutput.result(volumesText(volumes));
      return;
    }
    std::vector<std::string> lines = linesOf(volumes);
    if (lines.empty()) lines.emplace_back("Nothing is mounted.");
    if (iLive.enabled()) {
      iLive.show(lines);
    } else if (lines != iShown) {
      for (const std::string& line : lines) iOutput.result(line);
    }
    iShown = std::move(lines);
  }

  const StatusOptions& iOptions;
  const Output& iOutput;
  LiveLines iLive;
  std::vector<std::string> iShown;
};

}  // namespace

int runStatus(const StatusOptions& options, const Output& output) {
  return StatusCommand(options, output).run();
}

}  // namespace ombra
