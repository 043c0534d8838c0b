// Numbers of the connection library: node types, protocol codes, error codes.
#pragma once

#include <cstdint>
#include <string_view>

namespace ombra {

// A four-character code, most significant byte first.
constexpr uint32_t fourCharacterCode(const char (&text)[5]) {
  return static_cast<uint32_t>(static_cast<unsigned char>(text[0])) << 24 |
         static_cast<uint32_t>(static_cast<unsigned char>(text[1])) << 16 |
         static_cast<uint32_t>(static_cast<unsigned char>(text[2])) << 8 |
         static_cast<uint32_t>(static_cast<unsigned char>(text[3]));
}

inline constexpr uint32_t kNodeTypeFile = fourCharacterCode("file");
inline constexpr uint32_t kNodeTypeFolder = fourCharacterCode("fold");
inline constexpr uint32_t kNodeTypeAlias = fourCharacterCode("alis");

inline constexpr uint32_t kProtocolSFTP = fourCharacterCode("SFTP");
inline constexpr uint32_t kProtocolFTP = fourCharacterCode("FTP ");
inline constexpr uint32_t kProtocolFTPImplicitTLS = fourCharacterCode("FTPS");
inline constexpr uint32_t kProtocolFTPExplicitTLS = fourCharacterCode("FTPE");
inline constexpr uint32_t kProtocolWebDAV = fourCharacterCode("DAV ");
inline constexpr uint32_t kProtocolWebDAVTLS = fourCharacterCode("DAVS");
inline constexpr uint32_t kProtocolS3 = fourCharacterCode("S3  ");
inline constexpr uint32_t kProtocolFile = fourCharacterCode("FILE");

inline constexpr std::string_view kQuarnKitErrorDomain = "QuarnKitErrorDomain";

// Codes in kQuarnKitErrorDomain.
enum QuarnKitErrorCode : int {
  kQuarnKitListingNotPermitted = 9,           // the folder exists, its contents may not be read
  kQuarnKitNoSuchItem = 14,                   // the item, or a folder on the way to it, does not exist
  kQuarnKitAttributeChangeNotSupported = 17,  // the protocol or the server has no way to make this change
  kQuarnKitLockFailed = 22,                   // made by the program for a failed pass-through lock
  kQuarnKitCouldNotResolveHost = 101,
  kQuarnKitCouldNotConnect = 102,  // refused, unreachable, or no greeting in time
  kQuarnKitLoginFailed = 103,      // the server took none of the credentials
  kQuarnKitUntrusted = 104,        // the key contradicts the accepted fingerprint: reported as a failed login
  kQuarnKitConnectionLost = 105,   // the session ended in the middle
  kQuarnKitTimedOut = 106,         // no byte in either direction for the limit
  kQuarnKitCancelled = 107,        // setShouldCancel: was obeyed
  kQuarnKitOutOfSpace = 108,       // disk or quota of the server is full
  kQuarnKitItemExists = 109,
  kQuarnKitFolderNotEmpty = 110,
  kQuarnKitPermissionDenied = 111,    // the server refuses this user
  kQuarnKitRefused = 112,             // the server refuses without telling why
  kQuarnKitProtocolError = 113,       // the server's answer makes no sense
  kQuarnKitTooManyConnections = 114,  // the server takes no further session now
  kQuarnKitNotSupported = 115,        // the protocol has no such operation
  kQuarnKitLocalFailure = 116,        // a local file could not be read or written; the errno lies beneath
  kQuarnKitItemChanged = 117,         // the remote file changed in the middle of a resumed transfer
  kQuarnKitNotAFolder = 118,
  kQuarnKitNameInvalid = 119,  // a name that the protocol cannot carry
  kQuarnKitReadOnly = 120,     // the server's file system is read-only
};

}  // namespace ombra
