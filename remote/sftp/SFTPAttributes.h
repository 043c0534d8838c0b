// The attributes of the file protocol.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/foundation/FileAttributes.h"
#include "remote/sftp/SFTPPacket.h"

namespace ombra {

// What a server tells of an item, or is told to set. Owner and group, and both times, come only in pairs.
struct SFTPAttributes {
  struct Owner {
    uint32_t user = 0;
    uint32_t group = 0;
    bool operator==(const Owner&) const = default;
  };
  struct Times {
    uint32_t access = 0;
    uint32_t modification = 0;
    bool operator==(const Times&) const = default;
  };

  std::optional<uint64_t> size;
  std::optional<Owner> owner;
  std::optional<uint32_t> permissions;  // with the file type in the upper bits
  std::optional<Times> times;

  bool isDirectory() const { return fileType() == 0040000; }
  bool isLink() const { return fileType() == 0120000; }
  bool isFile() const { return fileType() == 0100000; }
  // The mode's file type bits, 0 when the server does not tell.
  uint32_t fileType() const { return permissions.value_or(0) & 0170000; }
  bool operator==(const SFTPAttributes&) const = default;
};

// Reads one attribute record; `reader.ok()` tells whether it was whole. Extended pairs are skipped.
SFTPAttributes readSFTPAttributes(SFTPPacketReader& reader);
void writeSFTPAttributes(SFTPPacketWriter& writer, const SFTPAttributes& attributes);

// As the program sees them.
NSFileAttributes fileAttributesFromSFTP(const SFTPAttributes& attributes);

}  // namespace ombra
