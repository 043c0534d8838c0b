#include "remote/s3/S3Copier.h"

#include <algorithm>
#include <system_error>
#include <thread>

#include "platform/foundation/ASCII.h"
#include "platform/foundation/NSThread.h"
#include "remote/QuarnKitError.h"
#include "remote/URLEncoding.h"
#include "remote/http/HTTPLengths.h"
#include "remote/s3/S3Errors.h"
#include "remote/s3/S3MultipartUpload.h"
#include "remote/s3/S3PartSizes.h"

namespace ombra {
namespace {

// A server copies as it reads and writes: a large object takes it minutes, in which it says nothing.
constexpr std::chrono::milliseconds kCopyPatience{900000};
// Connections besides the session's own, and how many objects are worth one.
constexpr size_t kMostOthers = 7;
constexpr size_t kWorthOne = 4;

std::string copySource(const std::string& bucket, const std::string& key) {
  return "/" + percentEncoded(bucket) + "/" + percentEncodedPath(key);
}

bool isTooLargeToCopy(const S3Refusal& refusal) {
  return refusal.status == 400 && (refusal.code == "InvalidRequest" || refusal.code == "EntityTooLarge");
}

// What an object has besides its content. A copy from parts gets it by hand.
std::vector<HTTPHeader> ownHeaders(const HTTPResponse& head) {
  std::vector<HTTPHeader> kept;
  for (const HTTPHeader& header : head.headers) {
    const std::string name = lowercasedASCII(header.name);
    const bool isKept = name == "content-type" || name == "content-encoding" || name == "content-language" ||
                        name == "content-disposition" || name == "cache-control" || name == "expires" ||
                        name.starts_with("x-amz-meta-");
    // Under the name that the transport looks for, too.
    if (isKept) kept.push_back({name == "content-type" ? "Content-Type" : name, header.value});
  }
  return kept;
}

bool copyInParts(S3Client& client, const S3Limits& limits, const S3Copy& copy, NSErrorRef* error) {
  const S3Path from{copy.fromBucket, copy.fromKey};
  S3Request question;
  question.method = "HEAD";
  question.bucket = copy.fromBucket;
  question.key = copy.fromKey;
  const auto head = client.performOrFail(std::move(question), from.text(), error);
  if (!head) return false;
  const std::optional<uint64_t> length = httpContentLength(*head);
  const std::string* tag = head->header("ETag");
  if (!length || *length == 0 || tag == nullptr) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError, from.text() + " has no length"));
    return false;
  }
  S3MultipartUpload parts(client, {copy.toBucket, copy.toKey}, copy.toKey);
  if (!parts.begin(ownHeaders(*head), nullptr, error)) return false;
  const uint64_t part = s3PartSize(*length, limits.copyPart);
  for (uint64_t at = 0; at < *length; at += part) {
    const FileExtent range{at, std::min(at + part, *length)};
    if (!parts.copyPart(copySource(copy.fromBucket, copy.fromKey), *tag, range, error)) return false;
  }
  return parts.complete(nullptr, error);
}

}  // namespace

bool s3CopyObject(S3Client& client, const S3Limits& limits, const S3Copy& copy, NSErrorRef* error) {
  if (copy.size && *copy.size > limits.singleCopy) return copyInParts(client, limits, copy, error);
  const S3Path from{copy.fromBucket, copy.fromKey};
  S3Request request;
  request.method = "PUT";
  request.bucket = copy.toBucket;
  request.key = copy.toKey;
  request.headers = {{"x-amz-copy-source", copySource(copy.fromBucket, copy.fromKey)}};
  request.body.emplace();
  request.patience = kCopyPatience;
  request.mayFailLate = true;
  const std::optional<S3Answer> answer = client.perform(std::move(request), error);
  if (!answer) return false;
  // Whether it is too large is not asked before, since it hardly ever is.
  if (!answer->isGood() && !copy.size && isTooLargeToCopy(*answer->refusal))
    return copyInParts(client, limits, copy, error);
  if (!answer->isGood()) {
    storeError(error, s3Error(*answer->refusal, from.text()));
    return false;
  }
  if (s3CopiedTag(answer->response.body)) return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError, "the copy of " + from.text()));
  return false;
}

bool S3Copier::run(const std::vector<S3Copy>& copies, NSErrorRef* error) {
  std::vector<std::thread> others;
  const size_t count = std::min(kMostOthers, copies.size() / kWorthOne);
  try {
    for (size_t i = 0; i < count; ++i) others.emplace_back([this, &copies] { workElsewhere(copies); });
  } catch (const std::system_error&) {
    // Those that are there do all of it.
  }
  work(iClient, copies);
  for (std::thread& other : others) other.join();
  MutexLock lock(iLock);
  if (iFailure == nullptr) return true;
  storeError(error, iFailure);
  return false;
}

void S3Copier::work(S3Client& client, const std::vector<S3Copy>& copies) {
  for (size_t i = iNext++; i < copies.size() && !iStops; i = iNext++) {
    NSErrorRef fault;
    const bool isDone = s3CopyObject(client, iLimits, copies[i], &fault);
    MutexLock lock(iLock);
    if (isDone) {
      iDone.push_back(copies[i].toKey);
    } else {
      iStops = true;
      if (iFailure == nullptr) iFailure = fault;
    }
  }
}

void S3Copier::workElsewhere(const std::vector<S3Copy>& copies) {
  NSThread::setName("copying on the server");
  S3Client client(iClient.environment(), iClient.endpoint(), iClient.sharedKnowledge());
  {
    MutexLock lock(iLock);
    if (iStops) return;
    iOthers.push_back(&client);
  }
  work(client, copies);
  MutexLock lock(iLock);
  std::erase(iOthers, &client);
}

void S3Copier::interrupt() {
  MutexLock lock(iLock);
  iStops = true;
  // Even when all were copied by then, the move does not go on.
  if (iFailure == nullptr)
    iFailure = QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "the session was interrupted");
  for (S3Client* other : iOthers) other->interrupt();
}

}  // namespace ombra
