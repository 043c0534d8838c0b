// Changes of names and attributes.
#include <fmt/format.h>

#include <utility>

#include "platform/foundation/ASCII.h"
#include "remote/ftp/FTPSession.h"

namespace ombra {

namespace {
// Within a server a folder may move from one disk to another, which takes its time.
constexpr int kPatienceForMoves = 10;
}  // namespace

bool FTPSession::createFolder(std::string_view path, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  return answer(iControl.ask("MKD " + std::string(path), error), FTPOperation::kMakeFolder, path, error);
}

bool FTPSession::createSymbolicLink(std::string_view path, std::string_view, NSErrorRef* error) {
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported, path));
  return false;
}

// The server would put what moves in the place of what has that name by now; whose that is nobody knows. The
// look costs nothing, since it travels with the first half of the move.
bool FTPSession::move(std::string_view from, bool /*isDirectory*/, std::string_view to, NSErrorRef* error) {
  if (!isUsablePath(from, error) || !isUsablePath(to, error)) return false;
  std::vector<std::string> commands;
  const std::string target(to);
  // A change of case is told by servers that do not care about it as a file in the way: the file itself.
  if (!equalIgnoringCase(from, to)) {
    commands = features().mlst ? std::vector<std::string>{"MLST " + target}
                               : std::vector<std::string>{"SIZE " + target, "CWD " + target};
  }
  commands.push_back("RNFR " + std::string(from));
  std::vector<FTPReply> replies;
  if (!askAll(commands, &replies, error)) return false;
  if (!replies.back().wantsMore() && !replies.back().isPositive()) {
    return answer(replies.back(), FTPOperation::kRename, from, error);
  }
  for (size_t i = 0; i + 1 < replies.size(); ++i) {
    if (!replies[i].isPositive()) continue;
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitItemExists, to));
    return false;
  }
  const FTPPatience patience{iEnvironment.idleLimit * kPatienceForMoves};
  return answer(iControl.ask("RNTO " + target, error, patience), FTPOperation::kRename, from, error, to);
}

bool FTPSession::remove(std::string_view path, bool isDirectory, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  const std::string command = (isDirectory ? "RMD " : "DELE ") + std::string(path);
  NSErrorRef reason;
  if (answer(iControl.ask(command, &reason), FTPOperation::kRemove, path, &reason)) return true;
  const bool mayHide = isDirectory && (QuarnKitError::isCode(reason, kQuarnKitFolderNotEmpty) ||
                                       QuarnKitError::isCode(reason, kQuarnKitRefused));
  if (mayHide && clearStaleTemporaries(path)) {
    return answer(iControl.ask(command, error), FTPOperation::kRemove, path, error);
  }
  storeError(error, std::move(reason));
  return false;
}

bool FTPSession::changeMode(uint16_t mode, std::string_view path, NSErrorRef* error) {
  if (iServer->refusesAllModes()) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitAttributeChangeNotSupported, path));
    return false;
  }
  const auto reply = iControl.ask(fmt::format("SITE CHMOD {:o} {}", mode, path), error);
  if (!reply) return false;
  if (reply->isPositive()) iServer->noteModeChange();
  // A server that has the command switched off says so of no item in particular.
  if (reply->isRefusal() && reply->text() == "Permission denied.") {
    iServer->noteModeRefusal();
    storeError(error, ftpError(kQuarnKitAttributeChangeNotSupported, path, *reply));
    return false;
  }
  return answer(reply, FTPOperation::kAttributes, path, error);
}

bool FTPSession::changeDate(NSDate date, std::string_view path, NSErrorRef* error) {
  const auto time = ftpTimeOfDate(date);
  if (!time || !features().mfmt) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitAttributeChangeNotSupported, path));
    return false;
  }
  return answer(iControl.ask(fmt::format("MFMT {} {}", *time, path), error), FTPOperation::kAttributes, path,
                error);
}

bool FTPSession::changeAttributes(const NSFileAttributes& attributes, std::string_view path,
                                  NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  const bool hasOwner = attributes.ownerAccountID || attributes.groupOwnerAccountID;
  const bool hasOthers = attributes.posixPermissions || attributes.modificationDate;
  // Nothing is changed where not all can be: owners have no command, nor has a date of creation alone.
  const bool hasLostDate = attributes.modificationDate && !features().mfmt;
  if (hasOwner || hasLostDate || (attributes.creationDate && !hasOthers)) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitAttributeChangeNotSupported, path));
    return false;
  }
  if (attributes.posixPermissions && !changeMode(*attributes.posixPermissions, path, error)) return false;
  return !attributes.modificationDate || changeDate(*attributes.modificationDate, path, error);
}

}  // namespace ombra
