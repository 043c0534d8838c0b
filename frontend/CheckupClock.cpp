// The clock, which requests to S3 are signed with.
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>

#include "frontend/Checkup.h"
#include "frontend/Deadline.h"
#include "frontend/HTTPSProxy.h"
#include "frontend/RemoteURL.h"
#include "frontend/UniqueFd.h"
#include "remote/net/TCPConnector.h"
#include "remote/tls/CertificateCheck.h"
#include "remote/tls/OpenSSLHandles.h"

namespace ombra {

namespace {

using State = Finding::State;

constexpr const char* kClock = "clock";
constexpr std::chrono::seconds kServerLimit{10};
constexpr uint64_t kSystemBusLimitMicroseconds = 3'000'000;
// Servers refuse what is a quarter of an hour off; long before that something is wrong.
constexpr int64_t kMostSeconds = 5 * 60;
constexpr int64_t kAFewSeconds = 60;
constexpr size_t kLongestHead = 16 * 1024;

// One question to a server and the head of its answer. Nothing secret is sent, so whoever answers may.
class HeadQuestion {
 public:
  HeadQuestion(const RemoteURL& url, int port) : iURL(url), iPort(port), iDeadline(kServerLimit) {}

  std::optional<std::string> ask() {
    NSErrorRef error;
    const WakeUp never;
    const auto deadline = std::chrono::steady_clock::now() + kServerLimit;
    iSocket = iURL.scheme == "https" ? connectForHTTPS(iURL.host, iPort, deadline, &error)
                                     : UniqueFd(connectTCP(iURL.host, iPort, deadline, never, &error));
    if (!iSocket || (iURL.scheme == "https" && !speakTLS())) return std::nullopt;
    const bool isIPv6 = iURL.host.find(':') != std::string::npos;
    const std::string request =
        fmt::format("HEAD / HTTP/1.1\r\nHost: {}:{}\r\nUser-Agent: ombra\r\nConnection: close\r\n\r\n",
                    isIPv6 ? "[" + iURL.host + "]" : iURL.host, iPort);
    if (!send(request)) return std::nullopt;
    return readHead();
  }

 private:
  bool waitFor(short events) const {
    pollfd waiting{iSocket.get(), events, 0};
    return !iDeadline.passed() && poll(&waiting, 1, iDeadline.pollTimeout()) > 0;
  }

  // After a call that did not come to its end: waits for what it needs. False when there is no hope.
  bool mayRepeat(int result) const {
    const int reason = SSL_get_error(iTLS.get(), result);
    if (reason == SSL_ERROR_WANT_READ) return waitFor(POLLIN);
    return reason == SSL_ERROR_WANT_WRITE && waitFor(POLLOUT);
  }

  bool speakTLS() {
    iContext.reset(SSL_CTX_new(TLS_client_method()));
    iTLS.reset(iContext ? SSL_new(iContext.get()) : nullptr);
    if (!iTLS || SSL_set_fd(iTLS.get(), iSocket.get()) != 1) return false;
    if (!isNetworkAddress(iURL.host)) SSL_set_tlsext_host_name(iTLS.get(), iURL.host.c_str());
    int result = SSL_connect(iTLS.get());
    while (result != 1 && mayRepeat(result)) result = SSL_connect(iTLS.get());
    return result == 1;
  }

  // So short that it is taken whole.
  bool send(const std::string& request) {
    const int size = static_cast<int>(request.size());
    if (iTLS) return SSL_write(iTLS.get(), request.data(), size) == size;
    return ::send(iSocket.get(), request.data(), request.size(), MSG_NOSIGNAL) == size;
  }

  int receive(char* buffer, int capacity) {
    if (!iTLS)
      return waitFor(POLLIN) ? static_cast<int>(read(iSocket.get(), buffer, static_cast<size_t>(capacity)))
                             : 0;
    int count = SSL_read(iTLS.get(), buffer, capacity);
    while (count <= 0 && mayRepeat(count)) count = SSL_read(iTLS.get(), buffer, capacity);
    return count;
  }

