// Downloads.
#include <fmt/format.h>

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

}  // namespace

bool SFTPSession::download(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                           TransferControl& control, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  const auto handle = waitHandle(iRequests.open(path, kSFTPOpenRead), SFTPOperation::kOther, path, error);
  if (!handle) return false;
  bool succeeded = false;
  {
    // The attributes and the first data come in one round trip; nothing is written before the version is
    // checked.
    const uint32_t fstatID = iRequests.fstat(*handle);
    SFTPDownload download(iChannel, *handle, std::string(path), to, offset);
    download.begin();
    const auto attributes = waitAttributes(fstatID, SFTPOperation::kOther, path, nullptr);
    if (iChannel.failure()) {
      storeError(error, iChannel.failure());
      return false;
    }
    const std::string present = attributes ? versionOf(*attributes) : std::string();
    if (version != nullptr && !version->empty() && *version != present) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitItemChanged, path));
    } else {
      if (version != nullptr) *version = present;
      if (attributes && attributes->size) download.setExpectedLength(*attributes->size);
      succeeded = download.run(control, error);
    }
  }
  iChannel.abandon(iRequests.close(*handle));
  // The close must not stay behind until this session is used again.
  iChannel.flushBriefly();
  return succeeded;
}

}  // namespace ombra
