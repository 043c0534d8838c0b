// Ends a wait from another thread.
#pragma once

#include <atomic>

namespace ombra {

// A descriptor that becomes readable once, and stays so. Thread-safe.
class WakeUp {
 public:
  WakeUp();
  ~WakeUp();
  WakeUp(const WakeUp&) = delete;
  WakeUp& operator=(const WakeUp&) = delete;

  // To be polled for input, never read.
  int descriptor() const { return iDescriptor; }
  void raise();
  bool isRaised() const { return iIsRaised.load(); }

 private:
  const int iDescriptor;
  std::atomic<bool> iIsRaised{false};  // asked for each piece of a transfer: no system call
};

}  // namespace ombra
