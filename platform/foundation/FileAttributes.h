// The attributes of a file or a volume, as the file system and the connection library exchange them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/NSDate.h"

namespace ombra {

enum class NSFileTypeValue : uint8_t {
  NSFileTypeRegular,
  NSFileTypeDirectory,
  NSFileTypeSymbolicLink,
};

// A dictionary of at most one entry per NSFile… key, with the keys as members: present or not, typed, and
// copied without allocation. Names are those of the keys without the prefix.
struct NSFileAttributes {
  std::optional<NSFileTypeValue> fileType;      // NSFileType
  std::optional<uint64_t> fileSize;             // NSFileSize, bytes
  std::optional<NSDate> creationDate;           // NSFileCreationDate
  std::optional<NSDate> modificationDate;       // NSFileModificationDate
  std::optional<uint16_t> posixPermissions;     // NSFilePosixPermissions, the mode's low 12 bits
  std::optional<uint64_t> systemFileNumber;     // NSFileSystemFileNumber
  std::optional<uint64_t> systemSize;           // NSFileSystemSize, bytes of the volume
  std::optional<uint64_t> systemFreeSize;       // NSFileSystemFreeSize, bytes
  std::optional<uint32_t> ownerAccountID;       // NSFileOwnerAccountID
  std::optional<uint32_t> groupOwnerAccountID;  // NSFileGroupOwnerAccountID

  // The number of entries that are present.
  size_t count() const;
  // For trace lines: "{NSFileSize=3, NSFilePosixPermissions=0644}".
  std::string description() const;
  bool operator==(const NSFileAttributes&) const = default;
};

}  // namespace ombra
