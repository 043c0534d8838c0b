// Detached threads that are kept between one body and the next.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "platform/foundation/Mutex.h"

namespace ombra {

// Starting a thread costs some ten system calls, a fresh heap and fresh random numbers, more than what it
// does for a small file. So a few threads whose bodies have ended wait here for another one:
//
//   started --its body ends, a seat is free--> parked --gets a body--> running --…
//              └─all seats are taken--> ends
//
// A thread that is parked has nothing of the body before: its name, its dictionary and all that was captured
// are gone. Parked threads are never joined; one that still waits when the process ends is no loss.
// Thread-safe.
class ThreadPark {
 public:
  // `carryOut` runs a body, lets go of it, and leaves nothing of it on the thread. It must not throw.
  ThreadPark(size_t seats, void (*carryOut)(std::function<void()> body));
  ThreadPark(const ThreadPark&) = delete;
  ThreadPark& operator=(const ThreadPark&) = delete;

  // Runs `body` on the thread that was parked last or on a new one. Throws std::system_error when there is
  // neither; `body` has not run then.
  void run(std::function<void()> body) EXCLUDES(iLock);
  size_t parked() const EXCLUDES(iLock);

 private:
  class Seat;

  std::shared_ptr<Seat> takeSeat() EXCLUDES(iLock);
  bool park(const std::shared_ptr<Seat>& seat) EXCLUDES(iLock);
  void live(std::function<void()> body);

  const size_t iSeats;
  void (*const iCarryOut)(std::function<void()> body);
  mutable Mutex iLock;
  std::vector<std::shared_ptr<Seat>> iParked GUARDED_BY(iLock);
};

}  // namespace ombra
