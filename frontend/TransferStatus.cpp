#include "frontend/TransferStatus.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace ombra {

namespace {

using nlohmann::json;

const json& member(const json& object, const char* key) {
  static const json kNothing;
  const auto found = object.find(key);
  return found == object.end() ? kNothing : *found;
}

std::string text(const json& object, const char* key) {
  const json& value = member(object, key);
  return value.is_string() ? value.get<std::string>() : std::string();
}

std::optional<uint64_t> number(const json& object, const char* key) {
  const json& value = member(object, key);
  return value.is_number_unsigned() ? std::optional(value.get<uint64_t>()) : std::nullopt;
}

TransferStatus::Transfer transferOf(const json& object) {
  return {text(object, "path"),
          text(object, "direction") == "upload",
          number(object, "done").value_or(0),
          number(object, "size"),
          number(object, "rate"),
          number(object, "secondsLeft")};
}

TransferStatus::Waiting waitingOf(const json& object) {
  return {text(object, "path"), number(object, "bytes").value_or(0), text(object, "error")};
}

template <typename Item>
std::vector<Item> listOf(const json& list, Item (*read)(const json&)) {
  std::vector<Item> items;
  if (!list.is_array()) return items;
  for (const json& entry : list) {
    if (entry.is_object()) items.push_back(read(entry));
  }
  return items;
}

}  // namespace

std::vector<std::string> TransferStatus::unsentPaths() const {
  std::vector<std::string> paths;
  for (const Transfer& transfer : transfers) {
    if (transfer.isUpload) paths.push_back(transfer.path);
  }
  for (const Waiting& file : waiting) paths.push_back(file.path);
  return paths;
}

uint64_t TransferStatus::unsentCount() const {
  const auto uploads = std::count_if(transfers.begin(), transfers.end(),
                                     [](const Transfer& transfer) { return transfer.isUpload; });
  return std::max<uint64_t>(waitingCount, waiting.size()) + static_cast<uint64_t>(uploads);
}

std::optional<TransferStatus> parseTransferStatus(std::string_view statusJSON) {
  const json object = json::parse(statusJSON, nullptr, false);
  if (!object.is_object() || !member(object, "transfers").is_array()) return std::nullopt;
  TransferStatus status;
  status.transfers = listOf(member(object, "transfers"), &transferOf);
  status.waiting = listOf(member(object, "waiting"), &waitingOf);
  status.transferCount =
      std::max<uint64_t>(number(object, "transferCount").value_or(0), status.transfers.size());
  status.waitingCount = std::max<uint64_t>(number(object, "waitingCount").value_or(0), status.waiting.size());
  status.waitingBytes = number(object, "waitingBytes").value_or(0);
  status.bytesReceived = number(object, "bytesReceived").value_or(0);
  status.bytesSent = number(object, "bytesSent").value_or(0);
  const json& cache = member(object, "cache");
  if (cache.is_object()) {
    status.cacheUsed = number(cache, "used").value_or(0);
    status.cacheBudget = number(cache, "budget").value_or(0);
  }
  const json& error = member(object, "lastError");
  if (error.is_object())
    status.lastError = TransferStatus::Error{text(error, "path"), text(error, "text"), text(error, "date")};
  return status;
}

}  // namespace ombra
