#include "remote/ftp/FTPErrors.h"

#include <fmt/format.h>

#include "remote/ftp/FTPText.h"

namespace ombra {

namespace {

struct RefusalPhrase {
  std::string_view words;  // lower case
  QuarnKitErrorCode code;
};

// In this order: "doesn't exist" before "exist". Texts of Unix's error numbers, of Windows, and of servers
// that write their own.
constexpr RefusalPhrase kRefusalPhrases[] = {
    {"no such file", kQuarnKitNoSuchItem},
    {"no such directory", kQuarnKitNoSuchItem},
    {"no such folder", kQuarnKitNoSuchItem},
    {"not found", kQuarnKitNoSuchItem},
    {"cannot find", kQuarnKitNoSuchItem},
    {"can't find", kQuarnKitNoSuchItem},
    {"not exist", kQuarnKitNoSuchItem},
    {"n't exist", kQuarnKitNoSuchItem},
    {"not empty", kQuarnKitFolderNotEmpty},
    {"exist", kQuarnKitItemExists},
    {"no space", kQuarnKitOutOfSpace},
    {"disk full", kQuarnKitOutOfSpace},
    {"enough space", kQuarnKitOutOfSpace},
    {"quota", kQuarnKitOutOfSpace},
    {"read-only file system", kQuarnKitReadOnly},
    {"name too long", kQuarnKitNameInvalid},
    {"invalid filename", kQuarnKitNameInvalid},
    {"illegal filename", kQuarnKitNameInvalid},
    {"name is invalid", kQuarnKitNameInvalid},
    {"not a directory", kQuarnKitNotAFolder},
    {"permission denied", kQuarnKitPermissionDenied},
    {"not permitted", kQuarnKitPermissionDenied},
    {"access is denied", kQuarnKitPermissionDenied},
    {"access denied", kQuarnKitPermissionDenied},
    {"insufficient privilege", kQuarnKitPermissionDenied},
};

void eraseAll(std::string* text, std::string_view part) {
  if (part.size() < 2) return;
  for (size_t at = text->find(part); at != std::string::npos; at = text->find(part, at)) {
    text->erase(at, part.size());
  }
}

std::string textWithoutPath(const FTPReply& reply, std::string_view path) {
  std::string text;
  for (const std::string& line : reply.lines) text.append(line).append(" ");
  eraseAll(&text, path);
  const size_t slash = path.rfind('/');
  if (slash != std::string_view::npos) eraseAll(&text, path.substr(slash + 1));
  return text;
}

QuarnKitErrorCode codeForPhrases(std::string_view text) {
  for (const RefusalPhrase& phrase : kRefusalPhrases) {
    if (ftpContains(text, phrase.words)) return phrase.code;
  }
  return kQuarnKitRefused;
}

}  // namespace

QuarnKitErrorCode codeForFTPRefusal(const FTPReply& reply, FTPOperation operation, std::string_view path) {
  if (reply.code == 421) return kQuarnKitConnectionLost;
  if (reply.code == 452 || reply.code == 552) return kQuarnKitOutOfSpace;
  if (reply.code == 530 || reply.code == 532) return kQuarnKitPermissionDenied;
  // The data connection broke, or never came about: another session may have more luck. 522 is said to one
  // whose TLS session has grown too old to be resumed.
  if (reply.code == 425 || reply.code == 426 || reply.code == 522) return kQuarnKitConnectionLost;
  if (reply.isUnknownCommand()) {
    return operation == FTPOperation::kAttributes ? kQuarnKitAttributeChangeNotSupported
                                                  : kQuarnKitNotSupported;
  }
  const QuarnKitErrorCode code = codeForPhrases(textWithoutPath(reply, path));
  const bool isListing = operation == FTPOperation::kList;
  return isListing && code == kQuarnKitPermissionDenied ? kQuarnKitListingNotPermitted : code;
}

NSErrorRef ftpError(QuarnKitErrorCode code, std::string_view path, const FTPReply& reply) {
  return QuarnKitError::errorWithCode(code, fmt::format("{} ({})", path, reply.description()));
}

NSErrorRef errorForFTPReply(const FTPReply& reply, FTPOperation operation, std::string_view path) {
  return ftpError(codeForFTPRefusal(reply, operation, path), path, reply);
}

NSErrorRef ftpProtocolError(std::string_view what) {
  return QuarnKitError::errorWithCode(kQuarnKitProtocolError, what);
}

bool isTooManyFTPSessions(const FTPReply& reply) {
  if (reply.code == 421) return true;
  if (!reply.isRefusal()) return false;
  for (const std::string& line : reply.lines) {
    for (const std::string_view words : {"too many", "maximum number", "max number", "max connections",
                                         "already connected", "connection limit", "connections from",
                                         "clients are", "users are", "login limit", "sessions from"}) {
      if (ftpContains(line, words)) return true;
    }
  }
  return false;
}

}  // namespace ombra
