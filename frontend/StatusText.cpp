#include "frontend/StatusText.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace ombra {

namespace {

constexpr size_t kBarWidth = 14;
constexpr size_t kFiguresWidth = 48;  // what stands behind a bar
constexpr size_t kShortestName = 12;
constexpr size_t kLongestName = 60;
constexpr size_t kWaitingShown = 10;  // on a terminal; the rest is counted

bool startsCharacter(char c) { return (c & 0xC0) != 0x80; }

size_t widthOf(std::string_view text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), startsCharacter));
}

std::string joined(const std::vector<std::string>& parts, std::string_view separator) {
  return fmt::format("{}", fmt::join(parts, separator));
}

unsigned percent(uint64_t done, uint64_t size) {
  // 100 only when it is all of it.
  if (done >= size) return 100;
  return static_cast<unsigned>(static_cast<double>(done) * 100 / static_cast<double>(size));
}

// What is known of a transfer: how much, how fast, how long.
std::vector<std::string> figuresOf(const TransferStatus::Transfer& transfer) {
  std::vector<std::string> figures;
  if (transfer.size) {
    figures.push_back(fmt::format("{} %", percent(transfer.done, *transfer.size)));
    figures.push_back(fmt::format("{} of {}", bytesText(transfer.done), bytesText(*transfer.size)));
    if (transfer.done >= *transfer.size) {
      figures.emplace_back("waiting for the server");
      return figures;
    }
  } else {
    figures.push_back(bytesText(transfer.done));
  }
  if (transfer.rate) figures.push_back(*transfer.rate == 0 ? "stalled" : bytesText(*transfer.rate) + "/s");
  if (transfer.secondsLeft) figures.push_back(durationText(*transfer.secondsLeft) + " left");
  return figures;
}

std::string cacheText(const TransferStatus& status) {
  return fmt::format("cache {} of {}", bytesText(status.cacheUsed), bytesText(status.cacheBudget));
}

std::string waitingText(const TransferStatus& status) {
  return fmt::format("not on the server yet: {}, {}", filesText(status.waitingCount),
                     bytesText(status.waitingBytes));
}

std::string inState(const Volume& volume) {
  return volume.state == "mounted" ? std::string() : fmt::format("({})", printable(volume.state));
}

std::string withReason(std::string text, const std::string& reason) {
  return reason.empty() ? text : text + ": " + printable(reason);
}

void addWaiting(const TransferStatus& status, size_t columns, std::vector<std::string>* lines) {
  if (status.waitingCount == 0) return;
  lines->push_back("  " + waitingText(status));
  const size_t shown = std::min(status.waiting.size(), kWaitingShown);
  for (size_t i = 0; i < shown; ++i) {
    const TransferStatus::Waiting& file = status.waiting[i];
    const size_t room = columns > 20 ? columns / 2 : columns;
    lines->push_back(withReason(
        fmt::format("    {}  {}", shortenedPath(printable(file.path), room), bytesText(file.bytes)),
        file.error));
  }
  if (status.waitingCount > shown)
    lines->push_back(fmt::format("    and {} more", status.waitingCount - shown));
}

}  // namespace

