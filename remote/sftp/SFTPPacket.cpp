#include "remote/sftp/SFTPPacket.h"

namespace ombra {

void sftpPutU32(std::byte* to, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) *to++ = static_cast<std::byte>(value >> shift);
}

void sftpPutU64(std::byte* to, uint64_t value) {
  sftpPutU32(to, static_cast<uint32_t>(value >> 32));
  sftpPutU32(to + 4, static_cast<uint32_t>(value));
}

uint32_t sftpGetU32(const std::byte* from) {
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value = value << 8 | std::to_integer<uint32_t>(from[i]);
  return value;
}

SFTPPacketWriter::SFTPPacketWriter(uint8_t type) {
  iBytes.reserve(128);
  iBytes.resize(4);
  u8(type);
}

SFTPPacketWriter& SFTPPacketWriter::u8(uint8_t value) {
  iBytes.push_back(static_cast<std::byte>(value));
  return *this;
}

SFTPPacketWriter& SFTPPacketWriter::u32(uint32_t value) {
  iBytes.resize(iBytes.size() + 4);
  sftpPutU32(iBytes.data() + iBytes.size() - 4, value);
  return *this;
}

SFTPPacketWriter& SFTPPacketWriter::u64(uint64_t value) {
  u32(static_cast<uint32_t>(value >> 32));
  return u32(static_cast<uint32_t>(value));
}

SFTPPacketWriter& SFTPPacketWriter::string(std::string_view bytes) {
  u32(static_cast<uint32_t>(bytes.size()));
  const auto* begin = reinterpret_cast<const std::byte*>(bytes.data());
  iBytes.insert(iBytes.end(), begin, begin + bytes.size());
  return *this;
}

std::span<const std::byte> SFTPPacketWriter::finish() {
  sftpPutU32(iBytes.data(), static_cast<uint32_t>(iBytes.size() - 4));
  return iBytes;
}

bool SFTPPacketReader::need(size_t count) {
  if (iOK && iBytes.size() >= count) return true;
  iOK = false;
  iBytes = {};
  return false;
}

uint8_t SFTPPacketReader::u8() {
  if (!need(1)) return 0;
  const auto value = std::to_integer<uint8_t>(iBytes.front());
  iBytes = iBytes.subspan(1);
  return value;
}

uint32_t SFTPPacketReader::u32() {
  if (!need(4)) return 0;
  const uint32_t value = sftpGetU32(iBytes.data());
  iBytes = iBytes.subspan(4);
  return value;
}

uint64_t SFTPPacketReader::u64() {
  const uint64_t high = u32();
  return high << 32 | u32();
}

std::string_view SFTPPacketReader::string() {
  const uint32_t length = u32();
  if (!need(length)) return {};
  const std::string_view text(reinterpret_cast<const char*>(iBytes.data()), length);
  iBytes = iBytes.subspan(length);
  return text;
}

void SFTPPacketReader::skip(size_t count) {
  if (need(count)) iBytes = iBytes.subspan(count);
}

}  // namespace ombra
