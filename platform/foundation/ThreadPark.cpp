#include "platform/foundation/ThreadPark.h"

#include <semaphore.h>

#include <thread>
#include <utility>

namespace ombra {

// Where one thread waits; each has its own, so that only the one that is meant wakes. A semaphore, since a
// wake-up by a condition makes both sides call the system once more for the lock.
class ThreadPark::Seat {
 public:
  Seat() { ::sem_init(&iGiven, 0, 0); }
  ~Seat() { ::sem_destroy(&iGiven); }
  Seat(const Seat&) = delete;
  Seat& operator=(const Seat&) = delete;

  void give(std::function<void()> body) {
    iBody = std::move(body);
    ::sem_post(&iGiven);
  }
  std::function<void()> take() {
    while (::sem_wait(&iGiven) != 0) {
      // Interrupted by a signal.
    }
    return std::exchange(iBody, nullptr);
  }

 private:
  sem_t iGiven;
  std::function<void()> iBody;  // passed on by the semaphore
};

ThreadPark::ThreadPark(size_t seats, void (*carryOut)(std::function<void()> body))
    : iSeats(seats), iCarryOut(carryOut) {
  iParked.reserve(seats);
}

void ThreadPark::run(std::function<void()> body) {
  if (const std::shared_ptr<Seat> seat = takeSeat()) {
    seat->give(std::move(body));
    return;
  }
  std::thread([this, body = std::move(body)]() mutable { live(std::move(body)); }).detach();
}

size_t ThreadPark::parked() const {
  const MutexLock lock(iLock);
  return iParked.size();
}

// The last one: its memory is the warmest.
std::shared_ptr<ThreadPark::Seat> ThreadPark::takeSeat() {
  const MutexLock lock(iLock);
  if (iParked.empty()) return nullptr;
  std::shared_ptr<Seat> seat = std::move(iParked.back());
  iParked.pop_back();
  return seat;
}

bool ThreadPark::park(const std::shared_ptr<Seat>& seat) {
  const MutexLock lock(iLock);
  if (iParked.size() >= iSeats) return false;
  iParked.push_back(seat);
  return true;
}

void ThreadPark::live(std::function<void()> body) {
  const auto seat = std::make_shared<Seat>();
  while (true) {
    iCarryOut(std::move(body));
    if (!park(seat)) return;
    body = seat->take();
  }
}

}  // namespace ombra
