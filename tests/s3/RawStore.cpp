#include "tests/s3/RawStore.h"

#include <stdexcept>

#include "remote/s3/S3Errors.h"
#include "tests/support/SessionDoubles.h"

namespace ombra {
namespace {

SessionEnvironment environmentFor(std::shared_ptr<const KCCredentials> credentials) {
  SessionEnvironment environment;
  environment.credentials = std::move(credentials);
  environment.transcript = std::make_shared<KeptTranscript>();
  environment.isWorthyTrust = [](const std::string&) { return true; };
  return environment;
}

}  // namespace

RawStore::RawStore(std::shared_ptr<const KCCredentials> credentials, std::string bucket)
    : iBucket(std::move(bucket)),
      iClient(environmentFor(credentials), S3Endpoint::fromCredentials(*credentials).value(),
              std::make_shared<S3Knowledge>()) {}

std::optional<S3Answer> RawStore::perform(S3Request request) {
  request.bucket = iBucket;
  request.longestBody = size_t{1} << 30;
  NSErrorRef error;
  std::optional<S3Answer> answer = iClient.perform(std::move(request), &error);
  if (!answer) throw std::runtime_error(error->description());
  if (answer->isGood()) return answer;
  if (s3IsMissing(*answer->refusal)) return std::nullopt;
  throw std::runtime_error(s3Error(*answer->refusal, iBucket)->description());
}

void RawStore::makeBucket() {
  S3Request request;
  request.method = "PUT";
  request.bucket = iBucket;
  request.body.emplace();
  NSErrorRef error;
  // Some refuse to make it twice, which is as good.
  if (!iClient.perform(std::move(request), &error)) throw std::runtime_error(error->description());
}

void RawStore::put(const std::string& key, const std::string& content, std::vector<HTTPHeader> headers) {
  S3Request request;
  request.method = "PUT";
  request.key = key;
  request.headers = std::move(headers);
  request.body.emplace();
  request.body->bytes = content;
  if (!perform(std::move(request))) throw std::runtime_error("nothing was put at " + key);
}

std::optional<std::string> RawStore::get(const std::string& key) {
  S3Request request;
  request.key = key;
  const auto answer = perform(std::move(request));
  if (!answer) return std::nullopt;
  return answer->response.body;
}

std::optional<HTTPResponse> RawStore::head(const std::string& key) {
  S3Request request;
  request.method = "HEAD";
  request.key = key;
  const auto answer = perform(std::move(request));
  if (!answer) return std::nullopt;
  return answer->response;
}

void RawStore::remove(const std::string& key) {
  S3Request request;
  request.method = "DELETE";
  request.key = key;
  (void)perform(std::move(request));
}

std::vector<std::string> RawStore::keys(const std::string& prefix) {
  std::vector<std::string> keys;
  std::string token;
  while (true) {
    S3Request request;
    request.query = {{"list-type", "2"}, {"prefix", prefix}, {"encoding-type", "url"}};
    if (!token.empty()) request.query.emplace_back("continuation-token", token);
    const auto answer = perform(std::move(request));
    const auto listing = answer ? s3Listing(answer->response.body) : std::nullopt;
    if (!listing) throw std::runtime_error("no listing of " + prefix);
    for (const S3ListedObject& object : listing->objects) keys.push_back(object.key);
    if (!listing->isTruncated) return keys;
    token = listing->nextToken;
  }
}

std::optional<size_t> RawStore::unfinishedUploads() {
  S3Request request;
  request.query = {{"uploads", ""}};
  std::optional<S3Answer> answer;
  try {
    answer = perform(std::move(request));
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
  if (!answer) return std::nullopt;
  size_t count = 0;
  const std::string& body = answer->response.body;
  for (size_t at = body.find("<Upload>"); at != std::string::npos; at = body.find("<Upload>", at + 1))
    ++count;
  return count;
}

}  // namespace ombra
