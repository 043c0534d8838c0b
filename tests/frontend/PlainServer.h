// A server of the tests' own, for one connection at a time.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "frontend/UniqueFd.h"
#include "tests/support/TestCertificates.h"

namespace ombra {

// Listens on a free port of 127.0.0.1 and talks to each visitor as `talk` says, on a thread of its own, until
// it is destroyed.
class PlainServer {
 public:
  // One visitor's connection, blocking; closed afterwards.
  using Talk = std::function<void(int socket)>;
  explicit PlainServer(Talk talk);
  ~PlainServer();
  PlainServer(const PlainServer&) = delete;
  PlainServer& operator=(const PlainServer&) = delete;
  int port() const { return iPort; }

 private:
  void run();

  const Talk iTalk;
  int iPort = 0;
  UniqueFd iListener;
  std::thread iThread;
};

// Both for use within a Talk. The line without its end; empty at the end of the connection.
std::string readLineOf(int socket);
void sayTo(int socket, const std::string& text);

// A TLS handshake as a server on that connection, until the client goes. What the client asked for by name
// (SNI) is stored in `name`, and what it sent after the handshake in `sent`; either may be null.
void serveTLS(int socket, const TestCertificate& certificate, std::string* name = nullptr,
              std::string* sent = nullptr);

}  // namespace ombra
