// Taking a volume away, step by step.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "frontend/Failure.h"
#include "frontend/Interruption.h"
#include "frontend/Volumes.h"

namespace ombra {

// What can be seen of a volume and done to it. The system's, or a test's.
class VolumeControl {
 public:
  virtual ~VolumeControl() = default;
  virtual bool isMounted() = 0;
  // False also when the helper's process number is not known.
  virtual bool helperLives() = 0;
  // Asks the helper over the bus; false, with `why`, when it refuses or does not answer.
  virtual bool askHelper(bool force, std::string* why) = 0;
  // Takes the mount away without the helper; `lazily`: also while it is in use. False with `why` and, when
  // files are open on it, `inUse`.
  virtual bool detach(bool lazily, std::string* why, bool* inUse) = 0;
  // Makes all requests to a helper that hangs fail, so that its volume can go.
  virtual void abortRequests() = 0;
  virtual void terminateHelper() = 0;
  virtual void killHelper() = 0;
  // The empty folder that is left behind, if any.
  virtual void removeMountPoint() = 0;
  // Who holds the volume: "name (number)", separated by commas; empty when nobody is found.
  virtual std::string users() = 0;
  // Returns soon: when something changed, or after a tenth of a second. False when the wait is to end
  // (Ctrl-C).
  virtual bool pause() = 0;
  // What the helper has sent to its server, as far as it was seen during the pauses: it grows while bytes
  // move.
  virtual uint64_t bytesSent() = 0;
  // What the helper has saved on this machine of what it could not send: it grows while a copy is being made.
  virtual uint64_t bytesSaved() = 0;
  virtual std::chrono::steady_clock::time_point now() = 0;
};

struct UnmountLimits {
  std::chrono::milliseconds drain{120000};       // in which nothing of what was written reaches the server
  std::chrono::milliseconds forcedDrain{10000};  // in which no copy of what was not sent grows either
  std::chrono::milliseconds end{5000};           // for a helper to end once it was told to
};

// Unmounts: asks the helper and waits until mount and helper are gone, for as long as bytes move to the
// server; where it cannot be asked, takes the mount away and waits for the helper to finish. With `force` it
// does not wait for a server that is gone: the mount is detached and the helper ended, killed if need be.
// False with the failure filled; nothing is lost then, and it can be repeated.
bool unmountVolume(VolumeControl& control, const std::string& name, bool force, const UnmountLimits& limits,
                   Failure* failure);

// The system's control of a volume. `tick` is called while waiting and answers what was sent so far; without
// one, nobody looks.
std::unique_ptr<VolumeControl> systemVolumeControl(const Volume& volume, const Interruption& interruption,
                                                   std::function<uint64_t()> tick);

}  // namespace ombra
