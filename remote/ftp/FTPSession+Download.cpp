// Downloads.
#include <fmt/format.h>

#include <cerrno>
#include <memory>
#include <utility>

#include "remote/ftp/FTPReplyItems.h"
#include "remote/ftp/FTPSession.h"

namespace ombra {

namespace {

constexpr size_t kDownloadPiece = 256 * 1024;

// "size:date" of what MLST said; each part empty where it is not known.
std::string identityText(std::optional<uint64_t> size, std::optional<NSDate> date) {
  std::string text = size ? fmt::format("{}:", *size) : ":";
  if (date) text += fmt::format("{}", date->nanosecondsSince1970());
  return text;
}

}  // namespace

std::vector<std::string> FTPSession::questionsAbout(std::string_view path) const {
  const std::string whole(path);
  const FTPFeatures present = features();
  if (present.mlst) return {"MLST " + whole};
  return {"SIZE " + whole, "MDTM " + whole};
}

// What tells this state of the file from another; absent where the server says nothing of it.
std::optional<std::string> FTPSession::identity(const std::vector<FTPReply>& replies,
                                                std::optional<uint64_t>* size) {
  std::optional<NSDate> date;
  size->reset();
  if (replies.size() == 1) {
    const auto item = itemOfMLST(replies[0]);
    if (!item || item->entry.type != kNodeTypeFile) return std::nullopt;
    *size = item->entry.attributes.fileSize;
    date = item->entry.attributes.modificationDate;
  } else if (replies.size() == 2) {
    *size = sizeOfReply(replies[0]);
    date = dateOfReply(replies[1]);
  }
  if (!*size && !date) return std::nullopt;
  return identityText(*size, date);
}

// Before anything is added to what was there: it must still be the same file, and have more to give.
bool FTPSession::mayGoOn(std::string_view path, uint64_t offset, std::string* version,
                         std::optional<uint64_t>* size, NSErrorRef* error) {
  std::vector<std::string> questions = questionsAbout(path);
  // MLST may have told of a link itself.
  if (features().mlst) questions.push_back("SIZE " + std::string(path));
  std::vector<FTPReply> replies;
  if (!askAll(questions, &replies, error)) return false;
  const std::optional<uint64_t> followed = features().mlst ? sizeOfReply(replies.back()) : std::nullopt;
  if (features().mlst) replies.pop_back();
  const auto present = identity(replies, size);
  if (followed) *size = followed;
  const bool isOther = version != nullptr && !version->empty() && present && *present != *version;
  if (isOther || (*size && **size < offset)) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitItemChanged, path));
    return false;
  }
  if (version != nullptr && present) *version = *present;
  return true;
}

bool FTPSession::download(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                          TransferControl& control, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  std::optional<uint64_t> size;
  if (offset > 0) {
    if (!mayGoOn(path, offset, version, &size, error)) return false;
    if (size == offset) return true;
  }
  Request request;
  if (offset == 0) request.before = questionsAbout(path);
  request.restart = offset;
  request.command = "RETR " + std::string(path);
  request.operation = FTPOperation::kRead;
  request.path = path;
  request.control = &control;
  const auto receive = [&](Begun& begun, NSErrorRef* reason) {
    if (offset == 0) {
      const auto present = identity(begun.before, &size);
      if (version != nullptr) *version = present.value_or("");
    }
    uint64_t reached = offset;
    return receiveFile(*begun.transfer, to, &reached, control, reason) && isAll(path, reached, size, reason);
  };
  NSErrorRef reason;
  if (carryOut(request, receive, &reason)) return true;
  storeError(error, explain(std::move(reason), FTPOperation::kRead, path));
  return false;
}

bool FTPSession::receiveFile(FTPTransfer& transfer, NSFileHandle& to, uint64_t* reached,
                             TransferControl& control, NSErrorRef* error) {
  const auto buffer = std::make_unique_for_overwrite<std::byte[]>(kDownloadPiece);
  while (true) {
    size_t count = 0;
    if (!transfer.receive(buffer.get(), kDownloadPiece, &count, error)) return false;
    if (count == 0) return finish(transfer, error);
    if (!to.writeAll(buffer.get(), count, *reached)) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitLocalFailure, {},
                                                     NSError::errorWithDomain(NSPOSIXErrorDomain, errno)));
      return false;
    }
    *reached += count;
    control.progress(*reached);
  }
}

// An end that comes early may be the work of somebody on the way, or the file has been cut off meanwhile.
bool FTPSession::isAll(std::string_view path, uint64_t reached, std::optional<uint64_t> told,
                       NSErrorRef* error) {
  if (told && reached < *told && features().mlst) {
    // MLST may have told of a link itself.
    const auto reply = iControl.ask("SIZE " + std::string(path), error);
    if (!reply) return false;
    told = sizeOfReply(*reply).value_or(*told);
  }
  if (!told || reached >= *told) {
    askForPort();
    return true;
  }
  iControl.fail(QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "the data were cut short"));
  storeError(error, iControl.failure());
  return false;
}

}  // namespace ombra
