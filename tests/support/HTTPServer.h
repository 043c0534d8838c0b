// A server over HTTP that says what a test wants it to say.
//
//   HTTPServer server([](const HTTPSeen& seen) { return httpReply(200, "hello"); });
//   ... server.url("/path") ...
//   EXPECT_EQ(server.seen().size(), 1u);
#pragma once

#include <functional>
#include <future>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/NSCondition.h"

namespace ombra {

// A request as it arrived.
struct HTTPSeen {
  std::string method;
  std::string target;
  std::map<std::string, std::string, std::less<>> headers;  // names in lower case
  std::string body;
  bool hasWholeBody = true;  // false when the connection ended before
  int connection = 0;        // counted from 1

  // Empty when there is none.
  std::string header(std::string_view name) const;
};

// What goes back, byte for byte.
struct HTTPReply {
  std::string bytes;
  // Further bytes, that wait for the test's word; none when it is not valid.
  std::string later;
  std::shared_future<void> when;
  // The connection ends behind it.
  bool closes = false;
};

// An answer with a length. `headers`: lines, each with its line end.
HTTPReply httpReply(int status, const std::string& body = {}, const std::string& headers = {});
// Nothing at all: the connection stays open, and silent.
HTTPReply httpSilence();
// Nothing, and the connection ends.
HTTPReply httpHangUp();

// Serves each connection on a thread of its own, which ends with the object.
class HTTPServer {
 public:
  using Script = std::function<HTTPReply(const HTTPSeen& seen)>;
  explicit HTTPServer(Script script);
  ~HTTPServer();
  HTTPServer(const HTTPServer&) = delete;
  HTTPServer& operator=(const HTTPServer&) = delete;

  int port() const { return iPort; }
  std::string url(const std::string& target) const {
    return "http://127.0.0.1:" + std::to_string(iPort) + target;
  }
  // The requests so far, also those whose body did not arrive as a whole.
  std::vector<HTTPSeen> seen() const EXCLUDES(iCondition);
  // "PUT /a", in their order.
  std::vector<std::string> lines() const EXCLUDES(iCondition);
  // Returns when so many have arrived.
  void waitForRequests(size_t count) const EXCLUDES(iCondition);
  // Connections that were made.
  int connections() const EXCLUDES(iCondition);
  // Answered as soon as the head is there, without a look at the body; the connection ends behind it. Whoever
  // asks for leave to send a body, and is not answered so, gets it.
  void setBeforeBody(std::function<std::optional<HTTPReply>(const HTTPSeen& head)> script) {
    iBeforeBody = std::move(script);
  }
  // Ends all connections, and takes no more.
  void stop() EXCLUDES(iCondition);

 private:
  void acceptAll();
  void serve(int socket, int number);
  void note(const HTTPSeen& seen) EXCLUDES(iCondition);
  bool send(int socket, const HTTPReply& reply);

  const Script iScript;
  std::function<std::optional<HTTPReply>(const HTTPSeen&)> iBeforeBody;
  int iListener = -1;
  int iPort = 0;
  mutable NSCondition iCondition;
  std::vector<HTTPSeen> iSeen GUARDED_BY(iCondition);
  std::vector<int> iSockets GUARDED_BY(iCondition);
  std::list<std::thread> iThreads GUARDED_BY(iCondition);
  bool iStopped GUARDED_BY(iCondition) = false;
  int iConnections GUARDED_BY(iCondition) = 0;
  std::thread iAcceptor;
};

}  // namespace ombra
