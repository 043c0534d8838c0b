// Downloads, uploads and streams.
#include <algorithm>

#include "remote/ConfirmedUpload.h"
#include "remote/QuarnKitError.h"
#include "remote/s3/S3Body.h"
#include "remote/s3/S3Digest.h"
#include "remote/s3/S3Download.h"
#include "remote/s3/S3Errors.h"
#include "remote/s3/S3MultipartUpload.h"
#include "remote/s3/S3PartBuffer.h"
#include "remote/s3/S3PartSenders.h"
#include "remote/s3/S3PartSizes.h"
#include "remote/s3/S3Session.h"

namespace ombra {
namespace {

// Is stored before anybody would want to see the file without it.
constexpr uint64_t kMostContentAtOnce = uint64_t{1} << 20;

const HTTPHeader kAnyContent{"Content-Type", "application/octet-stream"};

bool failCancelled(std::string_view path, NSErrorRef* error) {
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitCancelled, path));
  return false;
}

// For an object without content yet.
S3Request putRequest(const S3Path& path, TransferControl* control) {
  S3Request request;
  request.method = "PUT";
  request.bucket = path.bucket;
  request.key = path.key;
  request.headers = {kAnyContent};
  request.body.emplace();
  request.control = control;
  return request;
}

// A request whose body failed says that it was cancelled: the file knows better.
bool failWith(const S3FileBody& body, NSErrorRef* error) {
  if (body.failure() != nullptr) storeError(error, body.failure());
  return false;
}

}  // namespace

bool S3Session::download(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                         TransferControl& control, NSErrorRef* error) {
  const S3Path object = S3Path::parse(path);
  if (!object.isItem()) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitRefused, object.text() + " is a folder"));
    return false;
  }
  S3Download download(object.text(), to, offset, version, control);
  S3Request request;
  request.bucket = object.bucket;
  request.key = object.key;
  request.headers = download.headers();
  request.take = [&download](const HTTPResponse& head, std::span<const std::byte> piece) {
    return download.take(head, piece);
  };
  request.control = &control;
  request.isRepeatable = false;
  NSErrorRef fault;
  const std::optional<S3Answer> answer = iClient.perform(std::move(request), &fault);
  if (!answer) {
    storeError(error, download.failure() != nullptr ? download.failure() : fault);
    return false;
  }
  if (answer->isGood()) return download.finish(answer->response, error);
  if (answer->refusal->status == 416) return explainUnsatisfiable(object, offset, version, error);
  storeError(error, s3Error(*answer->refusal, object.text()));
  return false;
}

// Nothing lies behind the offset: the object ends right there, or is another one by now.
bool S3Session::explainUnsatisfiable(const S3Path& path, uint64_t offset, std::string* version,
                                     NSErrorRef* error) {
  const std::optional<S3Answer> answer = askForObject(path, error);
  if (!answer) return false;
  if (!answer->isGood()) {
    storeError(error, s3Error(*answer->refusal, path.text()));
    return false;
  }
  return S3Download::settleEnd(answer->response, path.text(), offset, version, error);
}

bool S3Session::upload(NSFileHandle& from, std::string_view path, uint64_t offset, TransferControl& control,
                       NSErrorRef* error) {
  const S3Path object = S3Path::parse(path);
  if (offset > 0) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported, path));
    return false;
  }
  if (refuseOutsideOfBucket(object, error) || !requireFolder(object.parent(), error)) return false;
  const uint64_t length = from.fileLength();
  ConfirmedUpload confirmed(from, length);
  return confirmed.stored(sendWhole(from, length, object, control, error));
}

// What the server says of the folder and the bucket, it says to a listing as well. Who has not seen the
// bucket lately asks by making the file.
bool S3Session::checkNewFile(std::string_view path, bool* mayWait, NSErrorRef* error) {
  const S3Path object = S3Path::parse(path);
  if (refuseOutsideOfBucket(object, error) || !requireFolder(object.parent(), error)) return false;
  *mayWait = iClient.knowledge().hasSeenBucket(object.bucket);
  return true;
}

bool S3Session::makeFile(std::string_view path, NSErrorRef* error) {
  const S3Path object = S3Path::parse(path);
  return noteStored(object,
                    iClient.performOrFail(putRequest(object, nullptr), object.text(), error).has_value());
}

bool S3Session::takeOverNewFile(const S3Path& path, uint64_t length, TransferControl& control,
                                NSErrorRef* error) {
  if (!control.takesOverNewFile() || length <= kMostContentAtOnce) return true;
  if (!makeFile(path.text(), error)) return false;
  control.newFileIsMade();
  return true;
}

bool S3Session::sendWhole(NSFileHandle& from, uint64_t length, const S3Path& path, TransferControl& control,
                          NSErrorRef* error) {
  if (!takeOverNewFile(path, length, control, error)) return false;
  const bool isSent = length <= iLimits.singlePut ? putFile(from, length, path, control, error)
                                                  : putFileInParts(from, length, path, control, error);
  if (isSent) control.progress(length);
  return noteStored(path, isSent);
}

