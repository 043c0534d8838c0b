// Uploads of whole files, and streams.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include "remote/ConfirmedUpload.h"
#include "remote/TemporaryNames.h"
#include "remote/ftp/FTPReplyItems.h"
#include "remote/ftp/FTPSession.h"

namespace ombra {

namespace {

constexpr size_t kUploadPiece = 256 * 1024;

// A refusal of the name, not of the moment or of the amount.
bool refusesName(const NSErrorRef& error) {
  for (const QuarnKitErrorCode code :
       {kQuarnKitConnectionLost, kQuarnKitTimedOut, kQuarnKitCancelled, kQuarnKitOutOfSpace,
        kQuarnKitLocalFailure, kQuarnKitReadOnly, kQuarnKitProtocolError}) {
    if (QuarnKitError::isCode(error, code)) return false;
  }
  return true;
}

}  // namespace

// What has the name that a file is to get.
struct FTPSession::Existing {
  enum class Kind { kUnknown, kMissing, kFile, kOther } kind = Kind::kUnknown;
  std::optional<uint16_t> mode{};
  bool mayBeWritten = true;
  bool hasOtherNames = false;
};

bool FTPSession::upload(NSFileHandle& from, std::string_view path, uint64_t offset, TransferControl& control,
                        NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  if (offset > 0) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported, path));
    return false;
  }
  const uint64_t length = from.fileLength();
  ConfirmedUpload confirmed(from, length);
  NSErrorRef reason;
  Stored stored = Stored::kInPlace;
  // Of an empty file nothing can get lost on its way.
  if (length > 0 && mayStoreBeside()) {
    stored = storeBeside(from, length, path, control, &reason);
  }
  if (stored == Stored::kInPlace) {
    reason = nullptr;
    stored = storeInPlace(from, length, path, control, &reason) ? Stored::kYes : Stored::kNo;
  }
  if (confirmed.stored(stored == Stored::kYes)) return true;
  storeError(error, explain(std::move(reason), FTPOperation::kStore, path));
  return false;
}

bool FTPSession::sendFile(FTPTransfer& transfer, const NSFileHandle& from, uint64_t length,
                          TransferControl& control, NSErrorRef* error) {
  const auto buffer = std::make_unique_for_overwrite<std::byte[]>(
      static_cast<size_t>(std::min<uint64_t>(std::max<uint64_t>(length, 1), kUploadPiece)));
  uint64_t at = 0;
  while (at < length) {
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(length - at, kUploadPiece));
    const ssize_t count = from.readAt(buffer.get(), wanted, at);
    if (count < 0) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitLocalFailure, {},
                                                     NSError::errorWithDomain(NSPOSIXErrorDomain, errno)));
      return false;
    }
    // Cut off while it was read: it ends where it ends.
    if (count == 0) break;
    if (!transfer.send(buffer.get(), static_cast<size_t>(count), error)) return false;
    at += static_cast<uint64_t>(count);
    control.progress(at);
  }
  return finish(transfer, error);
}

FTPSession::Request FTPSession::requestToStore(std::string_view at, std::string_view path,
                                               TransferControl& control) {
  Request request;
  request.command = "STOR " + std::string(at);
  request.operation = FTPOperation::kStore;
  request.path = path;
  request.control = &control;
  return request;
}

bool FTPSession::storeInPlace(const NSFileHandle& from, uint64_t length, std::string_view path,
                              TransferControl& control, NSErrorRef* error) {
  const auto send = [&](Begun& begun, NSErrorRef* reason) {
    return sendFile(*begun.transfer, from, length, control, reason);
  };
  if (!carryOut(requestToStore(path, path, control), send, error)) return false;
  askForPort();
  return true;
}

std::vector<std::string> FTPSession::questionsAboutExisting(std::string_view path) const {
  if (features().mlst) return {"MLST " + std::string(path)};
  if (iServer->stats() != FTPServer::Answer::kNo) return {"STAT " + std::string(path)};
  return {};
}

std::vector<std::string> FTPSession::questionsBeforeReplacing(std::string_view path) const {
  std::vector<std::string> questions = questionsAboutExisting(path);
  if (features().mlst && features().size) questions.push_back("SIZE " + std::string(path));
  return questions;
}

