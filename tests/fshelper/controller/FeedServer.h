// A server of feeds over https.
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "tests/support/TestCertificates.h"

namespace ombra {

// Answers one connection after the other, on a thread of its own, which ends with the object.
class FeedServer {
 public:
  // What to answer a request for that target, byte for byte; absent: nothing, until the client goes. What
  // comes without the connection's end is followed by silence too.
  struct Answer {
    std::string bytes;
    bool closes = true;
  };
  using Script = std::function<std::optional<Answer>(const std::string& target)>;
  FeedServer(TestCertificate certificate, Script script);
  ~FeedServer();
  FeedServer(const FeedServer&) = delete;
  FeedServer& operator=(const FeedServer&) = delete;

  std::string url(const std::string& target) const {
    return "https://127.0.0.1:" + std::to_string(iPort) + target;
  }
  int port() const { return iPort; }
  std::vector<std::string> targets() const EXCLUDES(iLock);
  // Returns when the first request has arrived.
  void waitForRequest() { iArrived.get_future().wait(); }

  // A whole answer.
  static Answer reply(int status, const std::string& body, const std::string& headers = {});

 private:
  void run();
  void serve(int socket);

  const TestCertificate iCertificate;
  const Script iScript;
  int iPort = 0;  // before the listener, which tells it
  int iListener = -1;
  std::promise<void> iArrived;
  mutable Mutex iLock;
  std::vector<std::string> iTargets GUARDED_BY(iLock);
  int iVisitor GUARDED_BY(iLock) = -1;
  bool iEnds GUARDED_BY(iLock) = false;
  std::thread iThread;
};

// Connections to it are made, and wait in its queue: nobody takes them.
class DeafPort {
 public:
  DeafPort();
  ~DeafPort();
  DeafPort(const DeafPort&) = delete;
  DeafPort& operator=(const DeafPort&) = delete;
  std::string url() const { return "https://127.0.0.1:" + std::to_string(iPort) + "/"; }

 private:
  int iPort = 0;  // before the listener, which tells it
  int iListener = -1;
};

}  // namespace ombra
