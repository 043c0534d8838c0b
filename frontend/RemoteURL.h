// The URL that names a remote folder.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "frontend/Failure.h"

namespace ombra {

// The parts of a URL, percent-decoded and checked. Destroying it wipes the password.
struct RemoteURL {
  RemoteURL() = default;
  RemoteURL(const RemoteURL&) = default;
  RemoteURL(RemoteURL&&) = default;
  RemoteURL& operator=(const RemoteURL&) = default;
  RemoteURL& operator=(RemoteURL&&) = default;
  ~RemoteURL();

  std::string scheme;     // lower case
  uint32_t protocol = 0;  // the protocol's four-character code
  std::optional<std::string> username;
  std::optional<std::string> password;
  // Without the brackets of an IPv6 address; the bucket for "s3". Empty only for "file", and for "s3" where
  // all buckets are meant.
  std::string host;
  int port = 0;  // 0 = the protocol's own
  // The start folder: absent = where the login lands; "/…" absolute (for "s3" within the bucket); "~" or
  // "~/…" below the login folder, where the protocol has one.
  std::optional<std::string> path;
};

// Reads a URL "scheme://[user[:password]@]host[:port][/path]". Strict: what is not well-formed is refused
// with a reason rather than guessed at. The failure never holds the password. "s3" names no server:
// "s3://[key[:secret]@][bucket][/path]".
std::optional<RemoteURL> parseRemoteURL(std::string_view text, Failure* failure);

// The port that a protocol has unless another is given; 0 for "file" and "s3".
int defaultPortOfProtocol(uint32_t protocol);

// The place of a password within a text that looks like a URL with one, absent when there is none. Looks at
// the text's shape alone, so that a password is found in malformed URLs too.
std::optional<std::pair<size_t, size_t>> passwordRange(std::string_view text);

}  // namespace ombra