FTPSession::Existing FTPSession::readExisting(std::string_view path, const std::vector<FTPReply>& replies) {
  Existing result;
  if (replies.empty()) return result;
  const FTPReply& reply = replies.front();
  std::optional<FTPItem> item;
  if (features().mlst) {
    if (reply.isUnknownCommand()) return result;
    item = itemOfMLST(reply);
  } else {
    if (reply.isUnknownCommand()) iServer->setStats(FTPServer::Answer::kNo);
    item = itemOfSTAT(reply, path, NSDate::date());
    // A file that is not there and a command that tells nothing look alike.
    if (!item) return result;
    iServer->setStats(FTPServer::Answer::kYes);
  }
  result.kind = Existing::Kind::kMissing;
  if (!item) return result;
  // Some servers tell of a link as of a file that is as long as the link's text; SIZE follows it.
  const std::optional<uint64_t> followed = replies.size() > 1 ? sizeOfReply(replies[1]) : std::nullopt;
  const std::optional<uint64_t> told = item->entry.attributes.fileSize;
  const bool isLink = followed && told && *followed != *told;
  const bool isFile = item->entry.type == kNodeTypeFile && item->kind == FTPItem::Kind::kItem && !isLink;
  result.kind = isFile ? Existing::Kind::kFile : Existing::Kind::kOther;
  result.mode = item->entry.attributes.posixPermissions;
  result.hasOtherNames = item->links > 1;
  const bool isLocked = result.mode && (*result.mode & 0222) == 0;
  const bool isRefused = item->tellsPermissions && item->permissions.find('w') == std::string::npos;
  result.mayBeWritten = !isLocked && !isRefused;
  return result;
}

bool FTPSession::mayStoreBeside() const {
  if (iServer->usesTemporaries() == FTPServer::Answer::kNo) return false;
  // Where nothing tells whether there is a file to be replaced, that must be possible.
  const bool isToldOfFiles = features().mlst || iServer->stats() != FTPServer::Answer::kNo;
  return isToldOfFiles || iServer->renamesOver() != FTPServer::Answer::kNo;
}

// Replacing these would change more than their content, or is known not to work.
bool FTPSession::mustGoInPlace(const Existing& existing) const {
  if (existing.kind == Existing::Kind::kMissing) return false;
  if (existing.kind == Existing::Kind::kOther || !existing.mayBeWritten || existing.hasOtherNames)
    return true;
  if (iServer->renamesOver() == FTPServer::Answer::kNo) return true;
  const auto fresh = iServer->modeOfNewFiles();
  return existing.mode && iServer->changesModes() == FTPServer::Answer::kNo && fresh &&
         *fresh != *existing.mode;
}

FTPSession::Stored FTPSession::storeBeside(const NSFileHandle& from, uint64_t length, std::string_view path,
                                           TransferControl& control, NSErrorRef* error) {
  const std::string temporary = temporaryPathBeside(path);
  Request request = requestToStore(temporary, path, control);
  request.before = questionsBeforeReplacing(path);
  request.makes = temporary;
  Existing present;
  bool goesInPlace = false;
  bool mayBeThere = false;  // the temporary file
  const auto send = [&](Begun& begun, NSErrorRef* reason) {
    FTPTransfer& transfer = *begun.transfer;
    present = readExisting(path, begun.before);
    if (mustGoInPlace(present)) {
      mayBeThere = transfer.establish(reason);
      goesInPlace = mayBeThere || refusesName(*reason);
      return mayBeThere;
    }
    if (sendFile(transfer, from, length, control, reason)) return true;
    // Some servers take no names with a dot, or no new names at all in that folder.
    const auto& reply = transfer.reply();
    goesInPlace = !transfer.hasStarted() && reply && reply->code >= 500 && refusesName(*reason);
    mayBeThere = !goesInPlace;
    return false;
  };
  NSErrorRef reason;
  if (carryOut(request, send, &reason) && !goesInPlace) {
    const Stored stored = replace(temporary, path, present, error);
    askForPort();
    return stored;
  }
  if (mayBeThere || iControl.failure() != nullptr) dropTemporary(temporary);
  if (goesInPlace) return Stored::kInPlace;
  storeError(error, std::move(reason));
  return Stored::kNo;
}

void FTPSession::dropTemporary(const std::string& temporary) {
  if (iControl.failure() == nullptr) {
    iControl.queue("DELE " + temporary);
    const bool isSent = iControl.flush(nullptr);
    iControl.abandon();
    if (isSent) return;
  }
  iServer->leftovers().add(temporary);
}

