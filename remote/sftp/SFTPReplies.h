// The replies of a file protocol server as values. Each parser is absent for anything that is not a whole
// reply of its kind; nothing is allocated by a count that the bytes do not back.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "remote/sftp/SFTPAttributes.h"
#include "remote/sftp/SFTPBuffer.h"

namespace ombra {

// A received packet after its type and request number.
struct SFTPReply {
  uint8_t type = 0;
  uint32_t id = 0;
  SFTPBuffer packet;
  size_t bodyOffset = 0;

  std::span<const std::byte> body() const { return packet.bytes().subspan(bodyOffset); }
};

struct SFTPStatus {
  uint32_t code = 0;
  std::string message;  // the server's words, may be empty
};

struct SFTPName {
  std::string filename;
  std::string longname;
  SFTPAttributes attributes;
};

// statvfs@openssh.com
struct SFTPVolume {
  uint64_t blockSize = 0;  // the fundamental size, in which blocks are counted
  uint64_t blocks = 0;
  uint64_t availableBlocks = 0;  // for users without privileges
  bool isReadOnly = false;
};

// limits@openssh.com; 0 = no limit told
struct SFTPLimits {
  uint64_t packetLength = 0;
  uint64_t readLength = 0;
  uint64_t writeLength = 0;
  uint64_t openHandles = 0;
};

using SFTPExtensions = std::map<std::string, std::string, std::less<>>;

std::optional<SFTPStatus> parseSFTPStatus(const SFTPReply& reply);
std::optional<std::string> parseSFTPHandle(const SFTPReply& reply);
// The data of a read; points into the reply.
std::optional<std::span<const std::byte>> parseSFTPData(const SFTPReply& reply);
std::optional<std::vector<SFTPName>> parseSFTPNames(const SFTPReply& reply);
std::optional<SFTPAttributes> parseSFTPAttributes(const SFTPReply& reply);
std::optional<SFTPVolume> parseSFTPVolume(const SFTPReply& reply);
std::optional<SFTPLimits> parseSFTPLimits(const SFTPReply& reply);
// The server's version and its extensions with their data, from the body of a version packet.
std::optional<uint32_t> parseSFTPVersion(std::span<const std::byte> body, SFTPExtensions* extensions);

}  // namespace ombra
