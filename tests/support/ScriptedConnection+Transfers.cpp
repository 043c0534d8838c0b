// Transfers of the scripted connection.
#include <fcntl.h>

#include <algorithm>

#include "tests/support/ScriptedConnection.h"

namespace ombra {
namespace {

CallVerdict failed(QuarnKitErrorCode code, std::string_view detail) {
  CallVerdict verdict;
  verdict.fails = true;
  verdict.error = QuarnKitError::errorWithCode(code, detail);
  return verdict;
}

}  // namespace

void ScriptedConnection::setShouldCancel(bool shouldCancel) {
  (void)iState->begin(iNumber, "setShouldCancel", {shouldCancel ? "1" : "0"}, kAnyPath);
  iShouldCancel = shouldCancel;
  iState->pokeHolds();
}

CallVerdict ScriptedConnection::beginTransfer(Course& course, std::vector<std::string> arguments,
                                              std::string_view name, std::vector<FileExtent> extents) {
  iShouldCancel = false;
  ScriptedTransfer record;
  record.operation = course.operation;
  record.path = course.path;
  record.name = name;
  record.byteOffset = course.offset;
  record.extents = std::move(extents);
  course.transfer = iState->beginTransfer(std::move(record), this);
  return iState->begin(iNumber, course.operation, std::move(arguments), course.path, &iShouldCancel);
}

CallVerdict ScriptedConnection::stopOver(const Course& course) {
  CallVerdict verdict;
  if (course.moved != 0) {
    verdict = iState->reach(course.operation, course.path, course.moved, &iShouldCancel);
  } else if (iShouldCancel) {
    verdict = failed(kQuarnKitCancelled, course.path);
  }
  if (verdict.fails) return verdict;
  if (const std::optional<NSErrorRef> error =
          iState->errorAfter(course.operation, course.path, course.moved)) {
    verdict.fails = true;
    verdict.error = *error;
  }
  return verdict;
}

void ScriptedConnection::moved(Course& course, std::string_view bytes) {
  course.moved += bytes.size();
  iState->addPiece(course.transfer, bytes, course.offset + course.moved);
}

CallVerdict ScriptedConnection::finish(const Course& course, CallVerdict verdict,
                                       uint64_t* bytesTransferred) {
  if (!verdict.fails) {
    const CallVerdict end = iState->reach(course.operation, course.path, kAtEnd, &iShouldCancel);
    if (end.fails) verdict = end;
  }
  if (bytesTransferred != nullptr) *bytesTransferred = course.offset + course.moved;
  return verdict;
}

CallVerdict ScriptedConnection::deliver(Course& course, const std::string& content, NSFileHandle& handle) {
  CallVerdict verdict = stopOver(course);
  while (!verdict.fails && course.offset + course.moved < content.size()) {
    const uint64_t from = course.offset + course.moved;
    const uint64_t stop = iState->nextStop(course.operation, course.path, course.moved) - course.moved;
    const auto count =
        static_cast<size_t>(std::min<uint64_t>({iState->iChunkSize.load(), content.size() - from, stop}));
    const std::string_view piece = std::string_view(content).substr(static_cast<size_t>(from), count);
    if (!handle.writeAll(piece.data(), piece.size(), from)) return failed(kQuarnKitLocalFailure, course.path);
    moved(course, piece);
    if (ConnectionDelegate* delegate = iDelegate)
      delegate->connection(*this, course.offset + course.moved, 0.0, false);
    verdict = stopOver(course);
  }
  return verdict;
}

bool ScriptedConnection::downloadFileAtPath(std::string_view path, NSFileHandle& toFileHandle,
                                            uint64_t byteOffset, uint64_t* bytesTransferred,
                                            NSErrorRef* error) {
  iState->iLastTookAhead = iTakesAhead;
  Course course{"downloadFileAtPath", std::string(path), byteOffset, 0, 0};
  CallVerdict verdict = beginTransfer(course, {course.path, std::to_string(byteOffset)}, {}, {});
  std::string content;
  if (!verdict.fails) {
    WatchedLock lock(iState->iCondition);
    const std::optional<std::string> resolved = iState->iTree.resolve(path);
    const ScriptedItem* item = resolved ? iState->iTree.find(*resolved) : nullptr;
    if (item == nullptr) {
      verdict = failed(kQuarnKitNoSuchItem, path);
    } else if (item->type != kNodeTypeFile) {
      verdict = failed(kQuarnKitRefused, path);
    } else {
      content = item->content;
    }
  }
  const NSErrorRef sideError = verdict.sideError;
  if (!verdict.fails) verdict = deliver(course, content, toFileHandle);
  verdict = finish(course, verdict, bytesTransferred);
  iState->finishTransfer(course.transfer, !verdict.fails, verdict.error);
  verdict.sideError = sideError;
  return settle(verdict, error);
}

CallVerdict ScriptedConnection::take(Course& course, NSFileHandle& handle) {
  CallVerdict verdict = stopOver(course);
  std::string buffer;
  while (!verdict.fails) {
    const uint64_t from = course.offset + course.moved;
    const uint64_t stop = iState->nextStop(course.operation, course.path, course.moved) - course.moved;
    buffer.resize(static_cast<size_t>(std::min<uint64_t>(iState->iChunkSize, stop)));
    const ssize_t count = handle.readAt(buffer.data(), buffer.size(), from);
    if (count < 0) return failed(kQuarnKitLocalFailure, course.path);
    if (count == 0) break;
    moved(course, std::string_view(buffer.data(), static_cast<size_t>(count)));
    if (ConnectionDelegate* delegate = iDelegate)
      delegate->connection(*this, course.offset + course.moved, 0.0, false);
    verdict = stopOver(course);
  }
  return verdict;
}

void ScriptedConnection::storeUploaded(const Course& course) {
  WatchedLock lock(iState->iCondition);
  const std::string bytes = iState->iTransfers[course.transfer].record.bytes;
  const std::string path = iState->iTree.resolve(course.path).value_or(course.path);
  ScriptedItem* item = iState->iTree.find(path);
  if (item == nullptr) item = &iState->iTree.add(path, kNodeTypeFile);
  if (course.offset == 0) {
    item->content = bytes;
    if (bytes.empty()) iState->iListings.madeFile(path, std::nullopt);
    return;
  }
  const auto end = static_cast<size_t>(course.offset + bytes.size());
  if (item->content.size() < end) item->content.resize(end, '\0');
  item->content.replace(static_cast<size_t>(course.offset), bytes.size(), bytes);
}

bool ScriptedConnection::upload(Course& course, CallVerdict verdict, NSFileHandle& handle,
                                uint64_t* bytesTransferred, NSErrorRef* error) {
  const NSErrorRef sideError = verdict.sideError;
  if (!verdict.fails) verdict = take(course, handle);
  verdict = finish(course, verdict, bytesTransferred);
  if (!verdict.fails) {
    storeUploaded(course);
    if (handle.isScratch()) handle.noteConfirmed({course.offset, course.offset + course.moved});
  }
  iState->finishTransfer(course.transfer, !verdict.fails, verdict.error);
  verdict.sideError = sideError;
  return settle(verdict, error);
}

bool ScriptedConnection::uploadFileHandle(NSFileHandle& fileHandle, std::string_view withFilename,
                                          std::string_view toPath, uint64_t byteOffset,
                                          uint64_t* bytesTransferred, NSErrorRef* error) {
  Course course{"uploadFileHandle", std::string(toPath), byteOffset, 0, 0};
  std::vector<FileExtent> extents;
  if (fileHandle.isScratch()) extents = fileHandle.unconfirmedExtents(byteOffset);
  const CallVerdict verdict =
      beginTransfer(course, {course.path, std::string(withFilename), std::to_string(byteOffset)},
                    withFilename, std::move(extents));
  return upload(course, verdict, fileHandle, bytesTransferred, error);
}

bool ScriptedConnection::uploadFileAtPath(const std::string& localPath, std::string_view toPath,
                                          uint64_t byteOffset, uint64_t* bytesTransferred,
                                          NSErrorRef* error) {
  Course course{"uploadFileAtPath", std::string(toPath), byteOffset, 0, 0};
  CallVerdict verdict =
      beginTransfer(course, {course.path, localPath, std::to_string(byteOffset)}, localPath, {});
  const int descriptor = verdict.fails ? -1 : open(localPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    if (!verdict.fails) verdict = failed(kQuarnKitLocalFailure, localPath);
    verdict = finish(course, verdict, bytesTransferred);
    iState->finishTransfer(course.transfer, false, verdict.error);
    return settle(verdict, error);
  }
  NSFileHandle handle(descriptor);
  return upload(course, verdict, handle, bytesTransferred, error);
}

CallVerdict ScriptedConnection::pull(Course& course, ConnectionDelegate& handler) {
  CallVerdict verdict = stopOver(course);
  std::string buffer;
  while (!verdict.fails) {
    const uint64_t stop = iState->nextStop(course.operation, course.path, course.moved) - course.moved;
    buffer.resize(static_cast<size_t>(std::min<uint64_t>(iState->iStreamCapacity, stop)));
    const size_t count =
        handler.connection(*this, reinterpret_cast<std::byte*>(buffer.data()), buffer.size());
    if (count > buffer.size()) return failed(kQuarnKitProtocolError, "the handler gave more than fits");
    moved(course, std::string_view(buffer.data(), count));
    if (iShouldCancel) return failed(kQuarnKitCancelled, course.path);
    if (count == 0) break;
    verdict = stopOver(course);
  }
  return verdict;
}

bool ScriptedConnection::streamBytesWithFilename(std::string_view filename, std::string_view toPath,
                                                 ConnectionDelegate& handler, NSErrorRef* error) {
  Course course{"streamBytesWithFilename", std::string(toPath), 0, 0, 0};
  CallVerdict verdict = beginTransfer(course, {course.path, std::string(filename)}, filename, {});
  const NSErrorRef sideError = verdict.sideError;
  if (!verdict.fails) verdict = pull(course, handler);
  verdict = finish(course, verdict, nullptr);
  if (!verdict.fails) storeUploaded(course);
  iState->finishTransfer(course.transfer, !verdict.fails, verdict.error);
  verdict.sideError = sideError;
  return settle(verdict, error);
}

}  // namespace ombra
