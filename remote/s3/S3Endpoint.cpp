#include "remote/s3/S3Endpoint.h"

#include <algorithm>

#include "remote/URLEncoding.h"
#include "remote/http/HTTPURL.h"

namespace ombra {
namespace {

constexpr std::string_view kAmazon = "s3.amazonaws.com";
constexpr std::string_view kAmazonDomain = ".amazonaws.com";
constexpr std::string_view kChineseDomain = ".amazonaws.com.cn";
// Where a server that names no region keeps what it has.
constexpr std::string_view kFirstRegion = "us-east-1";
constexpr size_t kLongestRegion = 64;
constexpr size_t kShortestBucket = 3;
constexpr size_t kLongestBucket = 63;

bool isLowerOrDigit(char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); }

bool fitsHostName(std::string_view bucket) {
  if (bucket.size() < kShortestBucket || bucket.size() > kLongestBucket) return false;
  if (!isLowerOrDigit(bucket.front()) || !isLowerOrDigit(bucket.back())) return false;
  return std::all_of(bucket.begin(), bucket.end(), [](char c) { return isLowerOrDigit(c) || c == '-'; });
}

// "s3.eu-west-1.example.com" and "s3-eu-west-1.example.com" tell their region.
std::string regionInHost(std::string_view host) {
  if (!host.starts_with("s3.") && !host.starts_with("s3-")) return {};
  const size_t end = host.find('.', 3);
  if (end == std::string_view::npos || host.find('.', end + 1) == std::string_view::npos) return {};
  const std::string_view label = host.substr(3, end - 3);
  const bool looksLikeOne = label.find('-') != std::string_view::npos && isLowerOrDigit(label.back()) &&
                            S3Endpoint::isRegion(label);
  return looksLikeOne ? std::string(label) : std::string();
}

}  // namespace

bool S3Endpoint::isRegion(std::string_view text) {
  return !text.empty() && text.size() <= kLongestRegion && text.front() != '-' &&
         std::all_of(text.begin(), text.end(), [](char c) { return isLowerOrDigit(c) || c == '-'; });
}

std::optional<S3Endpoint> S3Endpoint::fromCredentials(const KCCredentials& credentials) {
  S3Endpoint result;
  if (const auto endpoint = credentials.option("endpoint"); endpoint && !endpoint->empty()) {
    const std::optional<HTTPURL> url = HTTPURL::parse(*endpoint);
    if (!url || url->path != "/" || !url->query.empty()) return std::nullopt;
    result.iScheme = url->scheme;
    result.iHost = url->host;
    result.iPort = url->port;
  } else {
    result.iHost = credentials.address().empty() ? std::string(kAmazon) : credentials.address();
    result.iPort = credentials.port() != 0 ? credentials.port() : 443;
  }
  if (const auto style = credentials.option("pathStyle"); style == "1" || style == "0")
    result.iPathStyle = style == "1";
  result.settleRegion(credentials);
  return result;
}

void S3Endpoint::settleRegion(const KCCredentials& credentials) {
  iRegion = credentials.option("region").value_or("");
  const std::string own = regionInHost(iHost);
  if (iRegion.empty()) iRegion = own.empty() ? std::string(kFirstRegion) : own;
  const bool isNamedAfterRegion = !own.empty() && (iHost == "s3." + own + std::string(kAmazonDomain) ||
                                                   iHost == "s3." + own + std::string(kChineseDomain) ||
                                                   iHost == "s3-" + own + std::string(kAmazonDomain));
  iIsAmazon = iHost == kAmazon || isNamedAfterRegion;
}

std::string S3Endpoint::hostInRegion(std::string_view region) const {
  if (!iIsAmazon) return iHost;
  const std::string_view domain = region.starts_with("cn-") ? kChineseDomain : kAmazonDomain;
  return "s3." + std::string(region) + std::string(domain);
}

S3Endpoint::Style S3Endpoint::styleFor(std::string_view bucket) const {
  if (iPathStyle == true || !fitsHostName(bucket)) return Style::kPath;
  if (iPathStyle == false) return Style::kHost;
  // Other servers than Amazon's mostly have no names for their buckets.
  return iIsAmazon ? Style::kHost : Style::kPath;
}

S3Endpoint::Target S3Endpoint::target(std::string_view bucket, std::string_view key,
                                      std::string_view region) const {
  HTTPURL url{iScheme, hostInRegion(region), iPort, "/", ""};
  if (!bucket.empty() && styleFor(bucket) == Style::kHost) {
    url.host = std::string(bucket) + "." + url.host;
  } else if (!bucket.empty()) {
    url.path += percentEncoded(bucket);
    if (!key.empty()) url.path += '/';
  }
  url.path += percentEncodedPath(key);
  const std::string origin = url.origin();
  return {origin, origin.substr(iScheme.size() + 3), url.path};
}

}  // namespace ombra
