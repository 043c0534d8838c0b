// A TCP proxy that spoils connections on demand.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "remote/net/WakeUp.h"

namespace ombra::test {

// Listens on a port of its own and passes each connection on to `target`, on a thread that ends with the
// object.
class FaultProxy {
 public:
  explicit FaultProxy(int target);
  ~FaultProxy();
  FaultProxy(const FaultProxy&) = delete;
  FaultProxy& operator=(const FaultProxy&) = delete;

  int port() const { return iPort; }
  // Bytes that came from the server so far, over all connections.
  uint64_t arrived() const { return iArrived.load(); }
  // Closes the connection once so many bytes have come from the server, in all.
  void cutAfter(uint64_t bytes) { iCutAfter.store(bytes); }
  // Passes nothing on any more in either direction, without closing, once so many bytes have come.
  void stallAfter(uint64_t bytes) { iStallAfter.store(bytes); }
  // Passes on at most so many bytes at a time.
  void fragment(size_t bytes) { iPiece.store(bytes); }
  // Closes connections as soon as they are accepted, and says `greeting` before.
  void refuseWith(const char* greeting) { iGreeting.store(greeting); }

 private:
  void run();
  void serve(int client);
  bool pass(int from, int to, bool fromServer);

  const int iTarget;
  int iListener = -1;
  int iPort = 0;
  WakeUp iEnd;
  std::atomic<uint64_t> iArrived{0};
  std::atomic<uint64_t> iCutAfter{UINT64_MAX};
  std::atomic<uint64_t> iStallAfter{UINT64_MAX};
  std::atomic<size_t> iPiece{SIZE_MAX};
  std::atomic<const char*> iGreeting{nullptr};
  std::thread iThread;  // joined by the destructor
};

}  // namespace ombra::test
