#include "remote/sftp/SFTPBackgroundSender.h"

#include <system_error>

#include "platform/foundation/NSThread.h"

namespace ombra {

namespace {
// Long enough for a program that writes page by page to fill a packet, too short to be noticed by anybody who
// looks at the server.
constexpr double kTimeToCollect = 0.003;
}  // namespace

SFTPBackgroundSender::~SFTPBackgroundSender() {
  takeBack();
  {
    const ConditionLock lock(iCondition);
    iIsEnding = true;
    iCondition.broadcast();
  }
  if (iThread.joinable()) iThread.join();
}

bool SFTPBackgroundSender::lend(bool atOnce) {
  if (!iThread.joinable()) {
    try {
      iThread = std::thread([this] { run(); });
    } catch (const std::system_error&) {
      return false;
    }
  }
  const ConditionLock lock(iCondition);
  iIsLent = true;
  iHasNothing = false;
  iAtOnce = atOnce;
  // A thread that is in its short sleep already finds the rest by itself: no call for each small write.
  if (atOnce || iSleepsLong) iCondition.broadcast();
  return true;
}

void SFTPBackgroundSender::takeBack() {
  const ConditionLock lock(iCondition);
  iIsLent = false;
  while (iIsMoving) iCondition.wait();
}

void SFTPBackgroundSender::run() {
  NSThread::setName("sending in the background");
  while (waitForWork()) moveUntilTakenBack();
}

bool SFTPBackgroundSender::waitForWork() {
  const ConditionLock lock(iCondition);
  while (true) {
    while (!iIsEnding && (!iIsLent || iHasNothing)) {
      iSleepsLong = true;
      iCondition.wait();
    }
    iSleepsLong = false;
    const NSDate end = NSDate::dateWithTimeIntervalSinceNow(kTimeToCollect);
    while (!iIsEnding && !iAtOnce && iCondition.waitUntilDate(end)) {
    }
    if (iIsEnding) return false;
    // Taken back meanwhile: the next loan begins anew.
    if (!iIsLent) continue;
    iIsMoving = true;
    return true;
  }
}

void SFTPBackgroundSender::moveUntilTakenBack() {
  bool mayWait = false;
  while (true) {
    const Step step = iMove(mayWait);
    mayWait = step == Step::blocked;
    const ConditionLock lock(iCondition);
    if (iIsLent && step != Step::done) continue;
    iHasNothing = step == Step::done;
    iIsMoving = false;
    iCondition.broadcast();
    return;
  }
}

}  // namespace ombra
