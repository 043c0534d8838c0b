#include "fshelper/SUUpdater.h"

#include <fmt/format.h>

#include <exception>
#include <system_error>

#include "fshelper/SUAppcast.h"
#include "fshelper/SUVersion.h"
#include "platform/foundation/NSFileHandle.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSThread.h"
#include "platform/foundation/NSUserDefaults.h"
#include "platform/foundation/NeverDestroyed.h"

namespace ombra {
namespace {

// How often it is asked whether a day has passed: short against a day, and long against the work it makes.
// Counted while the machine is awake, so one long wait would stretch over every sleep.
constexpr double kLookAgain = 60 * 60;

bool isSwitchedOff() {
  NSUserDefaults& defaults = NSUserDefaults::standardUserDefaults();
  return defaults.objectForKey("SUEnableAutomaticChecks") && !defaults.boolForKey("SUEnableAutomaticChecks");
}

}  // namespace

SUUpdater::SUUpdater(std::string version, Deliver deliver, SUFeedReader::Limits limits)
    : iVersion(std::move(version)), iDeliver(std::move(deliver)), iLimits(limits) {}

SUUpdater::~SUUpdater() { stop(); }

SUUpdater& SUUpdater::sharedUpdater() {
  static NeverDestroyed<SUUpdater> sUpdater(std::string(OMBRA_VERSION), NSUserNotificationCenter::deliver);
  return *sUpdater;
}

void SUUpdater::setAutomaticallyChecksForUpdates(bool checks) {
  iChecks = checks;
  if (!checks || iSaidSo || !iFeedURL.empty()) return;
  iSaidSo = true;
  NSLogMessage("Software updates are off: this copy has no update feed.");
}

void SUUpdater::startUpdater() {
  if (!iChecks || iFeedURL.empty()) return;
  if (isSwitchedOff()) {
    NSLogMessage("Software updates are off in the settings (SUEnableAutomaticChecks).");
    return;
  }
  const ConditionLock lock(iCondition);
  if (iThread.joinable()) return;
  iStopped = false;
  iReader = std::make_shared<SUFeedReader>(iLimits);
  try {
    iThread = std::thread([this] { run(); });
  } catch (const std::system_error& error) {
    NSLog("Nobody looks for software updates: {}", error.what());
  }
}

void SUUpdater::interrupt() {
  const ConditionLock lock(iCondition);
  iStopped = true;
  if (iReader != nullptr) iReader->interrupt();
  iCondition.broadcast();
}

void SUUpdater::stop() {
  interrupt();
  std::thread thread;
  {
    const ConditionLock lock(iCondition);
    thread.swap(iThread);
  }
  if (thread.joinable()) thread.join();
}

void SUUpdater::run() {
  NSThread::setName("software update");
  std::shared_ptr<SUFeedReader> reader;
  {
    const ConditionLock lock(iCondition);
    reader = iReader;
  }
  try {
    do {
      if (const std::unique_ptr<NSFileHandle> claim = iSchedule.claim()) look(*reader);
    } while (pause());
  } catch (const std::exception& exception) {
    NSLog("Nobody looks for software updates any more: {}", exception.what());
  }
}

// False when there will be no further look.
bool SUUpdater::pause() {
  const ConditionLock lock(iCondition);
  const NSDate end = NSDate::dateWithTimeIntervalSinceNow(kLookAgain);
  while (!iStopped && iCondition.waitUntilDate(end)) {
  }
  return !iStopped;
}

bool SUUpdater::isStopped() {
  const ConditionLock lock(iCondition);
  return iStopped;
}

void SUUpdater::look(SUFeedReader& reader) {
  std::string reason;
  const std::optional<std::string> feed = reader.read(iFeedURL, &reason);
  // The reason is then that the program ends, which nobody needs to be told.
  if (isStopped()) return;
  const std::optional<SUAppcastItem> newest = feed ? SUNewestAppcastItem(*feed, &reason) : std::nullopt;
  if (!newest) {
    NSLog("The update feed {} could not be used: {}. It is asked again in a day.", iFeedURL, reason);
  } else if (SUCompareVersions(newest->version, iVersion) <= 0) {
    NSLog("There is no later version than this one, {}.", iVersion);
  } else if (NSUserDefaults::standardUserDefaults().stringForKey("SUSkippedVersion") == newest->version) {
    NSLog("Version {} is there, and skipped as the settings say (SUSkippedVersion).", newest->version);
  } else {
    tellOf(*newest);
  }
}

void SUUpdater::tellOf(const SUAppcastItem& item) {
  const std::string title = fmt::format("Ombra {} is available", item.displayVersion);
  const std::string advice =
      item.page.empty() ? "Get it from where this one came from." : fmt::format("Get it from {}", item.page);
  NSLog("{}; this is {}. {}", title, iVersion, advice);
  std::string reason;
  if (iDeliver({title, fmt::format("This is {}. {}", iVersion, advice), "software-update-available"},
               &reason))
    return;
  NSLog("Nobody at a desktop could be told of it: {}", reason);
}

}  // namespace ombra
