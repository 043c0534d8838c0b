// Idle sessions, and the thread that closes them.
#include <algorithm>
#include <system_error>

#include "platform/foundation/NSThread.h"
#include "remote/SessionPool.h"

namespace ombra {
namespace {
constexpr double kIdleSeconds = 60.0;
// A program that goes on writing does so within this time; for others a file should not stay open.
constexpr double kHoldingSeconds = 1.0;
}  // namespace

bool SessionPool::hasPlaceForIdle() {
  if (iIsShutDown || iLive > iCap) return false;
  if (iCloserRuns) return true;
  try {
    iCloser = std::thread([this] { closeIdleSessions(); });
    iCloserRuns = true;
  } catch (const std::system_error&) {
    // Without a thread that closes it, a session is not kept.
  }
  return iCloserRuns;
}

void SessionPool::keepIdle(std::shared_ptr<PooledSession> session) {
  session->idleSince = NSDate::date();
  const bool holdsNothing = session->heldPath.empty() && !session->hasOpenedAhead;
  const double seconds = holdsNothing ? kIdleSeconds : kHoldingSeconds;
  const NSDate due = session->idleSince.dateByAddingTimeInterval(seconds);
  if (!iCloserLimit || due < *iCloserLimit) wakeCloser();
  iIdle.push_back(std::move(session));
}

void SessionPool::wakeCloser() {
  const ConditionLock lock(iCloserWake);
  iCloserWoken = true;
  iCloserWake.broadcast();
}

void SessionPool::sleepUntilDue(std::optional<NSDate> limit) {
  const ConditionLock lock(iCloserWake);
  while (!iCloserWoken) {
    if (!limit) {
      iCloserWake.wait();
    } else if (!iCloserWake.waitUntilDate(*limit)) {
      break;
    }
  }
  iCloserWoken = false;
}

void SessionPool::closeIdleSessions() {
  NSThread::setName("closing idle sessions");
  iCondition.lock();
  while (!iIsShutDown) {
    // The oldest is the first: they come in at the end, and those that are taken out of turn come back there.
    std::optional<NSDate> limit;
    if (!iIdle.empty()) limit = iIdle.front()->idleSince.dateByAddingTimeInterval(kIdleSeconds);
    if (std::shared_ptr<PooledSession> holder = takeDueHolder(&limit)) {
      iCondition.unlock();
      settleHolder(std::move(holder));
      iCondition.lock();
      continue;
    }
    if (!limit || NSDate::date() < *limit) {
      iCloserLimit = limit;
      iCondition.unlock();
      sleepUntilDue(limit);
      iCondition.lock();
      continue;
    }
    std::shared_ptr<PooledSession> expired = std::move(iIdle.front());
    iIdle.erase(iIdle.begin());
    --iLive;
    wakeNext();
    iCondition.unlock();
    expired.reset();  // says goodbye to the server
    iCondition.lock();
  }
  iCondition.unlock();
}

std::shared_ptr<PooledSession> SessionPool::takeDueHolder(std::optional<NSDate>* limit) {
  for (auto session = iIdle.begin(); session != iIdle.end(); ++session) {
    if ((*session)->heldPath.empty() && !(*session)->hasOpenedAhead) continue;
    const NSDate due = (*session)->idleSince.dateByAddingTimeInterval(kHoldingSeconds);
    if (NSDate::date() < due) {
      *limit = std::min(limit->value_or(due), due);
      continue;
    }
    std::shared_ptr<PooledSession> taken = std::move(*session);
    iIdle.erase(session);
    addToInUse(taken);
    return taken;
  }
  return nullptr;
}

void SessionPool::settleHolder(std::shared_ptr<PooledSession> session) {
  session->session->becameIdle();
  session->session->closeOpenedAhead();
  const bool isAlive = session->session->isAlive();
  detach(std::move(session), isAlive);
}

}  // namespace ombra
