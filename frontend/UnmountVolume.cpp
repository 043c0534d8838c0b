#include "frontend/UnmountVolume.h"

#include <fmt/format.h>

namespace ombra {

namespace {

enum class Gone { kYes, kNotYet, kInterrupted };

template <typename Condition>
Gone waitUntil(VolumeControl& control, std::chrono::milliseconds limit, Condition isDone) {
  const auto end = control.now() + limit;
  while (!isDone()) {
    if (control.now() >= end) return Gone::kNotYet;
    if (!control.pause()) return Gone::kInterrupted;
  }
  return Gone::kYes;
}

class Unmounting {
 public:
  Unmounting(VolumeControl& control, std::string name, bool force, const UnmountLimits& limits,
             Failure* failure)
      : iControl(control), iName(std::move(name)), iForce(force), iLimits(limits), iFailure(failure) {}

  bool run() {
    const bool done = iForce ? byForce() : inOrder();
    if (done) iControl.removeMountPoint();
    return done;
  }

 private:
  bool isGone() { return !iControl.isMounted() && !iControl.helperLives(); }

  // A slow line is no reason to give up, nor is a slow disk: the limit begins anew with every byte that
  // moves.
  Gone waitWhileMoving(std::chrono::milliseconds limit, uint64_t (VolumeControl::*moved)()) {
    uint64_t before = (iControl.*moved)();
    while (true) {
      const Gone gone = waitForBoth(limit);
      const uint64_t now = (iControl.*moved)();
      if (gone != Gone::kNotYet || now == before) return gone;
      before = now;
    }
  }

  Gone waitForBoth(std::chrono::milliseconds limit) {
    return waitUntil(iControl, limit, [this] { return isGone(); });
  }

  bool inOrder() {
    // Looked at first: a helper that was asked no longer serves whoever holds files open.
    const std::string users = iControl.users();
    if (!users.empty()) {
      *iFailure = volumeInUse(users);
      return false;
    }
    std::string refusal;
    const bool asked = iControl.askHelper(false, &refusal);
    // A helper that agreed writes back what is left, then ends. Without its word the mount is taken away from
    // here, which lets the helper do the same.
    if (!asked && iControl.isMounted() && !takeAway(false)) return false;
    const Gone gone = waitWhileMoving(iLimits.drain, &VolumeControl::bytesSent);
    if (gone == Gone::kYes) return true;
    if (gone == Gone::kInterrupted) return interrupted();
    if (iControl.isMounted()) return asked ? takeAway(false) && endHelper() : stillWriting();
    return endHelper();
  }

  // What is still on its way to the server is given a short time; then the volume goes whatever happens to
  // it.
  bool byForce() {
    std::string refusal;
    if (iControl.askHelper(true, &refusal) &&
        waitWhileMoving(iLimits.forcedDrain, &VolumeControl::bytesSaved) == Gone::kYes) {
      return true;
    }
    if (iControl.isMounted() && !takeAway(true)) {
      iControl.abortRequests();
      if (!takeAway(true)) return false;
    }
    iControl.terminateHelper();
    if (waitForBoth(iLimits.end) == Gone::kYes) return true;
    iControl.abortRequests();
    iControl.killHelper();
    return waitForBoth(iLimits.end) == Gone::kYes || stillThere();
  }

  bool takeAway(bool lazily) {
    std::string why;
    bool inUse = false;
    if (iControl.detach(lazily, &why, &inUse) || !iControl.isMounted()) return true;
    *iFailure = inUse ? volumeInUse(iControl.users())
                      : Failure{kExitFailure, fmt::format("{} could not be unmounted.", inQuotes(iName)), why,
                                "Try again with --force."};
    return false;
  }

  // The mount is gone, its helper is not: it may be writing back. It is told to end, which it does in order.
  bool endHelper() {
    iControl.terminateHelper();
    const Gone gone = waitForBoth(iLimits.end);
    if (gone == Gone::kInterrupted) return interrupted();
    return gone == Gone::kYes || stillWriting();
  }

  Failure volumeInUse(const std::string& users) {
    return {kExitInUse, fmt::format("{} is in use.", inQuotes(iName)),
            users.empty() ? "Some program has a file or folder of it open."
                          : fmt::format("It is held by {}.", users),
            "Close what is open there, or use --force."};
  }

  bool stillWriting() {
    *iFailure = {kExitFailure, fmt::format("{} is still writing to its server.", inQuotes(iName)),
                 "What was saved there has not arrived yet.",
                 "Wait and try again; --force gives up on what has not arrived."};
    return false;
  }

  bool stillThere() {
    *iFailure = {kExitFailure, fmt::format("{} could not be removed, not even by force.", inQuotes(iName)),
                 "The system still holds the mount or its helper.", "Try again, or restart the machine."};
    return false;
  }

  bool interrupted() {
    *iFailure = {kExitInterrupted, fmt::format("Stopped waiting for {}.", inQuotes(iName)),
                 "Its helper goes on unmounting it.", "See: ombra status"};
    return false;
  }

  VolumeControl& iControl;
  std::string iName;
  bool iForce;
  UnmountLimits iLimits;
  Failure* iFailure;
};

}  // namespace

bool unmountVolume(VolumeControl& control, const std::string& name, bool force, const UnmountLimits& limits,
                   Failure* failure) {
  return Unmounting(control, name, force, limits, failure).run();
}

}  // namespace ombra
