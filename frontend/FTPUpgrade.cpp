#include "frontend/FTPUpgrade.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "remote/QuarnKitError.h"
#include "remote/ftp/FTPReply.h"

namespace ombra {

namespace {

using SteadyClock = std::chrono::steady_clock;

// More than any greeting; a server that talks on is no FTP server.
constexpr size_t kLongestReply = 16 * 1024;

bool failUpgrade(NSErrorRef* error, QuarnKitErrorCode code, const std::string& detail) {
  storeError(error, QuarnKitError::errorWithCode(code, detail));
  return false;
}

class ControlConnection {
 public:
  ControlConnection(int socket, SteadyClock::time_point deadline, NSErrorRef* error)
      : iSocket(socket), iDeadline(deadline), iError(error) {}

  // Byte by byte: what follows the last line belongs to TLS.
  std::optional<FTPReply> reply() {
    FTPReplyParser parser;
    std::string line;
    for (size_t length = 0; length <= kLongestReply && !parser.isBroken(); ++length) {
      const auto byte = readByte(line);
      if (!byte) return std::nullopt;
      *byte == '\n' ? line.clear() : line.push_back(*byte);
      parser.add({&*byte, 1});
      if (auto reply = parser.next()) return reply;
    }
    failUpgrade(iError, kQuarnKitProtocolError, "this is no FTP server");
    return std::nullopt;
  }

  bool send(std::string_view text) {
    while (!text.empty()) {
      const ssize_t count = ::send(iSocket, text.data(), text.size(), MSG_NOSIGNAL);
      if (count >= 0) {
        text.remove_prefix(static_cast<size_t>(count));
      } else if (!mayGoOn(POLLOUT)) {
        return false;
      }
    }
    return true;
  }

 private:
  // `line`: what came before it, for the error.
  std::optional<char> readByte(const std::string& line) {
    while (true) {
      char byte = 0;
      const ssize_t count = recv(iSocket, &byte, 1, 0);
      if (count > 0) return byte;
      if (count == 0) failUpgrade(iError, kQuarnKitConnectionLost, line);
      if (count == 0 || !mayGoOn(POLLIN)) return std::nullopt;
    }
  }

  // After a call that gave nothing: waits until it is worth another try. Looks at errno.
  bool mayGoOn(short events) {
    if (errno == EINTR) return true;
    if (errno != EAGAIN && errno != EWOULDBLOCK)
      return failUpgrade(iError, kQuarnKitConnectionLost, std::strerror(errno));
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(iDeadline - SteadyClock::now());
    pollfd descriptor{iSocket, events, 0};
    const int ready = poll(&descriptor, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
    if (ready > 0 || (ready < 0 && errno == EINTR)) return true;
    return failUpgrade(iError, kQuarnKitTimedOut, "the FTP server did not answer");
  }

  const int iSocket;
  const SteadyClock::time_point iDeadline;
  NSErrorRef* const iError;
};

// The last line as it came.
std::string lastLineOf(const FTPReply& reply) {
  std::string line = std::to_string(reply.code);
  if (!reply.text().empty()) line.append(" ").append(reply.text());
  return line;
}

}  // namespace

bool upgradeFTP(int socket, SteadyClock::time_point deadline, NSErrorRef* error) {
  ControlConnection connection(socket, deadline, error);
  auto reply = connection.reply();
  // 120 announces a greeting that is to come.
  if (reply && reply->code == 120) reply = connection.reply();
  if (!reply) return false;
  if (reply->code == 421 || reply->code == 530)
    return failUpgrade(error, kQuarnKitTooManyConnections, lastLineOf(*reply));
  if (reply->code != 220) return failUpgrade(error, kQuarnKitRefused, lastLineOf(*reply));
  if (!connection.send("AUTH TLS\r\n")) return false;
  reply = connection.reply();
  if (!reply) return false;
  return reply->code == 234 || failUpgrade(error, kQuarnKitNotSupported, lastLineOf(*reply));
}

}  // namespace ombra
