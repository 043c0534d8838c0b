// One session's signed requests.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSCondition.h"
#include "remote/http/HTTPClient.h"
#include "remote/s3/S3Answers.h"
#include "remote/s3/S3Endpoint.h"
#include "remote/s3/S3Knowledge.h"
#include "remote/s3/SignatureV4.h"

namespace ombra {

struct S3Request {
  std::string method = "GET";
  std::string bucket;  // empty: the list of buckets
  std::string key;     // may end with a slash
  std::vector<std::pair<std::string, std::string>> query;
  std::vector<HTTPHeader> headers;  // those that begin with "x-amz-" are signed
  std::optional<HTTPBody> body;
  // Of a body that comes from a source; without one it travels unsigned.
  std::string payloadHash;
  std::function<bool(const HTTPResponse& head, std::span<const std::byte> piece)> take;
  size_t longestBody = size_t{1} << 20;
  std::optional<std::chrono::milliseconds> patience;
  TransferControl* control = nullptr;
  // The server may begin with a success and tell of a failure in the body.
  bool mayFailLate = false;
  // Whether it may be sent again after a lost connection. Everything that is asked of such a server can be
  // asked twice; only what has been taken from an answer cannot be given back.
  bool isRepeatable = true;
};

// An answer: a success, or the server's refusal.
struct S3Answer {
  HTTPResponse response;
  std::optional<S3Refusal> refusal;
  bool isGood() const { return !refusal; }
};

// Signs requests, and sends each again where that helps: to the bucket's own region, with the server's time,
// after a moment when the server is busy, on a new connection when the old one was lost. One thread at a
// time, except `interrupt`.
class S3Client {
 public:
  S3Client(SessionEnvironment environment, S3Endpoint endpoint, std::shared_ptr<S3Knowledge> knowledge);
  S3Client(const S3Client&) = delete;
  S3Client& operator=(const S3Client&) = delete;

  // Absent, with the error, when there is no answer.
  std::optional<S3Answer> perform(S3Request request, NSErrorRef* error);
  // As `perform`; a refusal is an error about `path`.
  std::optional<HTTPResponse> performOrFail(S3Request request, std::string_view path, NSErrorRef* error);

  const SessionEnvironment& environment() const { return iEnvironment; }
  const S3Endpoint& endpoint() const { return iEndpoint; }
  S3Knowledge& knowledge() const { return *iKnowledge; }
  const std::shared_ptr<S3Knowledge>& sharedKnowledge() const { return iKnowledge; }
  // Whether bodies are to be signed: they are when nothing else protects them.
  bool signsPayloads() const { return !iEndpoint.isEncrypted() && iEnvironment.credentials->username(); }

  // How many requests were performed so far.
  uint64_t requests() const { return iRequests; }

  bool isAlive() EXCLUDES(iWake);
  bool isInterrupted() const { return iIsInterrupted.load(); }
  // False, with the error, when it was interrupted.
  bool goesOn(NSErrorRef* error) const;
  void interrupt() EXCLUDES(iWake);

 private:
  struct Attempts;
  std::optional<S3Answer> exchange(S3Request& request, NSErrorRef* error);
  std::optional<HTTPResponse> send(const S3Request& request, HTTPRequest& http, NSErrorRef* error);
  void address(const S3Request& request, HTTPRequest* http);
  void sign(const S3Request& request, const std::string& region, const S3Endpoint::Target& target,
            HTTPRequest* http);
  const SignatureV4Key& keyFor(const SignatureV4Scope& scope);
  bool shouldRepeatLost(const S3Request& request, const NSErrorRef& fault, Attempts* attempts) const;
  bool shouldRepeatRefused(const S3Request& request, const HTTPResponse& response, const S3Refusal& refusal,
                           Attempts* attempts) EXCLUDES(iWake);
  bool adoptRegion(const S3Request& request, const S3Refusal& refusal, Attempts* attempts);
  bool adoptDate(const HTTPResponse& response, const S3Refusal& refusal, Attempts* attempts);
  bool pause(double seconds, const TransferControl* control) EXCLUDES(iWake);
  std::shared_ptr<HTTPClient> connection() EXCLUDES(iWake);

  const SessionEnvironment iEnvironment;
  const S3Endpoint iEndpoint;
  const std::shared_ptr<S3Knowledge> iKnowledge;
  std::unique_ptr<SignatureV4Key> iKey;
  bool iHasAnswered = false;
  uint64_t iRequests = 0;
  std::atomic<bool> iIsInterrupted{false};
  NSCondition iWake;
  std::shared_ptr<HTTPClient> iHTTP GUARDED_BY(iWake);
};

}  // namespace ombra
