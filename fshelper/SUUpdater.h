// Software update.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "fshelper/SUFeedReader.h"
#include "fshelper/SUUpdateSchedule.h"
#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSUserNotification.h"

namespace ombra {

// Looks at a feed, at most daily, on a thread of its own, and tells the person at the desktop, and the log,
// when there is a later version than this one. It never downloads or installs one. An empty feed switches it
// off, which is said once in the log: the feeds of a self-built copy are empty, and its updates come from
// where it was built. So does the user, with the default "SUEnableAutomaticChecks" set to NO; the default
// "SUSkippedVersion" names one that is not to be told of. The settings belong to the main thread, before
// `startUpdater`.
class SUUpdater {
 public:
  using Deliver = std::function<bool(const NSUserNotification&, std::string* reason)>;
  // `version`: of this program. `limits`: of each look.
  explicit SUUpdater(std::string version, Deliver deliver, SUFeedReader::Limits limits = {});
  ~SUUpdater();
  SUUpdater(const SUUpdater&) = delete;
  SUUpdater& operator=(const SUUpdater&) = delete;
  // That of this program. Lives as long as the process.
  static SUUpdater& sharedUpdater();

  void setFeedURL(std::string url) { iFeedURL = std::move(url); }
  const std::string& feedURL() const { return iFeedURL; }
  // Not owned; an identity only, since it answers no questions of the updater.
  void setDelegate(const void* delegate) { iDelegate = delegate; }
  const void* delegate() const { return iDelegate; }
  // Nothing is ever downloaded; the setting is kept for those who ask.
  void setAutomaticallyDownloadsUpdates(bool downloads) { iDownloads = downloads; }
  bool automaticallyDownloadsUpdates() const { return iDownloads; }
  // Without a feed, the log says once that this is without effect.
  void setAutomaticallyChecksForUpdates(bool checks);
  bool automaticallyChecksForUpdates() const { return iChecks; }

  // Begins to look, where that is wanted and there is a feed; from any thread, once. Meant for when the start
  // is over, so that a look never slows it down. Does not wait.
  void startUpdater() EXCLUDES(iCondition);
  // Makes a running look end soon; no other begins. Any thread; does not wait.
  void interrupt() EXCLUDES(iCondition);
  // As `interrupt`, and returns when the thread has ended. `startUpdater` begins anew.
  void stop() EXCLUDES(iCondition);

 private:
  void run();
  bool pause() EXCLUDES(iCondition);
  bool isStopped() EXCLUDES(iCondition);
  void look(SUFeedReader& reader);
  void tellOf(const struct SUAppcastItem& item);

  const std::string iVersion;
  const Deliver iDeliver;
  const SUFeedReader::Limits iLimits;
  std::string iFeedURL;
  const void* iDelegate = nullptr;
  bool iDownloads = false;
  bool iChecks = false;
  bool iSaidSo = false;
  SUUpdateSchedule iSchedule;  // of the thread

  NSCondition iCondition;
  bool iStopped GUARDED_BY(iCondition) = false;
  std::shared_ptr<SUFeedReader> iReader GUARDED_BY(iCondition);  // there while the thread is
  std::thread iThread GUARDED_BY(iCondition);
};

}  // namespace ombra
