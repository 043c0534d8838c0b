#include "frontend/RemoteURL.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "platform/foundation/ASCII.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSUnarchiver.h"
#include "remote/KCTypes.h"

namespace ombra {

namespace {

constexpr size_t kMaximumURLLength = 8192;
constexpr size_t kMaximumHostLength = 253;

struct Scheme {
  std::string_view name;
  uint32_t protocol;
  int port;
};

constexpr std::array<Scheme, 10> kSchemes{{
    {"sftp", kProtocolSFTP, 22},
    {"file", kProtocolFile, 0},
    {"ftp", kProtocolFTP, 21},
    {"ftps", kProtocolFTPImplicitTLS, 990},
    {"ftpes", kProtocolFTPExplicitTLS, 21},
    {"dav", kProtocolWebDAV, 80},
    {"http", kProtocolWebDAV, 80},
    {"davs", kProtocolWebDAVTLS, 443},
    {"https", kProtocolWebDAVTLS, 443},
    {"s3", kProtocolS3, 0},
}};

constexpr std::string_view kForm = "A URL looks like sftp://user@host:port/folder or file:///folder.";

constexpr std::string_view kSchemesKnown =
    "Known are sftp, ftpes, ftps, ftp, davs (or https), dav (or http), s3 and file. See: ombra mount --help";

bool refuse(Failure* failure, std::string why, std::string_view todo = kForm) {
  *failure = {kExitUsage, "This is not a URL that can be mounted.", std::move(why), std::string(todo)};
  return false;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Undoes percent escapes. False with a reason for a broken escape and for what no name can hold.
bool decode(std::string_view text, std::string_view part, std::string* result, Failure* failure) {
  result->clear();
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%') {
      const int high = i + 1 < text.size() ? hexValue(text[i + 1]) : -1;
      const int low = i + 2 < text.size() ? hexValue(text[i + 2]) : -1;
      if (high < 0 || low < 0) {
        return refuse(failure,
                      fmt::format("A “%” in the {} is not followed by two hexadecimal digits.", part),
                      "Write a “%” itself as %25.");
      }
      c = static_cast<char>(high << 4 | low);
      if (c == '/' && part == "path") return refuse(failure, "A name in the path cannot hold a “/” (%2F).");
      i += 2;
    }
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      return refuse(failure, fmt::format("The {} holds a control character.", part));
    }
    *result += c;
  }
  if (!isValidUTF8(*result)) return refuse(failure, fmt::format("The {} is not valid UTF-8.", part));
  return true;
}

bool parseScheme(std::string_view* rest, RemoteURL* url, Failure* failure) {
  const size_t end = rest->find("://");
  if (end == std::string_view::npos || end == 0)
    return refuse(failure, "It does not begin with a scheme such as sftp://.");
  url->scheme = lowercasedASCII(rest->substr(0, end));
  const auto* found = std::find_if(kSchemes.begin(), kSchemes.end(),
                                   [&url](const Scheme& scheme) { return scheme.name == url->scheme; });
  if (found == kSchemes.end())
    return refuse(failure, fmt::format("The scheme {} is not known.", inQuotes(url->scheme)), kSchemesKnown);
  url->protocol = found->protocol;
  rest->remove_prefix(end + 3);
  return true;
}

bool parseUserInfo(std::string_view userInfo, RemoteURL* url, Failure* failure) {
  if (userInfo.find('@') != std::string_view::npos) {
    return refuse(failure, "There is more than one “@” before the host.",
                  "Write an “@” that belongs to the user name or password as %40.");
  }
  const size_t colon = userInfo.find(':');
  std::string name;
  if (!decode(userInfo.substr(0, colon), "user name", &name, failure)) return false;
  if (name.empty()) return refuse(failure, "The user name before the “@” is empty.");
  // A name that reads as an option must not reach a proxy command's line.
  if (name.front() == '-') return refuse(failure, "A user name cannot begin with “-”.");
  url->username = name;
  if (colon == std::string_view::npos) return true;
  std::string password;
  if (!decode(userInfo.substr(colon + 1), "password", &password, failure)) return false;
  url->password = std::move(password);
  return true;
}

