#include "remote/sftp/SFTPErrors.h"

#include <fmt/format.h>

#include "platform/foundation/ASCII.h"
#include "remote/sftp/SFTPProtocol.h"

namespace ombra {

namespace {

struct StatusRow {
  uint32_t status;
  SFTPOperation operation;  // kOther stands for all that have no row of their own
  QuarnKitErrorCode code;
};

constexpr StatusRow kStatusRows[] = {
    {kSFTPStatusNoSuchFile, SFTPOperation::kOther, kQuarnKitNoSuchItem},
    {kSFTPStatusPermissionDenied, SFTPOperation::kList, kQuarnKitListingNotPermitted},
    {kSFTPStatusPermissionDenied, SFTPOperation::kOther, kQuarnKitPermissionDenied},
    // OpenSSH's server turns ENAMETOOLONG and EINVAL into this.
    {kSFTPStatusBadMessage, SFTPOperation::kChangeName, kQuarnKitNameInvalid},
    {kSFTPStatusNoConnection, SFTPOperation::kOther, kQuarnKitConnectionLost},
    {kSFTPStatusConnectionLost, SFTPOperation::kOther, kQuarnKitConnectionLost},
    {kSFTPStatusOpUnsupported, SFTPOperation::kSetAttributes, kQuarnKitAttributeChangeNotSupported},
    {kSFTPStatusOpUnsupported, SFTPOperation::kOther, kQuarnKitNotSupported},
    {kSFTPStatusFileAlreadyExists, SFTPOperation::kOther, kQuarnKitItemExists},
    {kSFTPStatusWriteProtect, SFTPOperation::kOther, kQuarnKitReadOnly},
    {kSFTPStatusNoSpaceOnFilesystem, SFTPOperation::kOther, kQuarnKitOutOfSpace},
    {kSFTPStatusQuotaExceeded, SFTPOperation::kOther, kQuarnKitOutOfSpace},
    {kSFTPStatusDirNotEmpty, SFTPOperation::kOther, kQuarnKitFolderNotEmpty},
    {kSFTPStatusNotADirectory, SFTPOperation::kOther, kQuarnKitNotAFolder},
    {kSFTPStatusInvalidFilename, SFTPOperation::kOther, kQuarnKitNameInvalid},
};

struct TextRow {
  std::string_view text;  // lower case
  QuarnKitErrorCode code;
};

constexpr TextRow kTextRows[] = {
    {"no space left", kQuarnKitOutOfSpace},
    {"enospc", kQuarnKitOutOfSpace},
    {"disk full", kQuarnKitOutOfSpace},
    {"quota", kQuarnKitOutOfSpace},
    {"edquot", kQuarnKitOutOfSpace},
    {"not empty", kQuarnKitFolderNotEmpty},
    {"enotempty", kQuarnKitFolderNotEmpty},
    {"already exists", kQuarnKitItemExists},
    {"file exists", kQuarnKitItemExists},
    {"eexist", kQuarnKitItemExists},
    {"read-only", kQuarnKitReadOnly},
    {"erofs", kQuarnKitReadOnly},
    {"not a directory", kQuarnKitNotAFolder},
    {"enotdir", kQuarnKitNotAFolder},
    {"name too long", kQuarnKitNameInvalid},
    {"enametoolong", kQuarnKitNameInvalid},
    {"no such file", kQuarnKitNoSuchItem},
    {"enoent", kQuarnKitNoSuchItem},
    {"permission denied", kQuarnKitPermissionDenied},
    {"access denied", kQuarnKitPermissionDenied},
    {"eacces", kQuarnKitPermissionDenied},
    {"not supported", kQuarnKitNotSupported},
};

QuarnKitErrorCode codeForText(std::string_view message, SFTPOperation operation) {
  const std::string text = lowercasedASCII(message);
  for (const TextRow& row : kTextRows) {
    if (text.find(row.text) == std::string::npos) continue;
    if (row.code == kQuarnKitPermissionDenied && operation == SFTPOperation::kList)
      return kQuarnKitListingNotPermitted;
    if (row.code == kQuarnKitNotSupported && operation == SFTPOperation::kSetAttributes) break;
    return row.code;
  }
  return operation == SFTPOperation::kSetAttributes ? kQuarnKitAttributeChangeNotSupported : kQuarnKitRefused;
}

}  // namespace

QuarnKitErrorCode codeForSFTPStatus(const SFTPStatus& status, SFTPOperation operation) {
  const StatusRow* general = nullptr;
  for (const StatusRow& row : kStatusRows) {
    if (row.status != status.code) continue;
    if (row.operation == operation) return row.code;
    if (row.operation == SFTPOperation::kOther) general = &row;
  }
  return general != nullptr ? general->code : codeForText(status.message, operation);
}

NSErrorRef errorForSFTPStatus(const SFTPStatus& status, SFTPOperation operation, std::string_view path) {
  const std::string words = status.message.empty() ? std::string("no text") : status.message;
  return QuarnKitError::errorWithCode(codeForSFTPStatus(status, operation),
                                      fmt::format("{} (server: {}, status {})", path, words, status.code));
}

NSErrorRef sftpProtocolError(std::string_view what) {
  return QuarnKitError::errorWithCode(kQuarnKitProtocolError, what);
}

}  // namespace ombra
