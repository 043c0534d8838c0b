#include "remote/s3/S3MultipartUpload.h"

#include <fmt/format.h>

#include <utility>

#include "remote/QuarnKitError.h"
#include "remote/s3/S3Digest.h"
#include "remote/s3/S3Documents.h"
#include "remote/s3/S3Errors.h"

namespace ombra {
namespace {

// Bringing many parts together, and copying a large one, takes the server minutes.
constexpr std::chrono::milliseconds kLongPatience{900000};
// For throwing away after the session was told to end.
constexpr std::chrono::milliseconds kLastPatience{3000};

}  // namespace

S3MultipartUpload::S3MultipartUpload(S3Client& client, S3Path path, std::string key)
    : iClient(client), iPath(std::move(path)), iKey(std::move(key)) {}

S3MultipartUpload::~S3MultipartUpload() {
  if (!iUploadId.empty()) abandon();
}

S3Request S3MultipartUpload::request(std::string method) const {
  S3Request request;
  request.method = std::move(method);
  request.bucket = iPath.bucket;
  request.key = iKey;
  if (!iUploadId.empty()) request.query.emplace_back("uploadId", iUploadId);
  return request;
}

bool S3MultipartUpload::begin(std::vector<HTTPHeader> headers, TransferControl* control, NSErrorRef* error) {
  S3Request start = request("POST");
  start.query.emplace_back("uploads", "");
  start.headers = std::move(headers);
  start.body.emplace();
  start.control = control;
  const auto response = iClient.performOrFail(std::move(start), iPath.text(), error);
  if (!response) return false;
  const std::optional<std::string> id = s3UploadId(response->body);
  if (!id) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError, "the beginning of an upload"));
    return false;
  }
  iUploadId = *id;
  return true;
}

bool S3MultipartUpload::hasTag(const std::string* tag, NSErrorRef* error) {
  if (tag != nullptr && !tag->empty()) return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError, "a part of an upload has no tag"));
  return false;
}

void S3MultipartUpload::addPart(uint32_t number, std::string tag) {
  if (iTags.size() < number) iTags.resize(number);
  iTags[number - 1] = std::move(tag);
}

bool S3MultipartUpload::sendPart(HTTPBody body, std::string hash, TransferControl* control,
                                 NSErrorRef* error) {
  const uint32_t number = nextNumber();
  auto tag = sendPart(iClient, number, std::move(body), std::move(hash), control, error);
  if (tag) addPart(number, std::move(*tag));
  return tag.has_value();
}

std::optional<std::string> S3MultipartUpload::sendPart(S3Client& client, uint32_t number, HTTPBody body,
                                                       std::string hash, TransferControl* control,
                                                       NSErrorRef* error) const {
  S3Request part = request("PUT");
  part.query.emplace_back("partNumber", std::to_string(number));
  part.body = std::move(body);
  part.payloadHash = std::move(hash);
  part.control = control;
  const auto response = client.performOrFail(std::move(part), iPath.text(), error);
  const std::string* tag = response ? response->header("ETag") : nullptr;
  if (!response || !hasTag(tag, error)) return std::nullopt;
  return *tag;
}

bool S3MultipartUpload::copyPart(const std::string& source, const std::string& sourceTag, FileExtent range,
                                 NSErrorRef* error) {
  S3Request part = request("PUT");
  part.query.emplace_back("partNumber", std::to_string(nextNumber()));
  part.headers = {{"x-amz-copy-source", source},
                  {"x-amz-copy-source-range", fmt::format("bytes={}-{}", range.begin, range.end - 1)}};
  // All parts are of the same object, even when it is replaced meanwhile.
  if (!sourceTag.empty()) part.headers.push_back({"x-amz-copy-source-if-match", sourceTag});
  part.body.emplace();
  part.patience = kLongPatience;
  part.mayFailLate = true;
  const auto response = iClient.performOrFail(std::move(part), iPath.text(), error);
  if (!response) return false;
  const std::optional<std::string> tag = s3CopiedTag(response->body);
  if (!hasTag(tag ? &*tag : nullptr, error)) return false;
  addPart(nextNumber(), *tag);
  return true;
}

bool S3MultipartUpload::complete(TransferControl* control, NSErrorRef* error) {
  S3Request end = request("POST");
  end.body.emplace();
  end.body->bytes = s3CompleteDocument(iTags);
  end.headers = {{"Content-Type", "application/xml"}};
  end.control = control;
  end.patience = kLongPatience;
  end.mayFailLate = true;
  const std::optional<S3Answer> answer = iClient.perform(std::move(end), error);
  if (!answer) return false;
  if (!answer->isGood() && !(answer->refusal->code == "NoSuchUpload" && wasCompleted(control))) {
    storeError(error, s3Error(*answer->refusal, iPath.text()));
    return false;
  }
  if (answer->isGood() && !s3IsCompleted(answer->response.body)) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError, "the end of an upload"));
    return false;
  }
  iUploadId.clear();
  return true;
}

// The first answer may have been lost on its way: an upload that is not known any more may be an object by
// now, or have been thrown away by the server. Only an object of these very parts has their tag.
bool S3MultipartUpload::wasCompleted(TransferControl* control) {
  S3Request question;
  question.method = "HEAD";
  question.bucket = iPath.bucket;
  question.key = iKey;
  question.control = control;
  const std::optional<S3Answer> answer = iClient.perform(std::move(question), nullptr);
  const std::string* tag = answer && answer->isGood() ? answer->response.header("ETag") : nullptr;
  return tag != nullptr && *tag == s3TagOfParts(iTags);
}

void S3MultipartUpload::abandon() {
  S3Request end = request("DELETE");
  end.patience = kLastPatience;
  if (!iClient.isInterrupted()) {
    (void)iClient.perform(std::move(end), nullptr);
    return;
  }
  SessionEnvironment environment = iClient.environment();
  environment.connectLimit = kLastPatience;
  S3Client last(std::move(environment), iClient.endpoint(), iClient.sharedKnowledge());
  (void)last.perform(std::move(end), nullptr);
}

}  // namespace ombra
