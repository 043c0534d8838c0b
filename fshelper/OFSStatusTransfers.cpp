#include "fshelper/OFSStatusTransfers.h"

#include <fmt/format.h>

#include <ctime>
#include <nlohmann/json.hpp>

namespace ombra {
namespace {

constexpr size_t kMaximumListBytes = 24 * 1024;
constexpr size_t kMaximumTextBytes = 500;

nlohmann::json numberOrNull(const std::optional<uint64_t>& number) {
  return number ? nlohmann::json(*number) : nlohmann::json(nullptr);
}

// Servers may say a lot. Cut in the middle of a character: what is left of it is replaced later.
std::string shortText(const std::string& text) { return text.substr(0, kMaximumTextBytes); }

std::string describe(NSDate date) {
  const timespec moment = kc_timespec(date);
  tm parts{};
  gmtime_r(&moment.tv_sec, &parts);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", parts.tm_year + 1900, parts.tm_mon + 1,
                     parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

std::optional<uint64_t> secondsLeft(const OFSTransferReport::Transfer& transfer) {
  if (!transfer.size || transfer.perSecond.value_or(0) == 0 || *transfer.size < transfer.done)
    return std::nullopt;
  return (*transfer.size - transfer.done + *transfer.perSecond - 1) / *transfer.perSecond;
}

nlohmann::json objectOf(const OFSTransferReport::Transfer& transfer) {
  const bool isDownload = transfer.direction == OFSTransferRecord::Direction::kDownload;
  return {{"path", transfer.path},
          {"direction", isDownload ? "download" : "upload"},
          {"done", transfer.done},
          {"size", numberOrNull(transfer.size)},
          {"rate", numberOrNull(transfer.perSecond)},
          {"secondsLeft", numberOrNull(secondsLeft(transfer))}};
}

nlohmann::json objectOf(const OFSTransferReport::Waiting& file) {
  nlohmann::json object = {{"path", file.path}, {"bytes", file.bytes}, {"error", nullptr}};
  if (!file.failure.empty()) object["error"] = shortText(file.failure);
  return object;
}

template <typename Item>
nlohmann::json listOf(const std::vector<Item>& items) {
  nlohmann::json list = nlohmann::json::array();
  size_t bytes = 0;
  for (const Item& item : items) {
    nlohmann::json object = objectOf(item);
    bytes += object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).size() + 1;
    if (bytes > kMaximumListBytes) break;
    list.push_back(std::move(object));
  }
  return list;
}

}  // namespace

void addTransferReport(const OFSTransferReport& report, nlohmann::json* status) {
  nlohmann::json& object = *status;
  object["transfers"] = listOf(report.transfers);
  object["waiting"] = listOf(report.waiting);
  object["transferCount"] = report.transfers.size();
  object["waitingCount"] = report.waiting.size();
  uint64_t waitingBytes = 0;
  for (const auto& file : report.waiting) waitingBytes += file.bytes;
  object["waitingBytes"] = waitingBytes;
  object["bytesReceived"] = report.received;
  object["bytesSent"] = report.sent;
  object["cache"] = {{"used", report.cacheUsed}, {"budget", report.cacheBudget}};
  object["lastError"] = nullptr;
  if (!report.lastFailure) return;
  object["lastError"] = {{"path", report.lastFailure->path},
                         {"text", shortText(report.lastFailure->text)},
                         {"date", describe(report.lastFailure->date)}};
}

}  // namespace ombra
