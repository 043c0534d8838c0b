// Where the requests of one login go.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "remote/KCCredentials.h"

namespace ombra {

// The server, how it is told the bucket, and the region that it is asked in first. Immutable.
class S3Endpoint {
 public:
  // From the address and port, or the option "endpoint" (a URL of scheme http or https with no path), and the
  // options "region" and "pathStyle". Without an address, Amazon's. Absent when the endpoint is no such URL.
  static std::optional<S3Endpoint> fromCredentials(const KCCredentials& credentials);

  struct Target {
    std::string origin;  // "https://bucket.host:port"
    std::string host;    // as the "Host" header tells it
    std::string path;    // percent-encoded
  };
  // `bucket` is empty for the list of buckets; `key` may end with a slash.
  Target target(std::string_view bucket, std::string_view key, std::string_view region) const;

  const std::string& region() const { return iRegion; }
  bool isEncrypted() const { return iScheme == "https"; }
  // For messages.
  const std::string& host() const { return iHost; }

  // What may stand in a host name as a region: a server's word is not taken for more than that.
  static bool isRegion(std::string_view text);

 private:
  // The name or the path of a bucket. Names with capitals, dots or underscores are no part of a host name
  // that a certificate covers.
  enum class Style { kPath, kHost };
  Style styleFor(std::string_view bucket) const;
  std::string hostInRegion(std::string_view region) const;
  void settleRegion(const KCCredentials& credentials);

  std::string iScheme = "https";
  std::string iHost;
  int iPort = 0;
  bool iIsAmazon = false;  // its hosts are named after their regions
  std::optional<bool> iPathStyle;
  std::string iRegion;
};

}  // namespace ombra
