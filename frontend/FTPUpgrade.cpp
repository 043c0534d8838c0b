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

namespace ombra {

namespace {

using SteadyClock = std::chrono::steady_clock;

// More than any greeting; a server that talks on is no FTP server.
constexpr size_t kLongestReply = 16 * 1024;

bool failUpgrade(NSErrorRef* error, QuarnKitErrorCode code, const std::string& detail) {
  storeError(error, QuarnKitError::errorWithCode(code, detail));
  return false;
}

struct Reply {
  int code = 0;
  std::string lastLine;
};

class ControlConnection {
 public:
  ControlConnection(int socket, SteadyClock::time_point deadline, NSErrorRef* error)
      : iSocket(socket), iDeadline(deadline), iError(error) {}

  // The last line of a reply begins with the code of the first one and a blank.
  std::optional<Reply> reply() {
    std::string code;
    for (size_t length = 0; length <= kLongestReply;) {
      const auto line = readLine();
      if (!line) return std::nullopt;
      if (code.empty() && !beginsWithCode(*line)) break;
      if (code.empty()) code = line->substr(0, 3);
      if (*line == code || line->starts_with(code + " ")) return Reply{std::stoi(code), *line};
      length += line->size() + 1;
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
  static bool beginsWithCode(std::string_view line) {
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    return line.size() >= 3 && std::all_of(line.begin(), line.begin() + 3, isDigit);
  }

  // Without its end. Byte by byte: what follows the last line belongs to TLS.
  std::optional<std::string> readLine() {
    std::string line;
    while (line.size() <= kLongestReply) {
      char c = 0;
      const ssize_t count = recv(iSocket, &c, 1, 0);
      if (count == 0) {
        failUpgrade(iError, kQuarnKitConnectionLost, line);
        return std::nullopt;
      }
      if (count < 0) {
        if (!mayGoOn(POLLIN)) return std::nullopt;
      } else if (c == '\n') {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return line;
      } else {
        line += c;
      }
    }
    failUpgrade(iError, kQuarnKitProtocolError, "this is no FTP server");
    return std::nullopt;
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

}  // namespace

bool upgradeFTP(int socket, SteadyClock::time_point deadline, NSErrorRef* error) {
  ControlConnection connection(socket, deadline, error);
  auto reply = connection.reply();
  // 120 announces a greeting that is to come.
  if (reply && reply->code == 120) reply = connection.reply();
  if (!reply) return false;
  if (reply->code == 421 || reply->code == 530)
    return failUpgrade(error, kQuarnKitTooManyConnections, reply->lastLine);
  if (reply->code != 220) return failUpgrade(error, kQuarnKitRefused, reply->lastLine);
  if (!connection.send("AUTH TLS\r\n")) return false;
  reply = connection.reply();
  if (!reply) return false;
  return reply->code == 234 || failUpgrade(error, kQuarnKitNotSupported, reply->lastLine);
}

}  // namespace ombra
