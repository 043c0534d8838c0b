// How the bytes of the file protocol travel.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>

#include "platform/foundation/NSError.h"

namespace ombra {

// A connection that carries bytes both ways. One thread at a time, except `interrupt`. Errors are library
// errors.
class SFTPTransport {
 public:
  class Receiver {
   public:
    virtual ~Receiver() = default;
    // The next bytes from the server. Must not call the transport.
    virtual void received(std::span<const std::byte> bytes) = 0;
  };

  virtual ~SFTPTransport() = default;

  // Connects and logs in; blocks for at most the connect limit that the transport was made with.
  [[nodiscard]] virtual bool open(NSErrorRef* error) = 0;
  // Takes from `outgoing` what can be sent now and hands over what has arrived. Waits for at most `limit`
  // when neither is possible at once.
  struct Exchanged {
    size_t sent = 0;         // bytes taken from `outgoing`
    bool moved = false;      // at least one byte travelled in one of the directions
    bool isPending = false;  // bytes that were taken have not all left yet
  };
  // Absent, with the error filled, when the connection has ended; what arrived before was handed over.
  virtual std::optional<Exchanged> exchange(std::span<const std::byte> outgoing,
                                            std::chrono::milliseconds limit, Receiver& receiver,
                                            NSErrorRef* error) = 0;
  // What the time is by the clock that tells how long replies take, and for how long nothing has moved. Any
  // thread.
  virtual std::chrono::steady_clock::time_point now() const { return std::chrono::steady_clock::now(); }
  // Whether `exchange` may be called on another thread as long as the calls do not overlap.
  virtual bool canChangeThreads() const { return false; }
  // Ends a running `open` or `exchange` soon, and every later one. Any thread.
  virtual void interrupt() = 0;
};

}  // namespace ombra
