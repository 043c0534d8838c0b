// Software update.
#pragma once

#include <string>

namespace ombra {

// The settings of the updater. An empty feed switches updates off, which is said once in the log; the feeds
// of a self-built copy are empty, and its updates come from where it was built. This build does not fetch a
// feed even when one is set: it says so instead of checking, and never downloads or installs anything. Main
// thread only.
class SUUpdater {
 public:
  static SUUpdater& sharedUpdater();

  void setFeedURL(std::string url) { iFeedURL = std::move(url); }
  const std::string& feedURL() const { return iFeedURL; }
  // Not owned; an identity only, since it answers no questions of the updater.
  void setDelegate(const void* delegate) { iDelegate = delegate; }
  const void* delegate() const { return iDelegate; }
  void setAutomaticallyDownloadsUpdates(bool downloads) { iDownloads = downloads; }
  bool automaticallyDownloadsUpdates() const { return iDownloads; }
  // Only says whether this copy has a feed; this build fetches nothing.
  void setAutomaticallyChecksForUpdates(bool checks);
  bool automaticallyChecksForUpdates() const { return iChecks; }

 private:
  std::string iFeedURL;
  const void* iDelegate = nullptr;
  bool iDownloads = false;
  bool iChecks = false;
  bool iSaidSo = false;
};

}  // namespace ombra
