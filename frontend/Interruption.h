// Ctrl-C and its relatives, as something that waits can look at.
#pragma once

namespace ombra {

// While one exists, SIGINT, SIGTERM and SIGHUP end nothing by themselves: they are remembered, so that what
// was begun is put away in order. A signal that was ignored at the start stays ignored. One at a time in a
// process.
class Interruption {
 public:
  Interruption();
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  // Readable once a signal has come; -1 when there is no descriptor to be had.
  int fd() const;
  bool requested() const { return signalNumber() != 0; }
  // The first signal that came, 0 when none has.
  int signalNumber() const;
  // As if none had come, so that a further one is noticed.
  void forget();
  // 128 plus the signal's number, as shells count.
  int exitCode() const { return 128 + signalNumber(); }
};

}  // namespace ombra
