#include "frontend/UnmountProgress.h"

#include <fmt/format.h>

#include "frontend/StatusText.h"

namespace ombra {

namespace {

constexpr std::chrono::milliseconds kBetweenLooks{500};
constexpr std::chrono::seconds kAfterSilence{10};  // a helper that does not answer costs three seconds
constexpr std::chrono::milliseconds kQuiet{300};   // what is done in no time needs no sign
constexpr std::chrono::seconds kBetweenLines{10};
constexpr size_t kTransfersShown = 8;

}  // namespace

UnmountProgress::UnmountProgress(const Volume& volume, const Output& output)
    : iVolume(volume),
      iOutput(output),
      iLive(output.err, !output.json),
      iBus(volume.busName.empty() ? nullptr : HelperBus::connect(volume.busAddress)),
      iStatus(parseTransferStatus(volume.statusJSON)),
      iNextLine(iBegin + kBetweenLines) {}

uint64_t UnmountProgress::tick() {
  const Clock::time_point now = Clock::now();
  look(now);
  show(now);
  return iStatus ? iStatus->bytesSent : 0;
}

void UnmountProgress::look(Clock::time_point now) {
  if (iBus == nullptr || now < iNextLook) return;
  auto status = parseTransferStatus(iBus->statusOf(iVolume.busName, iVolume.pid).json);
  iNextLook = Clock::now() + (status ? std::chrono::milliseconds(kBetweenLooks) : kAfterSilence);
  // The last word of one that has ended since stays.
  if (status) iStatus = std::move(status);
}

std::string UnmountProgress::headline() const {
  const uint64_t count = iStatus ? iStatus->unsentCount() : 0;
  return fmt::format("Unmounting {}{}", printable(iVolume.name),
                     count == 0 ? "" : fmt::format(": {} still on the way to the server", filesText(count)));
}

void UnmountProgress::show(Clock::time_point now) {
  if (iOutput.json || now - iBegin < kQuiet) return;
  if (!iLive.enabled()) {
    if (now < iNextLine) return;
    iNextLine = now + kBetweenLines;
    const uint64_t sent = iStatus ? iStatus->bytesSent : 0;
    iOutput.warning(fmt::format("{}, {} sent since the mount", headline(), bytesText(sent)));
    return;
  }
  std::vector<std::string> lines{fmt::format("{} {}", "|/-\\"[++iTicks % 4], headline())};
  const size_t columns = terminalSize(iOutput.err).columns;
  if (iStatus) {
    for (const auto& transfer : iStatus->transfers) {
      if (transfer.isUpload && lines.size() <= kTransfersShown)
        lines.push_back(transferLine(transfer, columns));
    }
  }
  iLive.show(lines);
}

}  // namespace ombra
