#include "remote/sftp/SFTPAttributes.h"

#include "remote/FilePermissions.h"
#include "remote/sftp/SFTPProtocol.h"

namespace ombra {

namespace {

void skipExtendedPairs(SFTPPacketReader& reader) {
  const uint32_t count = reader.u32();
  // Each pair is at least eight bytes: a count beyond that cannot be meant, and ends at the first missing
  // pair.
  for (uint32_t i = 0; i < count && reader.ok(); ++i) {
    reader.string();
    reader.string();
  }
}

}  // namespace

SFTPAttributes readSFTPAttributes(SFTPPacketReader& reader) {
  SFTPAttributes attributes;
  const uint32_t flags = reader.u32();
  if (flags & kSFTPAttributeSize) attributes.size = reader.u64();
  if (flags & kSFTPAttributeOwner) {
    const uint32_t user = reader.u32();
    attributes.owner = SFTPAttributes::Owner{user, reader.u32()};
  }
  if (flags & kSFTPAttributePermissions) attributes.permissions = reader.u32();
  if (flags & kSFTPAttributeTimes) {
    const uint32_t access = reader.u32();
    attributes.times = SFTPAttributes::Times{access, reader.u32()};
  }
  if (flags & kSFTPAttributeExtended) skipExtendedPairs(reader);
  return attributes;
}

void writeSFTPAttributes(SFTPPacketWriter& writer, const SFTPAttributes& attributes) {
  uint32_t flags = 0;
  if (attributes.size) flags |= kSFTPAttributeSize;
  if (attributes.owner) flags |= kSFTPAttributeOwner;
  if (attributes.permissions) flags |= kSFTPAttributePermissions;
  if (attributes.times) flags |= kSFTPAttributeTimes;
  writer.u32(flags);
  if (attributes.size) writer.u64(*attributes.size);
  if (attributes.owner) writer.u32(attributes.owner->user).u32(attributes.owner->group);
  if (attributes.permissions) writer.u32(*attributes.permissions);
  if (attributes.times) writer.u32(attributes.times->access).u32(attributes.times->modification);
}

NSFileAttributes fileAttributesFromSFTP(const SFTPAttributes& attributes) {
  NSFileAttributes result;
  switch (attributes.fileType()) {
    case 0:
      break;
    case 0040000:
      result.fileType = NSFileTypeValue::NSFileTypeDirectory;
      break;
    case 0120000:
      result.fileType = NSFileTypeValue::NSFileTypeSymbolicLink;
      break;
    default:
      result.fileType = NSFileTypeValue::NSFileTypeRegular;
      break;
  }
  result.fileSize = attributes.size;
  if (attributes.permissions)
    result.posixPermissions = static_cast<uint16_t>(*attributes.permissions & kPermissionBits);
  if (attributes.times) {
    result.modificationDate =
        NSDate::dateWithNanoseconds(int64_t{attributes.times->modification} * 1000000000);
  }
  if (attributes.owner) {
    result.ownerAccountID = attributes.owner->user;
    result.groupOwnerAccountID = attributes.owner->group;
  }
  return result;
}

}  // namespace ombra
