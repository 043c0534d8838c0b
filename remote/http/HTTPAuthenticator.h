// The answers to a server's "WWW-Authenticate".
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ombra {

// One challenge of a "WWW-Authenticate" header: a scheme and its parameters, both in lower case.
struct HTTPChallenge {
  std::string scheme;
  std::map<std::string, std::string, std::less<>> parameters;
};

// All challenges of one header's value. Servers put several into one header, parted by the same comma that
// parts the parameters. What cannot be read ends the list.
std::vector<HTTPChallenge> parseHTTPChallenges(std::string_view value);

// Basic and digest authentication of one user (RFC 7617, RFC 7616; MD5 and SHA-256, with and without "-sess",
// quality of protection "auth" or none). Digest is preferred where a server offers both. Nothing is sent
// before the server has asked. Not thread-safe.
class HTTPAuthenticator {
 public:
  HTTPAuthenticator(std::string user, std::string password);
  ~HTTPAuthenticator();
  HTTPAuthenticator(const HTTPAuthenticator&) = delete;
  HTTPAuthenticator& operator=(const HTTPAuthenticator&) = delete;

  // Where nothing was asked yet: begins as if the server had asked for basic authentication. For one that is
  // known to ask for it.
  void beginWithBasic() {
    if (iScheme == Scheme::kNone) iScheme = Scheme::kBasic;
  }
  bool hasBegun() const { return iScheme != Scheme::kNone; }
  bool isBasic() const { return iScheme == Scheme::kBasic; }

  // Takes the challenges of an answer 401. True when the request has a chance if it is sent again: the server
  // asks for the first time, or only for a newer nonce.
  bool takeChallenges(const std::vector<std::string>& headerValues);
  // The value of the "Authorization" header for a request; empty before a challenge was taken. `target` is
  // what stands in the request line.
  std::string authorization(std::string_view method, std::string_view target);
  // Whether the server may ask for a newer nonce at any time, and so refuse a request that was sent with a
  // body.
  bool mayBeChallengedAgain() const { return iScheme == Scheme::kDigest; }

  // For tests of known answers: replaces the random nonce of the client.
  void setClientNonce(std::string nonce) { iFixedClientNonce = std::move(nonce); }

 private:
  enum class Scheme : uint8_t { kNone, kBasic, kDigest };
  bool takeDigest(const HTTPChallenge& challenge);
  std::string digest(std::string_view method, std::string_view target);

  const std::string iUser;
  std::string iPassword;
  Scheme iScheme = Scheme::kNone;
  std::string iRealm;
  std::string iNonce;
  std::string iOpaque;
  std::string iAlgorithm;  // as the server wrote it; empty for none
  bool iHasAuth = false;   // quality of protection "auth"
  uint32_t iCount = 0;     // of requests with this nonce
  std::string iFixedClientNonce;
};

}  // namespace ombra
