// Signatures of requests, version 4 ("AWS4-HMAC-SHA256").
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/NSDate.h"

namespace ombra {

// What a signature covers.
struct SignatureV4Request {
  std::string method;
  std::string path;                                          // percent-encoded, as in the request line
  std::vector<std::pair<std::string, std::string>> query;    // names and values as they are, not encoded
  std::vector<std::pair<std::string, std::string>> headers;  // all of them are signed
  std::string payloadHash;                                   // hexadecimal SHA-256, or kSignatureV4Unsigned
};

// What a request without a hash of its body says in the hash's place.
inline constexpr std::string_view kSignatureV4Unsigned = "UNSIGNED-PAYLOAD";

// For whom, when and where a signature holds.
struct SignatureV4Scope {
  std::string accessKey;
  std::string region;
  std::string service;
  std::string timestamp;  // "20130524T000000Z"

  std::string day() const { return timestamp.substr(0, 8); }
  std::string text() const { return day() + "/" + region + "/" + service + "/aws4_request"; }
};

// The key of one day, region and service. Wiped when destroyed.
class SignatureV4Key {
 public:
  SignatureV4Key(std::string_view secret, const SignatureV4Scope& scope);
  ~SignatureV4Key();
  SignatureV4Key(const SignatureV4Key&) = delete;
  SignatureV4Key& operator=(const SignatureV4Key&) = delete;

  // The hexadecimal signature of a text.
  std::string sign(std::string_view text) const;
  // Whether it is the key of that scope.
  bool isFor(const SignatureV4Scope& scope) const { return iScope == scope.text(); }

 private:
  const std::string iScope;
  std::array<unsigned char, 32> iKey;
};

// A date as a scope tells it, in UTC.
std::string signatureV4Timestamp(NSDate date);
// The one form of a request that both sides sign.
std::string signatureV4CanonicalRequest(const SignatureV4Request& request);
// What a key signs: the scope and the digest of that form.
std::string signatureV4StringToSign(const SignatureV4Scope& scope, std::string_view canonicalRequest);
// The value of the "Authorization" header.
std::string signatureV4Authorization(const SignatureV4Request& request, const SignatureV4Scope& scope,
                                     const SignatureV4Key& key);

// The query as it goes into the URL, sorted: what the canonical request holds, too.
std::string signatureV4Query(std::vector<std::pair<std::string, std::string>> query);

}  // namespace ombra
