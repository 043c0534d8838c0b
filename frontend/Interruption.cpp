#include "frontend/Interruption.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>

namespace ombra {

namespace {

constexpr std::array<int, 3> kSignals{SIGINT, SIGTERM, SIGHUP};

// What a signal handler may touch: lock-free numbers.
std::atomic<int> gSignal{0};
std::atomic<int> gWriteEnd{-1};
int gReadEnd = -1;
std::array<struct sigaction, kSignals.size()> gPrevious{};

void noteSignal(int number) {
  const int savedErrno = errno;
  int none = 0;
  gSignal.compare_exchange_strong(none, number);
  const int fd = gWriteEnd.load();
  // The pipe only wakes waits; a full one has woken them already.
  if (fd >= 0) (void)!write(fd, "", 1);
  errno = savedErrno;
}

}  // namespace

Interruption::Interruption() {
  gSignal = 0;
  std::array<int, 2> ends{-1, -1};
  if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) == 0) {
    gReadEnd = ends[0];
    gWriteEnd = ends[1];
  }
  for (size_t i = 0; i < kSignals.size(); ++i) {
    sigaction(kSignals[i], nullptr, &gPrevious[i]);
    if (gPrevious[i].sa_handler == SIG_IGN) continue;
    struct sigaction action {};
    action.sa_handler = noteSignal;  // no SA_RESTART: a blocked read or wait is to return
    sigemptyset(&action.sa_mask);
    sigaction(kSignals[i], &action, nullptr);
  }
}

Interruption::~Interruption() {
  for (size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &gPrevious[i], nullptr);
  const int writeEnd = gWriteEnd.exchange(-1);
  if (writeEnd >= 0) close(writeEnd);
  if (gReadEnd >= 0) close(gReadEnd);
  gReadEnd = -1;
}

void Interruption::forget() {
  std::array<char, 64> bytes{};
  while (read(gReadEnd, bytes.data(), bytes.size()) > 0) {
  }
  gSignal = 0;
}

int Interruption::fd() const { return gReadEnd; }

int Interruption::signalNumber() const { return gSignal.load(); }

}  // namespace ombra
