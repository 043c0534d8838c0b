#include "tests/support/HTTPServer.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "platform/foundation/ASCII.h"
#include "tests/support/Loopback.h"

namespace ombra {
namespace {

// Reads a connection's bytes as a sequence of requests.
class RequestReader {
 public:
  explicit RequestReader(int socket) : iSocket(socket) {}

  // False at the end of the connection.
  bool readHead(HTTPSeen* seen) {
    while (iBytes.find("\r\n\r\n") == std::string::npos) {
      if (!readMore()) return false;
    }
    const size_t end = iBytes.find("\r\n\r\n");
    parseHead(iBytes.substr(0, end + 2), seen);
    iBytes.erase(0, end + 4);
    return true;
  }

  bool readBody(HTTPSeen* seen) {
    if (lowercasedASCII(seen->header("transfer-encoding")) == "chunked") return readChunks(&seen->body);
    const std::string length = seen->header("content-length");
    return readExactly(length.empty() ? 0 : std::stoull(length), &seen->body);
  }

 private:
  bool readMore() {
    std::array<char, 65536> buffer{};
    const ssize_t count = recv(iSocket, buffer.data(), buffer.size(), 0);
    if (count <= 0) return false;
    iBytes.append(buffer.data(), static_cast<size_t>(count));
    return true;
  }

  // What is there counts also when the rest never comes.
  bool readExactly(size_t length, std::string* into) {
    while (iBytes.size() < length) {
      if (!readMore()) {
        *into += iBytes;
        return false;
      }
    }
    *into += iBytes.substr(0, length);
    iBytes.erase(0, length);
    return true;
  }

  bool readLine(std::string* line) {
    while (iBytes.find("\r\n") == std::string::npos) {
      if (!readMore()) return false;
    }
    const size_t end = iBytes.find("\r\n");
    *line = iBytes.substr(0, end);
    iBytes.erase(0, end + 2);
    return true;
  }

  bool readChunks(std::string* body) {
    while (true) {
      std::string line;
      if (!readLine(&line)) return false;
      const size_t length = std::stoull(line, nullptr, 16);
      if (!readExactly(length, body) || !readLine(&line)) return false;
      if (length == 0) return true;
    }
  }

  static void parseHead(const std::string& head, HTTPSeen* seen) {
    size_t from = 0;
    bool isFirst = true;
    while (from < head.size()) {
      const size_t end = head.find("\r\n", from);
      const std::string line = head.substr(from, end - from);
      from = end + 2;
      if (isFirst) {
        seen->method = line.substr(0, line.find(' '));
        seen->target = line.substr(seen->method.size() + 1, line.rfind(' ') - seen->method.size() - 1);
        isFirst = false;
        continue;
      }
      const size_t colon = line.find(':');
      const size_t value = line.find_first_not_of(' ', colon + 1);
      seen->headers[lowercasedASCII(line.substr(0, colon))] =
          value == std::string::npos ? "" : line.substr(value);
    }
  }

  const int iSocket;
  std::string iBytes;
};

bool sendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

}  // namespace

std::string HTTPSeen::header(std::string_view name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? std::string() : found->second;
}

HTTPReply httpReply(int status, const std::string& body, const std::string& headers) {
  const bool hasNoBody = status == 204 || status == 304;
  const std::string length = hasNoBody ? "" : fmt::format("Content-Length: {}\r\n", body.size());
  HTTPReply reply;
  reply.bytes = fmt::format("HTTP/1.1 {} Whatever\r\n{}{}\r\n{}", status, headers, length, body);
  return reply;
}

HTTPReply httpSilence() { return {}; }

HTTPReply httpHangUp() {
  HTTPReply reply;
  reply.closes = true;
  return reply;
}

HTTPServer::HTTPServer(Script script) : iScript(std::move(script)) {
  iListener = listenOnLoopback(&iPort);
  if (iListener < 0) throw std::runtime_error("no port of this machine can be listened on");
  iAcceptor = std::thread([this] { acceptAll(); });
}

HTTPServer::~HTTPServer() {
  stop();
  std::list<std::thread> threads;
  {
    ConditionLock lock(iCondition);
    threads.swap(iThreads);
  }
  for (std::thread& thread : threads) thread.join();
}

void HTTPServer::stop() {
  {
    ConditionLock lock(iCondition);
    if (iStopped) return;
    iStopped = true;
    for (const int open : iSockets) shutdown(open, SHUT_RDWR);
    iCondition.broadcast();
  }
  shutdown(iListener, SHUT_RDWR);
  iAcceptor.join();
  close(iListener);
}

void HTTPServer::acceptAll() {
  while (true) {
    const int accepted = accept4(iListener, nullptr, nullptr, SOCK_CLOEXEC);
    if (accepted < 0) return;
    const int one = 1;
    setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    ConditionLock lock(iCondition);
    if (iStopped) {
      close(accepted);
      return;
    }
    iSockets.push_back(accepted);
    const int number = ++iConnections;
    iThreads.emplace_back([this, accepted, number] { serve(accepted, number); });
  }
}

void HTTPServer::serve(int socket, int number) {
  RequestReader reader(socket);
  bool goesOn = true;
  while (goesOn) {
    HTTPSeen seen;
    seen.connection = number;
    if (!reader.readHead(&seen)) break;
    const std::optional<HTTPReply> early = iBeforeBody ? iBeforeBody(seen) : std::nullopt;
    if (early) {
      note(seen);
      send(socket, *early);
      // A connection that is closed with bytes unread is reset, and the answer with it.
      shutdown(socket, SHUT_WR);
      seen.hasWholeBody = reader.readBody(&seen);
      break;
    }
    if (seen.header("expect") == "100-continue" && !sendAll(socket, "HTTP/1.1 100 Continue\r\n\r\n")) break;
    seen.hasWholeBody = reader.readBody(&seen);
    // The script knows before the test does.
    const HTTPReply reply = seen.hasWholeBody ? iScript(seen) : httpHangUp();
    note(seen);
    goesOn = send(socket, reply);
  }
  ConditionLock lock(iCondition);
  std::erase(iSockets, socket);
  close(socket);
}

bool HTTPServer::send(int socket, const HTTPReply& reply) {
  if (!sendAll(socket, reply.bytes)) return false;
  if (reply.when.valid()) {
    while (reply.when.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) {
      ConditionLock lock(iCondition);
      if (iStopped) return false;
    }
    if (!sendAll(socket, reply.later)) return false;
  }
  return !reply.closes;
}

void HTTPServer::note(const HTTPSeen& seen) {
  ConditionLock lock(iCondition);
  iSeen.push_back(seen);
  iCondition.broadcast();
}

std::vector<HTTPSeen> HTTPServer::seen() const {
  ConditionLock lock(iCondition);
  return iSeen;
}

std::vector<std::string> HTTPServer::lines() const {
  ConditionLock lock(iCondition);
  std::vector<std::string> result;
  for (const HTTPSeen& seen : iSeen) result.push_back(seen.method + " " + seen.target);
  return result;
}

void HTTPServer::waitForRequests(size_t count) const {
  ConditionLock lock(iCondition);
  while (iSeen.size() < count && !iStopped) iCondition.wait();
}

int HTTPServer::connections() const {
  ConditionLock lock(iCondition);
  return iConnections;
}

}  // namespace ombra