bool S3Session::noteStored(const S3Path& path, bool isStored) {
  if (isStored) iClient.knowledge().noteObject(path);
  return isStored;
}

bool S3Session::putFile(NSFileHandle& from, uint64_t length, const S3Path& path, TransferControl& control,
                        NSErrorRef* error) {
  S3FileBody body(from, {0, length}, control);
  S3Request request = putRequest(path, &control);
  if (length > 0) {
    request.body = body.body();
    if (iClient.signsPayloads()) request.payloadHash = s3SHA256OfFile(from, {0, length}).value_or("");
  }
  return iClient.performOrFail(std::move(request), path.text(), error) || failWith(body, error);
}

bool S3Session::putFileInParts(NSFileHandle& from, uint64_t length, const S3Path& path,
                               TransferControl& control, NSErrorRef* error) {
  if (length > kS3LongestObject) {
    storeError(error,
               QuarnKitError::errorWithCode(kQuarnKitOutOfSpace, path.text() + ": no object is so long"));
    return false;
  }
  S3MultipartUpload whole(iClient, path, path.key);
  if (!whole.begin({kAnyContent}, &control, error)) return false;
  const uint64_t part = s3PartSize(length, iLimits.filePart);
  for (uint64_t at = 0; at < length; at += part) {
    const FileExtent range{at, std::min(at + part, length)};
    S3FileBody body(from, range, control);
    std::string hash;
    if (iClient.signsPayloads()) hash = s3SHA256OfFile(from, range).value_or("");
    if (!whole.sendPart(body.body(), hash, &control, error)) return failWith(body, error);
    control.progress(range.end);
  }
  return whole.complete(&control, error);
}

bool S3Session::stream(const std::function<size_t(std::byte*, size_t)>& next, std::string_view path,
                       TransferControl& control, NSErrorRef* error) {
  const S3Path object = S3Path::parse(path);
  if (refuseOutsideOfBucket(object, error) || !requireFolder(object.parent(), error)) return false;
  S3MultipartUpload whole(iClient, object, object.key);
  S3PartSenders senders(iClient, whole, iLimits.streamParts);  // ends before what it sends is thrown away
  const auto mayGoOn = [this, &control] { return !control.shouldCancel() && !iClient.isInterrupted(); };
  const Gather gather = [&](S3PartBuffer& buffer, uint64_t size) {
    if (!buffer.fill(next, size, mayGoOn, error)) return false;
    return control.shouldCancel() ? failCancelled(path, error) : iClient.goesOn(error);
  };
  for (uint32_t number = 1; number <= kS3MostParts; ++number) {
    S3PartBuffer* buffer = senders.buffer(control, error);
    const uint64_t size = s3StreamPartSize(number, iLimits.firstStreamPart);
    if (buffer == nullptr || !gatherPart(senders, *buffer, size, gather, control, error)) return false;
    const bool isWhole = buffer->isLast() && number == 1;
    const uint64_t length = isWhole ? buffer->length() : kS3LongestObject;
    if (number == 1 && !takeOverNewFile(object, length, control, error)) return false;
    if (isWhole) return noteStored(object, putBuffer(*buffer, object, control, error));
    if (number == 1 && !whole.begin({kAnyContent}, &control, error)) return false;
    if (buffer->length() > 0) senders.send();
    if (buffer->isLast())
      return noteStored(object, senders.finish(control, error) && whole.complete(&control, error));
  }
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitOutOfSpace, "no object has so many parts"));
  return false;
}

// Over a slow line all parts are under way for longer than anybody waits who writes: the file system would
// take the stream for dead. So the next ones are gathered meanwhile, little by little.
bool S3Session::gatherPart(S3PartSenders& senders, S3PartBuffer& buffer, uint64_t size, const Gather& gather,
                           TransferControl& control, NSErrorRef* error) const {
  while (buffer.length() < size && !buffer.isLast()) {
    if (!senders.waitForTurn(iLimits.streamPace, control, error)) return false;
    const uint64_t sip = senders.mayQueue() ? buffer.length() + iLimits.streamSip : buffer.length();
    if (!gather(buffer, senders.hasTurn() ? size : std::min(size, sip))) return false;
  }
  return true;
}

// A stream that is shorter than a part needs no parts.
bool S3Session::putBuffer(S3PartBuffer& buffer, const S3Path& path, TransferControl& control,
                          NSErrorRef* error) {
  S3Request request = putRequest(path, &control);
  if (buffer.length() > 0) {
    request.body = buffer.body();
    if (iClient.signsPayloads()) request.payloadHash = buffer.hash();
  }
  return iClient.performOrFail(std::move(request), path.text(), error).has_value();
}

}  // namespace ombra