bool parsePort(std::string_view text, RemoteURL* url, Failure* failure) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), url->port);
  if (text.empty() || text.size() > 5 || error != std::errc() || end != text.data() + text.size() ||
      url->port < 1 || url->port > 65535 || text.front() == '-') {
    return refuse(failure, fmt::format("The port {} is not a number from 1 to 65535.", inQuotes(text)));
  }
  return true;
}

// "[address]" or "[address]:port", the address optionally with a zone ("%25eth0").
bool parseBracketedHost(std::string_view text, RemoteURL* url, Failure* failure) {
  const size_t end = text.find(']');
  if (end == std::string_view::npos) return refuse(failure, "The “]” after an IPv6 address is missing.");
  std::string host;
  if (!decode(text.substr(1, end - 1), "host", &host, failure)) return false;
  in6_addr address{};
  const size_t zone = host.find('%');
  const bool zoneIsPlain =
      zone == std::string::npos ||
      (zone + 1 < host.size() &&
       std::all_of(host.begin() + static_cast<std::ptrdiff_t>(zone) + 1, host.end(), [](char c) {
         return isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '_' || c == '-';
       }));
  if (!zoneIsPlain || inet_pton(AF_INET6, host.substr(0, zone).c_str(), &address) != 1) {
    return refuse(failure, fmt::format("{} is not an IPv6 address.", inQuotes(host)));
  }
  url->host = host;
  const std::string_view rest = text.substr(end + 1);
  if (rest.empty()) return true;
  if (rest.front() != ':') return refuse(failure, "Only a port may follow the “]” of an IPv6 address.");
  return parsePort(rest.substr(1), url, failure);
}

bool parseHost(std::string_view text, RemoteURL* url, Failure* failure) {
  if (!text.empty() && text.front() == '[') return parseBracketedHost(text, url, failure);
  const size_t colon = text.find(':');
  const std::string_view host = text.substr(0, colon);
  if (colon != std::string_view::npos && text.find(':', colon + 1) != std::string_view::npos) {
    return refuse(failure, "There is more than one “:” after the host.",
                  "Write an IPv6 address in brackets: sftp://[::1]/.");
  }
  const bool plain = std::all_of(host.begin(), host.end(), [](char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' || c == '_';
  });
  if (!plain) {
    return refuse(failure, fmt::format("The host {} holds characters that no host name has.", inQuotes(host)),
                  "Write an international name in its xn-- form.");
  }
  if (host.size() > kMaximumHostLength)
    return refuse(failure, "The host name is longer than 253 characters.");
  if (!host.empty() && (host.front() == '-' || host.front() == '.')) {
    return refuse(failure, "A host name cannot begin with “-” or “.”.");
  }
  url->host = std::string(host);
  return colon == std::string_view::npos || parsePort(text.substr(colon + 1), url, failure);
}

// Several slashes count as one, as on any server; one at the end means nothing.
std::string withSingleSlashes(std::string_view path) {
  std::string result;
  for (const char c : path) {
    if (c != '/' || result.empty() || result.back() != '/') result += c;
  }
  if (result.size() > 1 && result.back() == '/') result.pop_back();
  return result;
}

bool hasHomes(uint32_t protocol) {
  return protocol == kProtocolSFTP || protocol == kProtocolFTP || protocol == kProtocolFTPImplicitTLS ||
         protocol == kProtocolFTPExplicitTLS;
}

bool parsePath(std::string_view text, RemoteURL* url, Failure* failure) {
  if (text.empty()) return true;
  std::string path;
  if (!decode(text, "path", &path, failure)) return false;
  path = withSingleSlashes(path);
  const bool belowLogin = path == "/~" || path.starts_with("/~/");
  url->path = belowLogin && hasHomes(url->protocol) ? path.substr(1) : path;
  return true;
}

