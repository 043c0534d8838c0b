#include "remote/s3/SignatureV4.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <ctime>

#include "platform/foundation/ASCII.h"
#include "platform/foundation/NSUnarchiver.h"
#include "remote/URLEncoding.h"
#include "remote/s3/S3Digest.h"
#include "remote/tls/DigestText.h"

namespace ombra {
namespace {

using Digest = std::array<unsigned char, 32>;

Digest hmac(const void* key, size_t length, std::string_view text) {
  Digest digest{};
  unsigned int size = digest.size();
  HMAC(EVP_sha256(), key, static_cast<int>(length), reinterpret_cast<const unsigned char*>(text.data()),
       text.size(), digest.data(), &size);
  return digest;
}

// Without blanks at the ends, and several in a row as one.
std::string plainValue(std::string_view value) {
  std::string result;
  for (const char c : value) {
    if (c != ' ') {
      result += c;
    } else if (!result.empty() && result.back() != ' ') {
      result += c;
    }
  }
  if (result.ends_with(' ')) result.pop_back();
  return result;
}

// Lower case, sorted by name; several of one name in their order, with commas between.
std::vector<std::pair<std::string, std::string>> canonicalHeaders(const SignatureV4Request& request) {
  std::vector<std::pair<std::string, std::string>> headers;
  for (const auto& [name, value] : request.headers)
    headers.emplace_back(lowercasedASCII(name), plainValue(value));
  std::stable_sort(headers.begin(), headers.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::pair<std::string, std::string>> merged;
  for (auto& header : headers) {
    if (!merged.empty() && merged.back().first == header.first) {
      merged.back().second += "," + header.second;
    } else {
      merged.push_back(std::move(header));
    }
  }
  return merged;
}

std::string signedNames(const SignatureV4Request& request) {
  std::string names;
  for (const auto& header : canonicalHeaders(request)) {
    if (!names.empty()) names += ';';
    names += header.first;
  }
  return names;
}

}  // namespace

SignatureV4Key::SignatureV4Key(std::string_view secret, const SignatureV4Scope& scope)
    : iScope(scope.text()) {
  std::string start = "AWS4";
  // Grown once, so that no copy of the secret is left where it stood before.
  start.reserve(start.size() + secret.size());
  start += secret;
  Digest day = hmac(start.data(), start.size(), scope.day());
  wipe(start);
  Digest region = hmac(day.data(), day.size(), scope.region);
  Digest service = hmac(region.data(), region.size(), scope.service);
  iKey = hmac(service.data(), service.size(), "aws4_request");
  for (Digest* step : {&day, &region, &service}) OPENSSL_cleanse(step->data(), step->size());
}

SignatureV4Key::~SignatureV4Key() { OPENSSL_cleanse(iKey.data(), iKey.size()); }

std::string SignatureV4Key::sign(std::string_view text) const {
  return hexadecimalText(hmac(iKey.data(), iKey.size(), text));
}

std::string signatureV4Timestamp(NSDate date) {
  const std::time_t seconds = kc_timespec(date).tv_sec;
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  return fmt::format("{:04}{:02}{:02}T{:02}{:02}{:02}Z", parts.tm_year + 1900, parts.tm_mon + 1,
                     parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

std::string signatureV4Query(std::vector<std::pair<std::string, std::string>> query) {
  for (auto& [name, value] : query) {
    name = percentEncoded(name);
    value = percentEncoded(value);
  }
  std::sort(query.begin(), query.end());
  std::string text;
  for (const auto& [name, value] : query) {
    if (!text.empty()) text += '&';
    text += name + "=" + value;
  }
  return text;
}

std::string signatureV4CanonicalRequest(const SignatureV4Request& request) {
  std::string text = request.method + "\n" + request.path + "\n" + signatureV4Query(request.query) + "\n";
  for (const auto& [name, value] : canonicalHeaders(request)) text += name + ":" + value + "\n";
  return text + "\n" + signedNames(request) + "\n" + request.payloadHash;
}

std::string signatureV4StringToSign(const SignatureV4Scope& scope, std::string_view canonicalRequest) {
  return "AWS4-HMAC-SHA256\n" + scope.timestamp + "\n" + scope.text() + "\n" + s3SHA256(canonicalRequest);
}

std::string signatureV4Authorization(const SignatureV4Request& request, const SignatureV4Scope& scope,
                                     const SignatureV4Key& key) {
  const std::string text = signatureV4StringToSign(scope, signatureV4CanonicalRequest(request));
  return "AWS4-HMAC-SHA256 Credential=" + scope.accessKey + "/" + scope.text() +
         ",SignedHeaders=" + signedNames(request) + ",Signature=" + key.sign(text);
}

}  // namespace ombra
