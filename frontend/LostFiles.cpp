#include "frontend/LostFiles.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <filesystem>

#include "frontend/StatusText.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"

namespace ombra {

namespace {

constexpr size_t kMaximumEntries = 100000;

}  // namespace

std::string recoveredFolder(const std::string& mountPath) {
  const std::string all =
      stringByAppendingPathComponent(NSFileManager::kc_chewableItemsFolderCreate(false), "recovered");
  return stringByAppendingPathComponent(all, lastPathComponent(mountPath));
}

std::optional<uint64_t> bytesRecoveredSince(const std::string& folder, time_t start) {
  std::optional<uint64_t> bytes;
  std::error_code error;
  std::filesystem::recursive_directory_iterator entries(folder, error);
  for (size_t count = 0; !error && entries != std::filesystem::end(entries) && count < kMaximumEntries;
       ++count) {
    struct stat status {};
    if (lstat(entries->path().c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_mtime >= start)
      bytes = bytes.value_or(0) + static_cast<uint64_t>(status.st_blocks) * 512;
    entries.increment(error);
  }
  return bytes;
}

bool tellLost(const Volume& volume, const TransferStatus& last, time_t start, const Output& output) {
  if (last.unsentCount() == 0) return false;
  const std::vector<std::string> paths = last.unsentPaths();
  for (const std::string& path : paths) {
    output.warning(fmt::format("{} of {} was not on the server when its helper was ended.", inQuotes(path),
                               inQuotes(volume.name)));
  }
  if (last.unsentCount() > paths.size())
    output.warning(fmt::format("And {} more.", filesText(last.unsentCount() - paths.size())));
  const std::string folder = recoveredFolder(volume.mountPath);
  output.warning(
      bytesRecoveredSince(folder, start)
          ? fmt::format("Its helper has kept copies in {}; look whether they are complete.", inQuotes(folder))
          : "What was written to them since they were last stored is lost.");
  return true;
}

}  // namespace ombra
