// What a helper announces about its volume.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSNotificationCenter.h"

namespace ombra {

struct MountAnnouncement {
  enum class Kind { kDidMount, kAlreadyMounted, kMountFailed, kDidUnmount } kind = Kind::kDidMount;
  std::string volumeName;
  std::string mountPath;
  std::string rootPath;
  std::string address;
  std::optional<std::string> passthrough;
  NSErrorRef error;  // of kMountFailed; null when none was sent or what was sent could not be read
};

// Listens for the announcements of one helper, from its construction on: make it before the helper starts.
// Main thread only.
class MountAnnouncements {
 public:
  explicit MountAnnouncements(std::string registeredName);
  ~MountAnnouncements();
  MountAnnouncements(const MountAnnouncements&) = delete;
  MountAnnouncements& operator=(const MountAnnouncements&) = delete;

  // The next announcement; absent when none has come within `milliseconds`. Those of other helpers are passed
  // over.
  std::optional<MountAnnouncement> next(int milliseconds);

  // An announcement as it was sent; absent for other names. Texts of the wrong type count as absent.
  static std::optional<MountAnnouncement> read(const NSNotification& notification);

 private:
  std::string iRegisteredName;
  std::deque<MountAnnouncement> iArrived;
};

}  // namespace ombra
