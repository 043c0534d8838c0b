#include "fshelper/SUUpdater.h"

#include "platform/foundation/NSLog.h"

namespace ombra {

SUUpdater& SUUpdater::sharedUpdater() {
  static SUUpdater sUpdater;
  return sUpdater;
}

void SUUpdater::setAutomaticallyChecksForUpdates(bool checks) {
  iChecks = checks;
  if (!checks || iSaidSo) return;
  iSaidSo = true;
  if (iFeedURL.empty()) {
    NSLogMessage("Software updates are off: this copy has no update feed.");
  } else {
    NSLog("Updates are not checked for by this build. To look for one, open {}", iFeedURL);
  }
}

}  // namespace ombra