std::string bytesText(uint64_t bytes) {
  constexpr std::array<const char*, 6> kUnits{"kB", "MB", "GB", "TB", "PB", "EB"};
  if (bytes < 1000) return bytes == 1 ? "1 byte" : fmt::format("{} bytes", bytes);
  double value = static_cast<double>(bytes) / 1000;
  size_t unit = 0;
  // From 999.95 on, one decimal would read "1000.0".
  while (value >= 999.95 && unit + 1 < kUnits.size()) {
    value /= 1000;
    ++unit;
  }
  return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string durationText(uint64_t seconds) {
  const uint64_t minutes = seconds / 60;
  if (minutes < 60) return fmt::format("{}:{:02}", minutes, seconds % 60);
  return fmt::format("{}:{:02}:{:02}", minutes / 60, minutes % 60, seconds % 60);
}

std::string filesText(uint64_t count) { return count == 1 ? "1 file" : fmt::format("{} files", count); }

std::string progressBar(uint64_t done, uint64_t size, size_t width) {
  const size_t room = std::max<size_t>(width, 3) - 2;
  const size_t full = done >= size
                          ? room
                          : static_cast<size_t>(static_cast<double>(done) / static_cast<double>(size) *
                                                static_cast<double>(room));
  return "[" + std::string(full, '#') + std::string(room - full, '.') + "]";
}

std::string shortenedPath(std::string_view text, size_t width) {
  const size_t total = widthOf(text);
  if (total <= width) return std::string(text);
  if (width == 0) return {};
  size_t tooMany = total - width + 1;  // one column for the mark
  size_t at = 0;
  while (at < text.size() && tooMany > 0) {
    ++at;
    while (at < text.size() && !startsCharacter(text[at])) ++at;
    --tooMany;
  }
  return "…" + std::string(text.substr(at));
}

std::string transferLine(const TransferStatus::Transfer& transfer, size_t columns) {
  const size_t rest = 4 + kBarWidth + 2 + kFiguresWidth;
  const size_t room = std::clamp(columns > rest ? columns - rest : 0, kShortestName, kLongestName);
  std::string name = shortenedPath(printable(transfer.path), room);
  name.append(room - std::min(room, widthOf(name)), ' ');
  const std::string bar =
      transfer.size ? progressBar(transfer.done, *transfer.size, kBarWidth) : std::string(kBarWidth, ' ');
  return fmt::format("  {} {} {}  {}", transfer.isUpload ? "↑" : "↓", name, bar,
                     joined(figuresOf(transfer), "  "));
}

std::vector<std::string> statusBlock(const Volume& volume, size_t columns) {
  std::vector<std::string> head{printable(volume.name)};
  for (const std::string& part :
       {printable(volume.mountPath), printable(volume.protocol + " " + volume.server()), inState(volume)}) {
    if (!part.empty()) head.push_back(part);
  }
  std::vector<std::string> lines{joined(head, "  ")};
  const auto status = parseTransferStatus(volume.statusJSON);
  if (!status) return lines;
  for (const auto& transfer : status->transfers) lines.push_back(transferLine(transfer, columns));
  if (status->transferCount > status->transfers.size()) {
    lines.push_back(fmt::format("  and {} more transfers", status->transferCount - status->transfers.size()));
  }
  addWaiting(*status, columns, &lines);
  if (status->transferCount == 0 && status->waitingCount == 0)
    lines.emplace_back("  nothing is being transferred, everything is on the server");
  lines.push_back("  " + cacheText(*status));
  if (status->lastError) {
    lines.push_back(fmt::format("  last error, {}: {}: {}", printable(status->lastError->date),
                                printable(status->lastError->path), printable(status->lastError->text)));
  }
  return lines;
}

std::vector<std::string> statusLines(const Volume& volume) {
  const std::string name = printable(volume.name);
  std::vector<std::string> lines;
  const auto add = [&lines, &name](const std::string& text) { lines.push_back(name + ": " + text); };
  const auto status = parseTransferStatus(volume.statusJSON);
  if (!status || volume.state != "mounted") add(printable(volume.state));
  if (!status) return lines;
  for (const auto& transfer : status->transfers) {
    add(fmt::format("{} {}: {}", transfer.isUpload ? "sending" : "fetching", printable(transfer.path),
                    joined(figuresOf(transfer), ", ")));
  }
  if (status->transferCount > status->transfers.size())
    add(fmt::format("and {} more transfers", status->transferCount - status->transfers.size()));
  for (const auto& file : status->waiting) {
    add(withReason(fmt::format("waiting {}: {}", printable(file.path), bytesText(file.bytes)), file.error));
  }
  if (status->waitingCount != 0) add(waitingText(*status));
  if (status->unsentCount() == 0) add("everything is on the server");
  add(cacheText(*status));
  if (status->lastError) {
    add(fmt::format("last error, {}: {}: {}", printable(status->lastError->date),
                    printable(status->lastError->path), printable(status->lastError->text)));
  }
  return lines;
}

}  // namespace ombra
