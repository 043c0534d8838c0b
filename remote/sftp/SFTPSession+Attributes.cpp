// Attributes of items and volumes.
#include <utility>

#include "remote/FilePermissions.h"
#include "remote/sftp/SFTPSession.h"

namespace ombra {

std::optional<NSFileAttributes> SFTPSession::attributes(std::string_view path, bool* isDirectory,
                                                        NSErrorRef* error) {
  const auto made = std::exchange(iMadeFolder, std::nullopt);
  if (!isUsablePath(path, error)) return std::nullopt;
  std::optional<SFTPAttributes> attributes;
  if (made && made->first == path) {
    attributes = made->second;
  } else {
    attributes = waitAttributes(iRequests.stat(path), SFTPOperation::kOther, path, error);
  }
  if (!attributes) return std::nullopt;
  if (isDirectory != nullptr) *isDirectory = attributes->isDirectory();
  return fileAttributesFromSFTP(*attributes);
}

std::optional<SFTPVolume> SFTPSession::volumeOf(std::string_view path, NSErrorRef* error) {
  if (!iChannel.hasExtension("statvfs@openssh.com", "2")) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported, "the size of the volume"));
    return std::nullopt;
  }
  auto reply = iChannel.wait(iRequests.statvfs(path), error);
  if (!reply) return std::nullopt;
  auto volume = parseSFTPVolume(*reply);
  if (!volume) refuse(*reply, SFTPOperation::kOther, path, error);
  iChannel.recycle(std::move(*reply));
  return volume;
}

std::optional<NSFileAttributes> SFTPSession::fileSystemAttributes(std::string_view path, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return std::nullopt;
  const auto volume = volumeOf(path, error);
  if (!volume) return std::nullopt;
  NSFileAttributes result;
  uint64_t bytes = 0;
  if (!__builtin_mul_overflow(volume->blocks, volume->blockSize, &bytes)) result.systemSize = bytes;
  if (!__builtin_mul_overflow(volume->availableBlocks, volume->blockSize, &bytes))
    result.systemFreeSize = bytes;
  return result;
}

bool SFTPSession::changeAttributes(const NSFileAttributes& attributes, std::string_view path,
                                   NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  const auto wanted = attributesToSet(attributes, path, error);
  if (!wanted) return false;
  if (*wanted == SFTPAttributes{}) {
    if (!attributes.creationDate) return true;
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitAttributeChangeNotSupported,
                                                   "the protocol has no creation dates"));
    return false;
  }
  if (hasModeAlready(*wanted, path)) return true;
  const Walks::Change change(*iWalks, path);
  NSErrorRef reason;
  if (setAttributes(*wanted, path, &reason)) return true;
  // Of a link that leads nowhere the link itself is meant; it has owner and dates, but no mode of its own.
  const bool mayBeLink = QuarnKitError::isCode(reason, kQuarnKitNoSuchItem) && !wanted->permissions;
  if (mayBeLink && iChannel.hasExtension("lsetstat@openssh.com", "1")) {
    return waitStatus(iRequests.lsetstat(path, *wanted), SFTPOperation::kSetAttributes, path, error);
  }
  // "Cannot be done here" is forgiven, and must not be what a read-only disk is taken for.
  storeError(error, explainWrite(reason, path));
  return false;
}

// Only right after the server has told it, and once: afterwards somebody else may have changed it.
bool SFTPSession::hasModeAlready(const SFTPAttributes& wanted, std::string_view path) {
  if (iUpload == nullptr || iUpload->path() != path) return false;
  const std::optional<uint32_t> mode = iUpload->mode();
  iUpload->setMode(std::nullopt);
  SFTPAttributes modeAlone;
  modeAlone.permissions = wanted.permissions;
  return mode && wanted.permissions && wanted == modeAlone &&
         (*mode & kPermissionBits) == (*wanted.permissions & kPermissionBits);
}

// The owner in a request of its own, ahead of the mode: servers apply the mode of a request first, and the
// change of owner then takes the set-ID bits away.
bool SFTPSession::setAttributes(const SFTPAttributes& wanted, std::string_view path, NSErrorRef* error) {
  if (!wanted.owner || !wanted.permissions) {
    return waitStatus(iRequests.setstat(path, wanted), SFTPOperation::kSetAttributes, path, error);
  }
  SFTPAttributes owner;
  owner.owner = wanted.owner;
  SFTPAttributes rest = wanted;
  rest.owner.reset();
  const uint32_t ownerID = iRequests.setstat(path, owner);
  const uint32_t restID = iRequests.setstat(path, rest);
  if (waitStatus(ownerID, SFTPOperation::kSetAttributes, path, error)) {
    return waitStatus(restID, SFTPOperation::kSetAttributes, path, error);
  }
  iChannel.abandon(restID);
  return false;
}

// The protocol's pairs: what of a pair is not to change is asked for first.
std::optional<SFTPAttributes> SFTPSession::attributesToSet(const NSFileAttributes& attributes,
                                                           std::string_view path, NSErrorRef* error) {
  SFTPAttributes wanted;
  if (attributes.posixPermissions) wanted.permissions = *attributes.posixPermissions & kPermissionBits;
  if (attributes.modificationDate) {
    const int64_t seconds = attributes.modificationDate->nanosecondsSince1970() / 1000000000;
    if (attributes.modificationDate->nanosecondsSince1970() < 0 || seconds > UINT32_MAX) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitAttributeChangeNotSupported,
                                                     "the protocol has no dates before 1970 or after 2106"));
      return std::nullopt;
    }
    wanted.times = SFTPAttributes::Times{static_cast<uint32_t>(seconds), static_cast<uint32_t>(seconds)};
  }
  if (!attributes.ownerAccountID && !attributes.groupOwnerAccountID) return wanted;
  wanted.owner = SFTPAttributes::Owner{attributes.ownerAccountID.value_or(0),
                                       attributes.groupOwnerAccountID.value_or(0)};
  if (attributes.ownerAccountID && attributes.groupOwnerAccountID) return wanted;
  const auto present = waitAttributes(iRequests.stat(path), SFTPOperation::kOther, path, error);
  if (!present) return std::nullopt;
  if (!present->owner) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitAttributeChangeNotSupported, path));
    return std::nullopt;
  }
  if (!attributes.ownerAccountID) wanted.owner->user = present->owner->user;
  if (!attributes.groupOwnerAccountID) wanted.owner->group = present->owner->group;
  return wanted;
}

}  // namespace ombra
