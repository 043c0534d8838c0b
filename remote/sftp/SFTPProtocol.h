// The numbers of the SSH file transfer protocol, version 3 (draft-ietf-secsh-filexfer-02), and what OpenSSH
// adds.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ombra {

enum SFTPPacketType : uint8_t {
  kSFTPInit = 1,
  kSFTPVersion = 2,
  kSFTPOpen = 3,
  kSFTPClose = 4,
  kSFTPRead = 5,
  kSFTPWrite = 6,
  kSFTPLstat = 7,
  kSFTPFstat = 8,
  kSFTPSetstat = 9,
  kSFTPFsetstat = 10,
  kSFTPOpendir = 11,
  kSFTPReaddir = 12,
  kSFTPRemove = 13,
  kSFTPMkdir = 14,
  kSFTPRmdir = 15,
  kSFTPRealpath = 16,
  kSFTPStat = 17,
  kSFTPRename = 18,
  kSFTPReadlink = 19,
  kSFTPSymlink = 20,
  kSFTPStatus = 101,
  kSFTPHandle = 102,
  kSFTPData = 103,
  kSFTPName = 104,
  kSFTPAttrs = 105,
  kSFTPExtended = 200,
  kSFTPExtendedReply = 201,
};

// Status codes. A server may send others; they count as kSFTPStatusFailure.
enum SFTPStatusCode : uint32_t {
  kSFTPStatusOK = 0,
  kSFTPStatusEOF = 1,
  kSFTPStatusNoSuchFile = 2,
  kSFTPStatusPermissionDenied = 3,
  kSFTPStatusFailure = 4,
  kSFTPStatusBadMessage = 5,
  kSFTPStatusNoConnection = 6,
  kSFTPStatusConnectionLost = 7,
  kSFTPStatusOpUnsupported = 8,
  // Codes of later versions that some servers send to version 3 clients too.
  kSFTPStatusFileAlreadyExists = 11,
  kSFTPStatusWriteProtect = 12,
  kSFTPStatusNoSpaceOnFilesystem = 14,
  kSFTPStatusQuotaExceeded = 15,
  kSFTPStatusDirNotEmpty = 18,
  kSFTPStatusNotADirectory = 19,
  kSFTPStatusInvalidFilename = 20,
};

enum SFTPOpenFlag : uint32_t {
  kSFTPOpenRead = 0x1,
  kSFTPOpenWrite = 0x2,
  kSFTPOpenAppend = 0x4,
  kSFTPOpenCreate = 0x8,
  kSFTPOpenTruncate = 0x10,
  kSFTPOpenExclusive = 0x20,
};

enum SFTPAttributeFlag : uint32_t {
  kSFTPAttributeSize = 0x1,
  kSFTPAttributeOwner = 0x2,
  kSFTPAttributePermissions = 0x4,
  kSFTPAttributeTimes = 0x8,
  kSFTPAttributeExtended = 0x80000000,
};

// A flag in the reply of statvfs@openssh.com (OpenSSH's PROTOCOL, 3.4).
inline constexpr uint64_t kSFTPVolumeIsReadOnly = 1;

inline constexpr uint32_t kSFTPProtocolVersion = 3;
// The longest packet that is taken from a server (its length field). OpenSSH's own limit is 256 KiB.
inline constexpr size_t kSFTPMaximumPacketLength = 1024 * 1024;
// What every server takes: the draft asks for packets of 34000 bytes, so data of 32 KiB.
inline constexpr size_t kSFTPDefaultPieceLength = 32 * 1024;
// The most data that one write carries, however much the server allows.
inline constexpr size_t kSFTPMaximumPieceLength = 255 * 1024;
// The most data that one read asks for. Larger replies make servers collect them in buffers that grow, and
// what is in flight is counted in pieces.
inline constexpr size_t kSFTPReadPieceLength = 32 * 1024;
// Enough data in flight for 100 ms at 1 Gbit/s.
inline constexpr size_t kSFTPTransferWindowBytes = 16 * 1024 * 1024;

}  // namespace ombra
