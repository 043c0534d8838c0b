// One attempt to mount: a helper is started, given its credentials, and listened to.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "frontend/Failure.h"
#include "frontend/HelperProcess.h"
#include "frontend/Interruption.h"
#include "frontend/MountAnnouncements.h"
#include "frontend/Spinner.h"
#include "remote/KCCredentials.h"

namespace ombra {

struct MountRequest {
  std::string helper;  // the executable
  std::shared_ptr<const KCCredentials> credentials;
  std::optional<std::string> name;
  std::optional<std::string> icon;
  std::optional<std::string> passthrough;
};

struct MountLimits {
  std::chrono::milliseconds handOff{30000};  // for the helper to fetch its credentials
  std::chrono::milliseconds mount{
      180000};  // from then until it announces how it went; its own limits are shorter
  // For the helper that has the same pass-through identifier to mount its volume.
  std::chrono::milliseconds otherHelper{30000};
  std::chrono::milliseconds end{10000};  // for a helper that failed or was stopped to end
};

struct MountResult {
  bool mounted = false;         // else `failure` says why
  bool alreadyMounted = false;  // by another helper of the same pass-through identifier, which goes on
  std::string registeredName;
  std::string volumeName;
  std::string mountPath;
  std::string rootPath;  // the folder of the volume to open first, below its root
  std::string address;
  pid_t pid = 0;  // of the helper that serves the volume; 0 when not known
  Failure failure;
  NSErrorRef error;  // what the helper sent; may be null
};

// A mount in the making, and afterwards the watch over it. Main thread only. When it is destroyed a helper
// that has mounted goes on by itself.
class MountVolume {
 public:
  MountVolume(MountRequest request, const MountLimits& limits, const Interruption& interruption,
              Spinner& spinner);
  ~MountVolume();

  // Starts the helper and waits until the volume is mounted, or failed and its helper is gone.
  MountResult run();
  // After a success: waits until the helper has ended. False when interrupted before.
  bool waitUntilUnmounted();

 private:
  MountResult handOff();
  MountResult awaitAnnouncement();
  std::optional<MountResult> resultOf(const MountAnnouncement& announcement);
  MountResult announced(const MountAnnouncement& announcement);
  MountResult mounted(const MountAnnouncement& announcement);
  MountResult alreadyMounted(const MountAnnouncement& announcement);
  MountResult failed(Failure failure, NSErrorRef error = nullptr);
  MountResult helperEnded();
  MountResult interrupted();
  void stopHelper();
  Failure explain(const NSErrorRef& error) const;
  // The name that the volume's logs go by.
  std::string logName() const;
  std::string moreInLog() const;

  MountRequest iRequest;
  MountLimits iLimits;
  const Interruption& iInterruption;
  Spinner& iSpinner;
  std::string iRegisteredName;
  MountAnnouncements iAnnouncements;
  std::unique_ptr<HelperProcess> iHelper;
};

}  // namespace ombra
