// Bytes of the file protocol to values and back, without a transport. All integers are big-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace ombra {

// Builds one packet: length, type, and what is appended. The length is filled in by `finish`.
class SFTPPacketWriter {
 public:
  explicit SFTPPacketWriter(uint8_t type);
  SFTPPacketWriter& u8(uint8_t value);
  SFTPPacketWriter& u32(uint32_t value);
  SFTPPacketWriter& u64(uint64_t value);
  // A length and the bytes.
  SFTPPacketWriter& string(std::string_view bytes);
  // Sets the length field; the whole packet. Valid until the writer changes or dies.
  std::span<const std::byte> finish();
  size_t size() const { return iBytes.size(); }

 private:
  std::vector<std::byte> iBytes;
};

// Reads values from foreign bytes. After the first value that does not fit, `ok` is false and everything
// further reads as zero or empty. Views point into the bytes given.
class SFTPPacketReader {
 public:
  explicit SFTPPacketReader(std::span<const std::byte> bytes) : iBytes(bytes) {}
  uint8_t u8();
  uint32_t u32();
  uint64_t u64();
  std::string_view string();
  void skip(size_t count);
  bool ok() const { return iOK; }
  size_t remaining() const { return iBytes.size(); }

 private:
  bool need(size_t count);

  std::span<const std::byte> iBytes;
  bool iOK = true;
};

// Writes a big-endian number to `to`, which has room.
void sftpPutU32(std::byte* to, uint32_t value);
void sftpPutU64(std::byte* to, uint64_t value);
uint32_t sftpGetU32(const std::byte* from);

}  // namespace ombra
