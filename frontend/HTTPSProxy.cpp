#include "frontend/HTTPSProxy.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <initializer_list>
#include <string_view>

#include "frontend/ProbeConnection.h"
#include "platform/foundation/ASCII.h"
#include "remote/URLEncoding.h"
#include "remote/net/LoopbackName.h"
#include "remote/net/TCPConnector.h"
#include "remote/tls/DigestText.h"

namespace ombra {

namespace {

// More than any proxy says before it opens a tunnel.
constexpr size_t kLongestAnswer = 16 * 1024;
// libcurl's own, where none is named.
constexpr int kPortOfProxy = 1080;

std::string variable(std::initializer_list<const char*> names) {
  for (const char* name : names) {
    const char* value = std::getenv(name);
    if (value != nullptr && *value != '\0') return value;
  }
  return {};
}

// An address as its bytes; empty for names.
std::string bytesOfAddress(const std::string& text) {
  std::array<char, sizeof(in6_addr)> bytes{};
  if (inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) return {bytes.data(), sizeof(in_addr)};
  if (inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) return {bytes.data(), sizeof(in6_addr)};
  return {};
}

// "10.0.0.0/8", or a single address.
bool isInNetwork(const std::string& address, const std::string& network) {
  const size_t slash = std::min(network.find('/'), network.size());
  const std::string bytes = bytesOfAddress(network.substr(0, slash));
  if (bytes.empty() || bytes.size() != address.size()) return false;
  size_t bits = bytes.size() * 8;
  if (slash < network.size()) {
    const char* const end = network.data() + network.size();
    const auto result = std::from_chars(network.data() + slash + 1, end, bits);
    if (result.ec != std::errc() || result.ptr != end || bits > bytes.size() * 8) return false;
  }
  if (address.compare(0, bits / 8, bytes, 0, bits / 8) != 0) return false;
  const unsigned mask = 0xFF00U >> (bits % 8) & 0xFF;
  return bits % 8 == 0 ||
         ((static_cast<unsigned char>(address[bits / 8]) ^ static_cast<unsigned char>(bytes[bits / 8])) &
          mask) == 0;
}

std::string_view withoutDotsAround(std::string_view name) {
  if (name.starts_with('.')) name.remove_prefix(1);
  if (name.ends_with('.')) name.remove_suffix(1);
  return name;
}

// Names stand for themselves and all below them, addresses for their network.
bool isExcepted(const std::string& host) {
  const std::string list = lowercasedASCII(variable({"no_proxy", "NO_PROXY"}));
  if (list == "*") return true;
  const std::string address = bytesOfAddress(host);
  const std::string wanted(withoutDotsAround(host));
  for (size_t at = 0; at < list.size();) {
    const size_t end = std::min(list.find_first_of(", \t", at), list.size());
    const std::string entry = list.substr(at, end - at);
    at = end + 1;
    const std::string name(withoutDotsAround(entry));
    if (name.empty()) continue;
    if (address.empty() ? wanted == name || wanted.ends_with("." + name) : isInNetwork(address, entry))
      return true;
  }
  return false;
}

// The name and the password in front of a host go into a header.
std::string takeAuthorization(std::string_view* authority) {
  const size_t at = authority->rfind('@');
  if (at == std::string_view::npos) return {};
  std::string user = percentDecoded(authority->substr(0, at));
  authority->remove_prefix(at + 1);
  if (user.find(':') == std::string::npos) user += ':';
  return "Basic " + base64Text(user);
}

// "host", "host:8080", "[::1]:8080".
bool readAuthority(std::string_view authority, HTTPSProxy* proxy) {
  const bool isBracketed = authority.starts_with('[');
  const size_t end = std::min(authority.find(isBracketed ? ']' : ':'), authority.size());
  proxy->host = authority.substr(isBracketed ? 1 : 0, end - (isBracketed ? 1 : 0));
  std::string_view rest = authority.substr(end);
  if (isBracketed && rest.starts_with(']')) rest.remove_prefix(1);
  proxy->port = kPortOfProxy;
  if (proxy->host.empty() || rest.empty()) return !proxy->host.empty();
  const char* const last = rest.data() + rest.size();
  const auto result = std::from_chars(rest.data() + 1, last, proxy->port);
  return rest.front() == ':' && result.ec == std::errc() && result.ptr == last && proxy->port > 0 &&
         proxy->port < 65536;
}

// The first line of the answer's head, once all of it has come; empty, with the error, when it does not end.
std::string readHead(ProbeConnection& connection, const HTTPSProxy& proxy, NSErrorRef* error) {
  std::string status, line;
  for (size_t length = 0; length < kLongestAnswer; ++length) {
    const auto byte = connection.readByte("the proxy " + proxy.host + " hung up");
    if (!byte) return {};
    if (*byte != '\n') {
      line += *byte;
      continue;
    }
    if (line.ends_with('\r')) line.pop_back();
    if (line.empty()) return status;
    if (status.empty()) status = line;
    line.clear();
  }
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitCouldNotConnect,
                                                 "the proxy " + proxy.host + " talks without end"));
  return {};
}

// True when the next bytes on the socket are the server's; else the error is filled, with the proxy's words.
bool openTunnel(int socket, const HTTPSProxy& proxy, const std::string& host, int port,
                std::chrono::steady_clock::time_point deadline, NSErrorRef* error) {
  const bool isIPv6 = host.find(':') != std::string::npos;
  const std::string place = (isIPv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
  std::string request = fmt::format("CONNECT {} HTTP/1.1\r\nHost: {}\r\n", place, place);
  if (!proxy.authorization.empty()) request += "Proxy-Authorization: " + proxy.authorization + "\r\n";
  ProbeConnection connection(socket, "the proxy " + proxy.host, deadline, error);
  if (!connection.send(request + "\r\n")) return false;
  const std::string status = readHead(connection, proxy, error);
  if (status.empty()) return false;
  if (status.starts_with("HTTP/1.") && status.find(" 2") == 8) return true;
  storeError(error, QuarnKitError::errorWithCode(
                        kQuarnKitCouldNotConnect,
                        fmt::format("the proxy {} opens no tunnel: {}", proxy.host, status.substr(0, 256))));
  return false;
}

}  // namespace

std::optional<HTTPSProxy> HTTPSProxy::forHost(const std::string& host) {
  const std::string text = variable({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"});
  const std::string wanted = lowercasedASCII(host);
  if (text.empty() || isLoopbackName(wanted) || isExcepted(wanted)) return std::nullopt;
  constexpr std::string_view kScheme = "http://";
  std::string_view authority = text;
  const bool hasScheme = authority.find("://") != std::string_view::npos;
  if (hasScheme && !lowercasedASCII(authority).starts_with(kScheme)) return std::nullopt;
  if (hasScheme) authority.remove_prefix(kScheme.size());
  authority = authority.substr(0, authority.find('/'));
  HTTPSProxy proxy;
  proxy.authorization = takeAuthorization(&authority);
  return readAuthority(authority, &proxy) ? std::optional(proxy) : std::nullopt;
}

UniqueFd connectForHTTPS(const std::string& host, int port, std::chrono::steady_clock::time_point deadline,
                         NSErrorRef* error) {
  const WakeUp never;
  const auto proxy = HTTPSProxy::forHost(host);
  if (!proxy) return UniqueFd(connectTCP(host, port, deadline, never, error));
  UniqueFd socket(connectTCP(proxy->host, proxy->port, deadline, never, error));
  if (!socket || !openTunnel(socket.get(), *proxy, host, port, deadline, error)) return {};
  return socket;
}

}  // namespace ombra
