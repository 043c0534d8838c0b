// Downloads.
#include <fmt/format.h>

#include <algorithm>

#include "remote/sftp/SFTPDownload.h"
#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SFTPSession.h"

namespace ombra {

namespace {

// What the protocol tells of a file's identity.
std::string versionOf(const SFTPAttributes& attributes) {
  if (!attributes.times || !attributes.size) return {};
  return fmt::format("{}:{}", attributes.times->modification, *attributes.size);
}

// By all that a file can be told by here. When it was read last does not count: reading changes that.
bool isSameFile(const SFTPAttributes& one, const SFTPAttributes& other) {
  return one.isFile() && one.permissions == other.permissions && one.size == other.size &&
         one.owner == other.owner && one.times && other.times &&
         one.times->modification == other.times->modification;
}

// Reading more than that takes so long that what was opened ahead would be closed before its turn.
constexpr uint64_t kSmallFile = 1024 * 1024;

}  // namespace

bool SFTPSession::download(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                           TransferControl& control, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  const auto likelyLength = iWalks->reached(path, SFTPWalks::Kind::kFile);
  if (const auto opened = iAhead.take(path, SFTPWalks::Kind::kFile)) {
    bool isOutdated = false;
    const bool succeeded = downloadThrough({opened->handle, likelyLength}, path, to, offset, version, control,
                                           &isOutdated, error);
    if (!isOutdated) return succeeded;
    storeError(error, nullptr);
  }
  const auto handle = waitHandle(iRequests.open(path, kSFTPOpenRead), SFTPOperation::kOther, path, error);
  return handle &&
         downloadThrough({*handle, likelyLength}, path, to, offset, version, control, nullptr, error);
}

bool SFTPSession::downloadThrough(const DownloadSource& source, std::string_view path, NSFileHandle& to,
                                  uint64_t offset, std::string* version, TransferControl& control,
                                  bool* isOutdated, NSErrorRef* error) {
  const std::string& handle = source.handle;
  bool succeeded = false;
  {
    // The attributes and the first data come in one round trip; nothing is written before the version is
    // checked.
    const uint32_t fstatID = iRequests.fstat(handle);
    const uint32_t statID = isOutdated != nullptr ? iRequests.stat(path) : 0;
    SFTPDownload download(iChannel, handle, std::string(path), to, offset);
    download.begin(source.likelyLength);
    const auto attributes = waitAttributes(fstatID, SFTPOperation::kOther, path, nullptr);
    if (isOutdated != nullptr) {
      const auto named = waitAttributes(statID, SFTPOperation::kOther, path, nullptr);
      *isOutdated = !iChannel.failure() && (!attributes || !named || !isSameFile(*attributes, *named));
    }
    if (iChannel.failure()) {
      storeError(error, iChannel.failure());
      return false;
    }
    const std::string present = attributes ? versionOf(*attributes) : std::string();
    if (isOutdated != nullptr && *isOutdated) {
      // Asked for anew.
    } else if (version != nullptr && !version->empty() && *version != present) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitItemChanged, path));
    } else {
      if (version != nullptr) *version = present;
      if (attributes && attributes->size) download.setExpectedLength(*attributes->size);
      if (attributes && attributes->size.value_or(kSmallFile) < kSmallFile)
        iAhead.openNext(path, SFTPWalks::Kind::kFile);
      // Not before: to ask for megabytes beyond the end of a small file would cost the server something.
      download.widen(iDownloadWidth);
      succeeded = download.run(control, error);
      // Only as much as the file was long enough to try.
      const uint64_t pieces = attributes ? attributes->size.value_or(0) / iChannel.readLength() : 0;
      iDownloadWidth = std::min(download.width(), std::max(iDownloadWidth, static_cast<size_t>(pieces / 2)));
    }
  }
  iChannel.abandon(iRequests.close(handle));
  // The close must not stay behind until this session is used again.
  iChannel.flushBriefly();
  return succeeded;
}

}  // namespace ombra
