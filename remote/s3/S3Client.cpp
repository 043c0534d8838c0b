#include "remote/s3/S3Client.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "platform/foundation/ASCII.h"
#include "remote/QuarnKitError.h"
#include "remote/http/HTTPDate.h"
#include "remote/s3/S3Digest.h"
#include "remote/s3/S3Errors.h"

namespace ombra {
namespace {

// What a busy server is given, in seconds.
constexpr std::array<double, 4> kPauses{0.2, 0.4, 0.8, 1.6};
// Cancellation is looked at so often.
constexpr double kLookSeconds = 0.1;
constexpr int kMostLosses = 2;
constexpr int kMostRedirections = 2;
// Servers allow for a quarter of an hour.
constexpr double kSkewSeconds = 600.0;

bool isLost(const NSErrorRef& error) { return QuarnKitError::isCode(error, kQuarnKitConnectionLost); }

bool isUnreachable(const NSErrorRef& error) {
  return QuarnKitError::isCode(error, kQuarnKitCouldNotConnect) ||
         QuarnKitError::isCode(error, kQuarnKitCouldNotResolveHost);
}

bool isAmazonHeader(std::string_view name) {
  constexpr std::string_view kStart = "x-amz-";
  return name.size() > kStart.size() && equalIgnoringCase(name.substr(0, kStart.size()), kStart);
}

}  // namespace

// What was tried for one request.
struct S3Client::Attempts {
  int losses = 0;
  int regions = 0;
  size_t pauses = 0;
  bool hasNewDate = false;
  std::string region;
};

S3Client::S3Client(SessionEnvironment environment, S3Endpoint endpoint,
                   std::shared_ptr<S3Knowledge> knowledge)
    : iEnvironment(std::move(environment)),
      iEndpoint(std::move(endpoint)),
      iKnowledge(std::move(knowledge)) {}

bool S3Client::isAlive() {
  if (iIsInterrupted.load()) return false;
  ConditionLock lock(iWake);
  return iHTTP == nullptr || iHTTP->isAlive();
}

void S3Client::interrupt() {
  iIsInterrupted.store(true);
  ConditionLock lock(iWake);
  if (iHTTP != nullptr) iHTTP->interrupt();
  iWake.broadcast();
}

bool S3Client::goesOn(NSErrorRef* error) const {
  if (!isInterrupted()) return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "the session was interrupted"));
  return false;
}

// The present one, or a new one in place of one that was lost. Null when the session was interrupted.
std::shared_ptr<HTTPClient> S3Client::connection() {
  ConditionLock lock(iWake);
  if (iIsInterrupted.load()) return nullptr;
  if (iHTTP == nullptr || !iHTTP->isAlive())
    iHTTP = std::make_shared<HTTPClient>(iEnvironment, HTTPAuthentication::none);
  return iHTTP;
}

const SignatureV4Key& S3Client::keyFor(const SignatureV4Scope& scope) {
  if (iKey == nullptr || !iKey->isFor(scope))
    iKey = std::make_unique<SignatureV4Key>(iEnvironment.credentials->password().value_or(""), scope);
  return *iKey;
}

void S3Client::address(const S3Request& request, HTTPRequest* http) {
  const std::string region = iKnowledge->regionOf(request.bucket, iEndpoint.region());
  const S3Endpoint::Target target = iEndpoint.target(request.bucket, request.key, region);
  const std::string query = signatureV4Query(request.query);
  http->url = target.origin + target.path + (query.empty() ? "" : "?" + query);
  http->headers = request.headers;
  // Without a key everything is asked for as anybody.
  if (iEnvironment.credentials->username()) sign(request, region, target, http);
}

void S3Client::sign(const S3Request& request, const std::string& region, const S3Endpoint::Target& target,
                    HTTPRequest* http) {
  SignatureV4Request covered{request.method, target.path, request.query, {}, request.payloadHash};
  const bool isAtHand = !http->body || !http->body->source;
  if (covered.payloadHash.empty() && isAtHand && !iEndpoint.isEncrypted())
    covered.payloadHash = s3SHA256(http->body ? http->body->bytes : "");
  if (covered.payloadHash.empty()) covered.payloadHash = kSignatureV4Unsigned;
  const SignatureV4Scope scope{*iEnvironment.credentials->username(), region, "s3",
                               signatureV4Timestamp(iKnowledge->date())};
  http->headers.push_back({"x-amz-content-sha256", covered.payloadHash});
  http->headers.push_back({"x-amz-date", scope.timestamp});
  if (const auto token = iEnvironment.credentials->option("sessionToken"); token && !token->empty())
    http->headers.push_back({"x-amz-security-token", *token});
  covered.headers.emplace_back("host", target.host);
  for (const HTTPHeader& header : http->headers) {
    if (isAmazonHeader(header.name)) covered.headers.emplace_back(header.name, header.value);
  }
  http->headers.push_back({"Authorization", signatureV4Authorization(covered, scope, keyFor(scope))});
}

