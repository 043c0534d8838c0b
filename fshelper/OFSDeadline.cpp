#include "fshelper/OFSDeadline.h"

#include <system_error>
#include <utility>

#include "platform/foundation/NSLog.h"

namespace ombra {

OFSDeadline::OFSDeadline(double seconds, std::function<void()> expired) : iExpired(std::move(expired)) {
  const NSDate limit = NSDate::dateWithTimeIntervalSinceNow(seconds);
  try {
    iThread = std::thread([this, limit] { wait(limit); });
  } catch (const std::system_error& error) {
    NSLog("no thread for a time limit: {}", error.what());
  }
}

OFSDeadline::~OFSDeadline() {
  {
    const ConditionLock lock(iCondition);
    iHasEnded = true;
    iCondition.broadcast();
  }
  if (iThread.joinable()) iThread.join();
}

void OFSDeadline::wait(NSDate limit) {
  {
    const ConditionLock lock(iCondition);
    while (!iHasEnded && iCondition.waitUntilDate(limit)) {
    }
    if (iHasEnded) return;
  }
  iExpired();
}

}  // namespace ombra
