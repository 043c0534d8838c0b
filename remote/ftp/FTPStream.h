// A connected socket, plain or under TLS, that never waits.
#pragma once

#include <cstddef>
#include <string>

#include "remote/tls/OpenSSLHandles.h"

namespace ombra {

// Owns the socket. After kWait, poll `descriptor()` for `events()` and call again with the same bytes. Of one
// thread.
class FTPStream {
 public:
  enum class Outcome {
    kDone,
    kWait,
    kEnd,     // the other side has ended its direction
    kFailed,  // `problem()` says why
  };

  // A non-blocking, connected socket.
  explicit FTPStream(int socket) : iSocket(socket) {}
  ~FTPStream();
  FTPStream(const FTPStream&) = delete;
  FTPStream& operator=(const FTPStream&) = delete;

  int descriptor() const { return iSocket; }
  // What the last kWait waits for, as poll takes it.
  short events() const { return iEvents; }
  // Why the last kFailed, in the system's or the library's words.
  const std::string& problem() const { return iProblem; }
  SSL* tls() const { return iTLS.get(); }

  // From here on under TLS; `handshake` is called until it is done, and never answers kEnd.
  void encrypt(SSLHandle tls);
  Outcome handshake();

  // Takes what has arrived, up to `capacity` bytes; `count` of them when done, which is never 0 then.
  Outcome receive(void* buffer, size_t capacity, size_t* count);
  // Sends some of the bytes; `count` of them when done.
  Outcome send(const void* bytes, size_t length, size_t* count);
  // Tells the other side that all has been sent. It can still be received from. kDone or kWait.
  Outcome endSending();
  // The other side is to notice that this was no proper end: closing sends a reset.
  void breakOff();

 private:
  Outcome outcomeOfTLS(int result);
  Outcome fail(int errorNumber);

  const int iSocket;
  SSLHandle iTLS;
  short iEvents = 0;
  bool iIsBroken = false;
  std::string iProblem;
};

}  // namespace ombra