std::optional<HTTPResponse> S3Client::send(const S3Request& request, HTTPRequest& http, NSErrorRef* error) {
  const std::shared_ptr<HTTPClient> client = connection();
  if (client == nullptr) {
    (void)goesOn(error);
    return std::nullopt;
  }
  address(request, &http);
  std::optional<HTTPResponse> response = client->perform(http, error);
  if (response) {
    iHasAnswered = true;
  } else if (iHasAnswered && isUnreachable(*error)) {
    // A session that worked is not made again; the pool knows what to do about a lost one.
    *error = QuarnKitError::errorWithCode(kQuarnKitConnectionLost, iEndpoint.host(), *error);
  }
  return response;
}

bool S3Client::shouldRepeatLost(const S3Request& request, const NSErrorRef& fault, Attempts* attempts) const {
  if (!isLost(fault) || !request.isRepeatable || iIsInterrupted.load()) return false;
  if (request.control != nullptr && request.control->shouldCancel()) return false;
  return iHasAnswered && attempts->losses++ < kMostLosses;
}

// A refused region does not tell where the bucket is, unless the server adds it.
bool S3Client::adoptRegion(const S3Request& request, const S3Refusal& refusal, Attempts* attempts) {
  if (!S3Endpoint::isRegion(refusal.region)) return false;
  if (refusal.region == iKnowledge->regionOf(request.bucket, iEndpoint.region())) return false;
  iKnowledge->setRegion(request.bucket, refusal.region);
  return attempts->regions++ < kMostRedirections;
}

// HEAD has no body to tell the reason in: there the clocks are compared.
bool S3Client::adoptDate(const HTTPResponse& response, const S3Refusal& refusal, Attempts* attempts) {
  if (refusal.status != 403 || attempts->hasNewDate) return false;
  const std::string* text = response.header("Date");
  const std::optional<NSDate> date = text != nullptr ? dateOfHTTPText(*text) : std::nullopt;
  const bool isNamed = refusal.code == "RequestTimeTooSkewed" || refusal.code == "RequestExpired";
  if (!date || (!isNamed && !refusal.code.empty())) return false;
  if (!isNamed && std::abs(date->timeIntervalSinceDate(iKnowledge->date())) < kSkewSeconds) return false;
  attempts->hasNewDate = true;
  iKnowledge->setDate(*date);
  return true;
}

bool S3Client::shouldRepeatRefused(const S3Request& request, const HTTPResponse& response,
                                   const S3Refusal& refusal, Attempts* attempts) {
  if (adoptRegion(request, refusal, attempts) || adoptDate(response, refusal, attempts)) return true;
  if (!s3IsTransient(refusal) || attempts->pauses == kPauses.size()) return false;
  return pause(kPauses[attempts->pauses++], request.control);
}

// False when the session was interrupted or the transfer cancelled.
bool S3Client::pause(double seconds, const TransferControl* control) {
  const NSDate end = NSDate::dateWithTimeIntervalSinceNow(seconds);
  while (NSDate::date() < end) {
    if (control != nullptr && control->shouldCancel()) return false;
    const NSDate look = std::min(end, NSDate::dateWithTimeIntervalSinceNow(kLookSeconds));
    ConditionLock lock(iWake);
    if (iIsInterrupted.load()) return false;
    (void)iWake.waitUntilDate(look);
  }
  return !iIsInterrupted.load();
}

std::optional<S3Answer> S3Client::perform(S3Request request, NSErrorRef* error) {
  const bool mayChange = request.method != "GET" && request.method != "HEAD";
  if (mayChange) iKnowledge->noteChange();
  std::optional<S3Answer> answer = exchange(request, error);
  if (mayChange) iKnowledge->noteChange();
  return answer;
}

std::optional<S3Answer> S3Client::exchange(S3Request& request, NSErrorRef* error) {
  ++iRequests;
  HTTPRequest http;
  http.method = request.method;
  http.body = std::move(request.body);
  http.take = std::move(request.take);
  http.longestBody = request.longestBody;
  http.patience = request.patience;
  http.control = request.control;
  Attempts attempts;
  const auto begin = [&http] { return !http.body || !http.body->rewind || http.body->rewind(); };
  while (true) {
    NSErrorRef fault;
    std::optional<HTTPResponse> response = send(request, http, &fault);
    if (!response) {
      if (shouldRepeatLost(request, fault, &attempts) && begin()) continue;
      storeError(error, std::move(fault));
      return std::nullopt;
    }
    S3Answer answer;
    if (response->status / 100 != 2) {
      answer.refusal = s3Refusal(*response);
    } else if (request.mayFailLate) {
      answer.refusal = s3LateRefusal(*response);
    }
    if (answer.refusal && shouldRepeatRefused(request, *response, *answer.refusal, &attempts) && begin())
      continue;
    answer.response = std::move(*response);
    return answer;
  }
}

std::optional<HTTPResponse> S3Client::performOrFail(S3Request request, std::string_view path,
                                                    NSErrorRef* error) {
  std::optional<S3Answer> answer = perform(std::move(request), error);
  if (!answer) return std::nullopt;
  if (answer->isGood()) return std::move(answer->response);
  storeError(error, s3Error(*answer->refusal, path));
  return std::nullopt;
}

}  // namespace ombra
