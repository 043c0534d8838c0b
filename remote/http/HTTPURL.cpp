#include "remote/http/HTTPURL.h"
#include "platform/foundation/ASCII.h"

#include <algorithm>
#include <charconv>

namespace ombra {

namespace {

// No address is so long, though a head has room for it.
constexpr size_t kLongestReference = 64 * 1024;

int portOfScheme(std::string_view scheme) { return scheme == "https" ? 443 : 80; }

bool hasControlOrBlank(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= 0x20 || byte == 0x7f;
  });
}

// "host", "host:80", "[::1]:80".
bool readAuthority(std::string_view text, HTTPURL* url) {
  std::string_view port;
  size_t end = 0;
  if (text.starts_with('[')) {
    end = text.find(']');
    if (end == std::string_view::npos) return false;
    url->host = lowercasedASCII(text.substr(1, end - 1));
    ++end;
  } else {
    end = std::min(text.find(':'), text.size());
    url->host = lowercasedASCII(text.substr(0, end));
  }
  if (url->host.empty() || text.find('@') != std::string_view::npos) return false;
  url->port = portOfScheme(url->scheme);
  if (end == text.size()) return true;
  if (text[end] != ':') return false;
  port = text.substr(end + 1);
  if (port.empty()) return true;
  const auto result = std::from_chars(port.data(), port.data() + port.size(), url->port);
  return result.ec == std::errc() && result.ptr == port.data() + port.size() && url->port > 0 &&
         url->port < 65536;
}

void readPath(std::string_view text, HTTPURL* url) {
  text = text.substr(0, std::min(text.find('#'), text.size()));
  const size_t end = std::min(text.find('?'), text.size());
  url->path = text.substr(0, end);
  url->query = text.substr(end);
  if (url->path.empty()) url->path = "/";
}

bool startsWithScheme(std::string_view text) {
  const size_t end = text.find(':');
  return end != std::string_view::npos && end > 0 && end < std::min(text.find_first_of("/?#"), text.size());
}

// Takes "." and ".." out of a path.
std::string withoutDots(std::string_view path) {
  std::string result;
  while (!path.empty()) {
    const size_t end = std::min(path.find('/', 1), path.size());
    const std::string_view part = path.substr(0, end);
    path.remove_prefix(end);
    if (part == "/.." || part == "/.") {
      if (part == "/..") result.resize(std::min(result.rfind('/'), result.size()));
      if (path.empty()) result += '/';
      continue;
    }
    result += part;
  }
  return result.empty() ? "/" : result;
}

}  // namespace

std::optional<HTTPURL> HTTPURL::parse(std::string_view text) {
  HTTPURL url;
  const size_t colon = text.find("://");
  if (colon == std::string_view::npos || hasControlOrBlank(text)) return std::nullopt;
  url.scheme = lowercasedASCII(text.substr(0, colon));
  if (url.scheme != "http" && url.scheme != "https") return std::nullopt;
  text.remove_prefix(colon + 3);
  const size_t end = std::min(text.find_first_of("/?#"), text.size());
  if (!readAuthority(text.substr(0, end), &url)) return std::nullopt;
  readPath(text.substr(end), &url);
  return url;
}

std::optional<HTTPURL> HTTPURL::resolve(std::string_view reference) const {
  if (reference.empty() || reference.size() > kLongestReference || hasControlOrBlank(reference))
    return std::nullopt;
  if (startsWithScheme(reference)) return parse(reference);
  if (reference.starts_with("//")) return parse(scheme + ":" + std::string(reference));
  HTTPURL result = *this;
  if (reference.starts_with('?') || reference.starts_with('#')) {
    readPath(path + std::string(reference), &result);
    return result;
  }
  const std::string folder = reference.starts_with('/') ? "" : path.substr(0, path.rfind('/') + 1);
  readPath(folder + std::string(reference), &result);
  result.path = withoutDots(result.path);
  return result;
}

std::string HTTPURL::origin() const {
  std::string result = scheme + "://";
  result += host.find(':') == std::string::npos ? host : "[" + host + "]";
  if (port != portOfScheme(scheme)) result += ":" + std::to_string(port);
  return result;
}

}  // namespace ombra