std::optional<uint16_t> FTPSession::modeOfNewFile(const std::string& path) {
  std::vector<FTPReply> replies;
  const auto questions = questionsAboutExisting(path);
  if (questions.empty() || !askAll(questions, &replies, nullptr)) return std::nullopt;
  const auto mode = readExisting(path, replies).mode;
  if (mode) iServer->setModeOfNewFiles(*mode);
  return mode;
}

// Gives the temporary file the mode of what it replaces. Where the server has shown that it can, the command
// is only put among those that go `ahead` of the rename.
FTPSession::Stored FTPSession::keepMode(const std::string& temporary, const Existing& existing,
                                        std::vector<std::string>* ahead, NSErrorRef* error) {
  if (!existing.mode || existing.mode == iServer->modeOfNewFiles()) return Stored::kYes;
  const std::string command = fmt::format("SITE CHMOD {:o} {}", *existing.mode, temporary);
  if (iServer->changesModes() == FTPServer::Answer::kYes) {
    ahead->push_back(command);
    return Stored::kYes;
  }
  if (iServer->changesModes() == FTPServer::Answer::kUnknown) {
    const auto reply = iControl.ask(command, error);
    if (!reply) return Stored::kNo;
    iServer->setChangesModes(reply->isPositive() ? FTPServer::Answer::kYes : FTPServer::Answer::kNo);
    if (reply->isPositive()) return Stored::kYes;
  }
  if (modeOfNewFile(temporary) == existing.mode) return Stored::kYes;
  if (iControl.failure() == nullptr) return Stored::kInPlace;
  storeError(error, iControl.failure());
  return Stored::kNo;
}

FTPSession::Stored FTPSession::replace(const std::string& temporary, std::string_view path,
                                       const Existing& existing, NSErrorRef* error) {
  std::vector<std::string> commands;
  if (const Stored kept = keepMode(temporary, existing, &commands, error); kept != Stored::kYes) {
    dropTemporary(temporary);
    return kept;
  }
  commands.insert(commands.end(), {"RNFR " + temporary, "RNTO " + std::string(path)});
  std::vector<FTPReply> replies;
  if (!askAll(commands, &replies, error)) {
    iServer->leftovers().add(temporary);
    return Stored::kNo;
  }
  if (replies.back().isPositive()) {
    return Stored::kYes;
  }
  // It is complete, but cannot take its place. What is known of the server now spares it the next time.
  if (existing.kind == Existing::Kind::kMissing) {
    iServer->setUsesTemporaries(FTPServer::Answer::kNo);
  } else {
    iServer->setRenamesOver(FTPServer::Answer::kNo);
  }
  dropTemporary(temporary);
  return Stored::kInPlace;
}

bool FTPSession::stream(const std::function<size_t(std::byte*, size_t)>& next, std::string_view path,
                        TransferControl& control, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  Request request = requestToStore(path, path, control);
  // What was taken from the writer, which is not before the server has agreed, cannot be had again.
  request.startsAgain = false;
  const auto send = [&](Begun& begun, NSErrorRef* reason) {
    return sendStream(next, *begun.transfer, path, control, reason);
  };
  NSErrorRef reason;
  if (carryOut(request, send, &reason)) {
    askForPort();
    return true;
  }
  storeError(error, explain(std::move(reason), FTPOperation::kStore, path));
  return false;
}

bool FTPSession::sendStream(const std::function<size_t(std::byte*, size_t)>& next, FTPTransfer& transfer,
                            std::string_view path, TransferControl& control, NSErrorRef* error) {
  // Before the first byte is taken from the writer: what was not taken can be sent by another session.
  if (!transfer.start(error)) return false;
  const auto buffer = std::make_unique_for_overwrite<std::byte[]>(kUploadPiece);
  for (uint64_t at = 0;;) {
    const size_t count = std::min(next(buffer.get(), kUploadPiece), kUploadPiece);
    transfer.touch();
    if (control.shouldCancel()) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitCancelled, path));
      return false;
    }
    if (count == 0) return finish(transfer, error);
    if (!transfer.send(buffer.get(), count, error)) return false;
    at += count;
    control.progress(at);
  }
}

}  // namespace ombra