bool checkCharacters(std::string_view text, Failure* failure) {
  if (text.size() > kMaximumURLLength) return refuse(failure, "It is longer than 8192 bytes.");
  for (const char c : text) {
    if (c == ' ') return refuse(failure, "It holds a blank.", "Write a blank as %20.");
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
      return refuse(failure, "It holds a control character.");
    if (c == '?' || c == '#') {
      return refuse(failure, fmt::format("It holds a “{}”, which has no meaning here.", c),
                    c == '?' ? "Write a “?” in a name as %3F." : "Write a “#” in a name as %23.");
    }
  }
  return true;
}

bool checkFileURL(const RemoteURL& url, Failure* failure) {
  if (url.username || url.port != 0 || !(url.host.empty() || url.host == "localhost")) {
    return refuse(failure, "A file URL names a folder of this machine: no user, host or port.",
                  "Write it as file:///folder.");
  }
  if (!url.path) return refuse(failure, "It names no folder.", "Write it as file:///folder.");
  return true;
}

bool parseBucket(std::string_view text, RemoteURL* url, Failure* failure) {
  if (text.find(':') != std::string_view::npos) {
    return refuse(failure, "An s3:// URL names a bucket; it has no host and no port.",
                  "Name the server with --endpoint, as in --endpoint https://s3.example:9000.");
  }
  const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' || c == '_';
  });
  if (!plain || text.size() > kMaximumHostLength) {
    return refuse(failure, fmt::format("{} is no name of a bucket.", inQuotes(text)),
                  "An S3 URL looks like s3://bucket/folder.");
  }
  // Either would name no bucket in the path of a request.
  if (text == "." || text == "..")
    return refuse(failure, fmt::format("{} is no name of a bucket.", inQuotes(text)));
  url->host = std::string(text);
  return true;
}

bool checkS3URL(const RemoteURL& url, Failure* failure) {
  if (!url.host.empty() || !url.path || *url.path == "/") return true;
  return refuse(failure, "It names a folder, but no bucket.", "An S3 URL looks like s3://bucket/folder.");
}

bool parseAuthority(std::string_view text, RemoteURL* url, Failure* failure) {
  return url->protocol == kProtocolS3 ? parseBucket(text, url, failure) : parseHost(text, url, failure);
}

bool parseInto(std::string_view text, RemoteURL* url, Failure* failure) {
  if (!checkCharacters(text, failure) || !parseScheme(&text, url, failure)) return false;
  const size_t slash = std::min(text.find('/'), text.size());
  std::string_view authority = text.substr(0, slash);
  const size_t at = authority.rfind('@');
  if (at != std::string_view::npos) {
    if (!parseUserInfo(authority.substr(0, at), url, failure)) return false;
    authority.remove_prefix(at + 1);
  }
  if (!parseAuthority(authority, url, failure) || !parsePath(text.substr(slash), url, failure)) return false;
  if (url->protocol == kProtocolFile) return checkFileURL(*url, failure);
  if (url->protocol == kProtocolS3) return checkS3URL(*url, failure);
  return !url->host.empty() || refuse(failure, "The host is missing.");
}

}  // namespace

RemoteURL::~RemoteURL() {
  if (password) wipe(*password);
}

std::optional<RemoteURL> parseRemoteURL(std::string_view text, Failure* failure) {
  RemoteURL url;
  if (!parseInto(text, &url, failure)) return std::nullopt;
  return url;
}

int defaultPortOfProtocol(uint32_t protocol) {
  const auto* found = std::find_if(kSchemes.begin(), kSchemes.end(),
                                   [protocol](const Scheme& scheme) { return scheme.protocol == protocol; });
  return found == kSchemes.end() ? 0 : found->port;
}

std::optional<std::pair<size_t, size_t>> passwordRange(std::string_view text) {
  const size_t scheme = text.find("://");
  if (scheme == std::string_view::npos) return std::nullopt;
  const size_t start = scheme + 3;
  const size_t colon = text.find(':', start);
  // An unescaped "/" in a password is malformed, but it is still a password: look for the last "@" of all.
  const size_t at = text.rfind('@');
  if (colon == std::string_view::npos || at == std::string_view::npos || colon > at || at < start)
    return std::nullopt;
  const size_t slash = text.find('/', start);
  if (slash < colon) return std::nullopt;
  return std::pair(colon + 1, at - colon - 1);
}

}  // namespace ombra
