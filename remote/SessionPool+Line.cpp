// The line of threads that wait for a session, and how many sessions there may be.
#include <algorithm>
#include <iterator>

#include "remote/SessionPool.h"

namespace ombra {
namespace {
// How often a download that nobody waited for when it got in line looks whether that has changed.
constexpr double kStandBackSeconds = 0.25;
constexpr double kRaiseSeconds = 60.0;
}  // namespace

int SessionPool::transferCap() const {
  const int keptFree = std::max(iCap / 4, 1);
  // With a single session there is nothing to keep free.
  return std::max(iCap - keptFree, 1);
}

bool SessionPool::isEligible(const Place& place) const {
  if (place.busy) return false;
  return place.use == SessionUse::kRequest || iTransfers < transferCap();
}

// First come, first served, among those that may have one at all; downloads that nobody waits for come last.
SessionPool::Place* SessionPool::nextInLine() const {
  Place* next = nullptr;
  for (Place* place : iLine) {
    if (!isEligible(*place)) continue;
    if (place->awaited) return place;
    if (next == nullptr) next = place;
  }
  return next;
}

void SessionPool::wake(Place& place) {
  if (!place.sleeps) return;
  const ConditionLock lock(place.wake);
  place.woken = true;
  place.wake.broadcast();
}

void SessionPool::wakeNext() {
  Place* next = hasRoom() ? nextInLine() : nullptr;
  if (next != nullptr) wake(*next);
  iCondition.broadcast();
}

void SessionPool::wakeAll() {
  for (Place* place : iLine) wake(*place);
  iCondition.broadcast();
}

bool SessionPool::tryTake(Place& place, std::shared_ptr<PooledSession>* idle) {
  if (!hasRoom() || nextInLine() != &place) return false;
  if (!iIdle.empty()) {
    *idle = takeIdle(place.preferredPath);
    // At once, so that whoever asks for the end of a hold finds it in one of the lists.
    addToInUse(*idle);
  } else {
    ++iLive;
  }
  if (place.use == SessionUse::kTransfer) ++iTransfers;
  return true;
}

// One that holds what is wanted; else one that holds nothing, the one used last.
std::shared_ptr<PooledSession> SessionPool::takeIdle(const std::string* preferredPath) {
  auto chosen = std::prev(iIdle.end());
  bool holdsNothing = false;
  for (auto candidate = iIdle.end(); candidate != iIdle.begin();) {
    --candidate;
    const std::string& held = (*candidate)->heldPath;
    if (preferredPath != nullptr && held == *preferredPath) {
      chosen = candidate;
      break;
    }
    if (held.empty() && !holdsNothing) {
      chosen = candidate;
      holdsNothing = true;
    }
  }
  std::shared_ptr<PooledSession> session = std::move(*chosen);
  iIdle.erase(chosen);
  return session;
}

SessionPool::Turn SessionPool::waitForTurn(SessionWaiter& waiter, Place& place,
                                           std::shared_ptr<PooledSession>* idle) {
  iCondition.lock();
  iLine.push_back(&place);
  std::optional<Turn> turn = turnOf(waiter, place, idle);
  while (!turn) {
    place.inLine = true;
    publishLine();
    standInLine(waiter, place);
    turn = turnOf(waiter, place, idle);
  }
  iLine.remove(&place);
  publishLine();
  // The next in line may have a turn too.
  wakeNext();
  iCondition.unlock();
  return *turn;
}

std::optional<SessionPool::Turn> SessionPool::turnOf(const SessionWaiter& waiter, Place& place,
                                                     std::shared_ptr<PooledSession>* idle) {
  raiseCapIfDue();
  if (iIsShutDown) return Turn::kShutDown;
  if (waiter.wantsToStop()) return Turn::kStop;
  return tryTake(place, idle) ? std::optional(Turn::kGranted) : std::nullopt;
}

void SessionPool::standInLine(SessionWaiter& waiter, Place& place) {
  if (waiter.hasSpareWork()) {
    place.busy = true;
    wakeNext();
    iCondition.unlock();
    waiter.doSpareWork();
    iCondition.lock();
    place.busy = false;
    return;
  }
  sleepInLine(place);
  if (place.awaited) return;
  // Asked with no lock held, since it calls out.
  iCondition.unlock();
  const bool awaited = waiter.isAwaited();
  iCondition.lock();
  place.awaited = awaited;
}

void SessionPool::sleepInLine(Place& place) {
  if (!place.awaited) {
    (void)iCondition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(kStandBackSeconds));
    return;
  }
  if (iCap < wantedCap()) {
    (void)iCondition.waitUntilDate(iRaiseDate);
    return;
  }
  place.sleeps = true;
  iCondition.unlock();
  place.wake.lock();
  while (!place.woken) place.wake.wait();
  place.woken = false;
  place.wake.unlock();
  iCondition.lock();
  place.sleeps = false;
}

void SessionPool::publishLine() {
  const auto waiting = std::count_if(iLine.begin(), iLine.end(),
                                     [](const Place* place) { return place->inLine && place->awaited; });
  iAwaitedInLine.store(static_cast<int>(waiting), std::memory_order_relaxed);
}

void SessionPool::lowerCap() {
  iCap = std::min(iCap, iLive);
  iRaiseDate = NSDate::dateWithTimeIntervalSinceNow(kRaiseSeconds);
}

void SessionPool::raiseCapIfDue() {
  if (iCap >= wantedCap() || NSDate::date() < iRaiseDate) return;
  ++iCap;
  iRaiseDate = NSDate::dateWithTimeIntervalSinceNow(kRaiseSeconds);
}

}  // namespace ombra
