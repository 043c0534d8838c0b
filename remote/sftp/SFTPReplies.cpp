#include "remote/sftp/SFTPReplies.h"

#include "remote/sftp/SFTPProtocol.h"

namespace ombra {

namespace {
// Server texts end in logs and error messages: longer ones say nothing more.
constexpr size_t kMaximumMessageLength = 1024;
// File name, long name and attribute flags take at least this much of a name reply.
constexpr size_t kSmallestNameLength = 12;
constexpr size_t kMaximumHandleLength = 256;
constexpr size_t kMaximumExtensions = 256;
}  // namespace

std::optional<SFTPStatus> parseSFTPStatus(const SFTPReply& reply) {
  if (reply.type != kSFTPStatus) return std::nullopt;
  SFTPPacketReader reader(reply.body());
  SFTPStatus status;
  status.code = reader.u32();
  if (!reader.ok()) return std::nullopt;
  // Some servers leave out the text and the language, which the draft's first revision did not have.
  if (reader.remaining() > 0) status.message = reader.string().substr(0, kMaximumMessageLength);
  if (!reader.ok()) return std::nullopt;
  return status;
}

std::optional<std::string> parseSFTPHandle(const SFTPReply& reply) {
  if (reply.type != kSFTPHandle) return std::nullopt;
  SFTPPacketReader reader(reply.body());
  const std::string_view handle = reader.string();
  if (!reader.ok() || handle.empty() || handle.size() > kMaximumHandleLength) return std::nullopt;
  return std::string(handle);
}

std::optional<std::span<const std::byte>> parseSFTPData(const SFTPReply& reply) {
  if (reply.type != kSFTPData) return std::nullopt;
  SFTPPacketReader reader(reply.body());
  const std::string_view data = reader.string();
  if (!reader.ok()) return std::nullopt;
  return std::span(reinterpret_cast<const std::byte*>(data.data()), data.size());
}

std::optional<std::vector<SFTPName>> parseSFTPNames(const SFTPReply& reply) {
  if (reply.type != kSFTPName) return std::nullopt;
  SFTPPacketReader reader(reply.body());
  const uint32_t count = reader.u32();
  if (!reader.ok() || count > reader.remaining() / kSmallestNameLength) return std::nullopt;
  std::vector<SFTPName> names;
  names.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    SFTPName name;
    name.filename = reader.string();
    name.longname = reader.string();
    name.attributes = readSFTPAttributes(reader);
    if (!reader.ok()) return std::nullopt;
    names.push_back(std::move(name));
  }
  return names;
}

std::optional<SFTPAttributes> parseSFTPAttributes(const SFTPReply& reply) {
  if (reply.type != kSFTPAttrs) return std::nullopt;
  SFTPPacketReader reader(reply.body());
  SFTPAttributes attributes = readSFTPAttributes(reader);
  if (!reader.ok()) return std::nullopt;
  return attributes;
}

std::optional<SFTPVolume> parseSFTPVolume(const SFTPReply& reply) {
  if (reply.type != kSFTPExtendedReply) return std::nullopt;
  SFTPPacketReader reader(reply.body());
  SFTPVolume volume;
  reader.u64();  // the preferred block size
  volume.blockSize = reader.u64();
  volume.blocks = reader.u64();
  reader.u64();  // free blocks, the superuser's included
  volume.availableBlocks = reader.u64();
  reader.skip(4 * 8);  // numbers of files, and of the volume
  volume.isReadOnly = (reader.u64() & kSFTPVolumeIsReadOnly) != 0;
  reader.skip(8);  // the longest name
  if (!reader.ok()) return std::nullopt;
  return volume;
}

std::optional<SFTPLimits> parseSFTPLimits(const SFTPReply& reply) {
  if (reply.type != kSFTPExtendedReply) return std::nullopt;
  SFTPPacketReader reader(reply.body());
  SFTPLimits limits;
  limits.packetLength = reader.u64();
  limits.readLength = reader.u64();
  limits.writeLength = reader.u64();
  limits.openHandles = reader.u64();
  if (!reader.ok()) return std::nullopt;
  return limits;
}

std::optional<uint32_t> parseSFTPVersion(std::span<const std::byte> body, SFTPExtensions* extensions) {
  SFTPPacketReader reader(body);
  const uint32_t version = reader.u32();
  if (!reader.ok()) return std::nullopt;
  while (reader.remaining() > 0 && extensions->size() < kMaximumExtensions) {
    const std::string_view name = reader.string();
    const std::string_view data = reader.string();
    if (!reader.ok()) return std::nullopt;
    extensions->emplace(name, data);
  }
  return version;
}

}  // namespace ombra
