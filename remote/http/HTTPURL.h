// The parts of a URL.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ombra {

// An absolute URL of scheme http or https. Strings are as they stand in it, percent signs included.
struct HTTPURL {
  std::string scheme;  // lower case
  std::string host;    // lower case; an IPv6 address without its brackets
  int port = 0;        // the scheme's own when none is given
  std::string path;    // begins with "/"
  std::string query;   // with its "?"; empty when there is none

  // Absent for anything else: other schemes, a user in it, no host, control characters, a port out of range.
  static std::optional<HTTPURL> parse(std::string_view text);
  // What `reference` (a "Location", an "href") means on a page of this URL: absolute, or beginning with "//",
  // "/", or relative to the folder of the path. Absent when it leads nowhere.
  std::optional<HTTPURL> resolve(std::string_view reference) const;
  // "https://host:port", the port only where it is not the scheme's own.
  std::string origin() const;
  std::string text() const { return origin() + path + query; }
  bool hasOriginOf(const HTTPURL& other) const {
    return scheme == other.scheme && host == other.host && port == other.port;
  }
};

}  // namespace ombra
