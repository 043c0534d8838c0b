// What is still being sent while a volume is unmounted.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "frontend/HelperBus.h"
#include "frontend/LiveLines.h"
#include "frontend/Output.h"
#include "frontend/TransferStatus.h"
#include "frontend/Volumes.h"

namespace ombra {

// Asks the helper twice a second and shows what it tells: bars on a terminal, elsewhere a line every ten
// seconds (with --json nothing). What is quick shows nothing.
class UnmountProgress {
 public:
  UnmountProgress(const Volume& volume, const Output& output);

  // One step, for whoever waits. What the helper has sent since its mount.
  uint64_t tick();
  // Takes what is shown off the terminal.
  void clear() { iLive.clear(); }
  // What the helper told last; absent when it never told anything.
  const std::optional<TransferStatus>& lastStatus() const { return iStatus; }

 private:
  using Clock = std::chrono::steady_clock;
  void look(Clock::time_point now);
  std::string headline() const;
  void show(Clock::time_point now);

  const Volume iVolume;
  const Output& iOutput;
  LiveLines iLive;
  std::unique_ptr<HelperBus> iBus;
  std::optional<TransferStatus> iStatus;
  const Clock::time_point iBegin = Clock::now();
  Clock::time_point iNextLook = iBegin;
  Clock::time_point iNextLine;
  unsigned iTicks = 0;
};

}  // namespace ombra