  std::optional<std::string> readHead() {
    std::string head;
    std::array<char, 2048> buffer{};
    while (head.size() < kLongestHead && head.find("\r\n\r\n") == std::string::npos) {
      const int count = receive(buffer.data(), static_cast<int>(buffer.size()));
      if (count <= 0) break;
      head.append(buffer.data(), static_cast<size_t>(count));
    }
    return head.starts_with("HTTP/") ? std::optional(head) : std::nullopt;
  }

  const RemoteURL& iURL;
  const int iPort;
  const Deadline iDeadline;
  UniqueFd iSocket;
  SSLContextHandle iContext;
  SSLHandle iTLS;
};

Finding compareWith(const std::string& endpoint) {
  Failure failure;
  const auto url = parseRemoteURL(endpoint, &failure);
  if (!url || (url->scheme != "http" && url->scheme != "https")) {
    return {kClock, State::kWrong, fmt::format("{} is no endpoint of S3.", inQuotes(endpoint)),
            "An endpoint looks like https://s3.example or http://localhost:9000."};
  }
  const auto head =
      HeadQuestion(*url, url->port != 0 ? url->port : defaultPortOfProtocol(url->protocol)).ask();
  if (!head) {
    return {kClock, State::kWrong, fmt::format("The server {} does not answer.", inQuotes(url->host)),
            "Check the endpoint and the network connection."};
  }
  const auto date = dateInHTTPHead(*head);
  if (!date)
    return {kClock, State::kNote, fmt::format("{} does not tell the time.", inQuotes(url->host)), ""};
  const int64_t difference = std::abs(static_cast<int64_t>(time(nullptr)) - *date);
  const std::string text =
      fmt::format("It differs by {} seconds from that of {}.", difference, inQuotes(url->host));
  if (difference <= kAFewSeconds) return {kClock, State::kGood, text, ""};
  return {kClock, difference > kMostSeconds ? State::kWrong : State::kNote, text,
          "Run: sudo timedatectl set-ntp true"};
}

// Whether the clock is kept right, as the system's own service says; absent when it says nothing.
std::optional<bool> isSynchronized() {
  sd_bus* raw = nullptr;
  if (sd_bus_new(&raw) < 0) return std::nullopt;
  const std::unique_ptr<sd_bus, decltype(&sd_bus_flush_close_unref)> bus(raw, &sd_bus_flush_close_unref);
  const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  if (sd_bus_set_address(raw, address == nullptr ? "unix:path=/run/dbus/system_bus_socket" : address) < 0 ||
      sd_bus_set_bus_client(raw, 1) < 0 ||
      sd_bus_set_method_call_timeout(raw, kSystemBusLimitMicroseconds) < 0 || sd_bus_start(raw) < 0)
    return std::nullopt;
  int value = 0;
  sd_bus_error error{};
  const int result =
      sd_bus_get_property_trivial(raw, "org.freedesktop.timedate1", "/org/freedesktop/timedate1",
                                  "org.freedesktop.timedate1", "NTPSynchronized", &error, 'b', &value);
  sd_bus_error_free(&error);
  return result < 0 ? std::nullopt : std::optional(value != 0);
}

}  // namespace

std::optional<int64_t> dateInHTTPHead(const std::string& head) {
  size_t start = 0;
  while ((start = head.find("\r\n", start)) != std::string::npos) {
    start += 2;
    if (strncasecmp(head.c_str() + start, "date:", 5) != 0) continue;
    std::tm parts{};
    const size_t value = head.find_first_not_of(" \t", start + 5);
    if (value == std::string::npos ||
        strptime(head.c_str() + value, "%a, %d %b %Y %H:%M:%S GMT", &parts) == nullptr)
      return std::nullopt;
    return timegm(&parts);
  }
  return std::nullopt;
}

Finding checkClock(const std::optional<std::string>& endpoint) {
  if (endpoint) return compareWith(*endpoint);
  const auto synchronized = isSynchronized();
  if (!synchronized) {
    return {kClock, State::kNote, "The system does not tell whether its clock is kept right.",
            "To compare it with a server: ombra doctor --endpoint URL"};
  }
  if (*synchronized) return {kClock, State::kGood, "It is kept right by time servers.", ""};
  return {kClock, State::kNote, "It is not kept right by time servers; S3 needs a clock that is.",
          "Run: sudo timedatectl set-ntp true"};
}

}  // namespace ombra
