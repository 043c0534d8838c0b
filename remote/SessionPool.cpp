#include "remote/SessionPool.h"

#include <algorithm>
#include <cassert>

#include "remote/QuarnKitError.h"
#include "remote/RetryPauses.h"

namespace ombra {
namespace {

constexpr double kUnquestionedSeconds = 1.0;

NSErrorRef shutDownError() {
  return QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "the volume is closing");
}

}  // namespace

SessionPool::SessionPool(std::shared_ptr<Engine> engine, std::shared_ptr<const KCCredentials> credentials)
    : iEngine(std::move(engine)),
      iCredentials(std::move(credentials)),
      iTranscript(std::make_shared<TranscriptSink>(*iCredentials)),
      iCap(std::max(iEngine->sessionCap(), 1)) {}

SessionPool::~SessionPool() {
  shutDown();
  if (iCloser.joinable()) iCloser.join();
}

int SessionPool::wantedCap() const { return std::max(iMaximum > 0 ? iMaximum : iEngine->sessionCap(), 1); }

void SessionPool::setMaximumSessions(int maximum) {
  ConditionLock lock(iCondition);
  iMaximum = maximum;
  iCap = wantedCap();
  wakeAll();
}

int SessionPool::cap() const {
  ConditionLock lock(iCondition);
  return iCap;
}

bool SessionPool::isLowered() const {
  ConditionLock lock(iCondition);
  return iCap < wantedCap();
}

std::optional<std::string> SessionPool::loginPath() const {
  ConditionLock lock(iCondition);
  return iLoginPath;
}

bool SessionPool::isShutDown() const {
  ConditionLock lock(iCondition);
  return iIsShutDown;
}

// Whether a session is worth a try. One that was used a moment ago is: a look costs as much as a small write.
bool SessionPool::standsUp(PooledSession& session, const SessionWaiter& waiter) {
  if (session.session->hasFailed()) return false;
  const double seconds = NSDate::date().timeIntervalSinceDate(session.idleSince);
  const bool isRecent = seconds >= 0.0 && seconds < kUnquestionedSeconds;
  return (isRecent && !waiter.hasOneAttempt()) || session.session->isAlive();
}

std::shared_ptr<PooledSession> SessionPool::attach(SessionWaiter& waiter, SessionUse use, NSErrorRef* error) {
  // A thread that waited with a session in hand could wait for one that never comes free.
  assert(!threadHoldsSession());
  RetryPauses pauses;
  while (true) {
    Place place;
    place.use = use;
    place.awaited = waiter.isAwaited();
    place.preferredPath = waiter.preferredPath();
    std::shared_ptr<PooledSession> session;
    const Turn turn = waitForTurn(waiter, place, &session);
    if (turn != Turn::kGranted) {
      storeError(error,
                 turn == Turn::kStop ? QuarnKitError::errorWithCode(kQuarnKitCancelled) : shutDownError());
      return nullptr;
    }
    if (session != nullptr) {
      if (standsUp(*session, waiter)) {
        session->transcript->setConnection(waiter.UUID());
        return session;
      }
      drop(std::move(session));
    }
    NSErrorRef loginError;
    session = logIn(waiter, &loginError);
    if (session != nullptr) return session;
    const bool waitHelps = loginFailed(use, loginError);
    if (!waitHelps) {
      // Others fill the server: it may take us a moment later.
      const std::optional<double> seconds =
          QuarnKitError::isCode(loginError, kQuarnKitTooManyConnections) ? pauses.next() : std::nullopt;
      if (!seconds || !pause(*seconds, waiter)) {
        storeError(error, std::move(loginError));
        return nullptr;
      }
    }
  }
}

std::shared_ptr<PooledSession> SessionPool::logIn(SessionWaiter& waiter, NSErrorRef* error) {
  auto pooled = std::make_shared<PooledSession>();
  pooled->transcript = std::make_shared<PoolTranscript>(iTranscript);
  pooled->transcript->setConnection(waiter.UUID());
  SessionEnvironment environment;
  environment.credentials = iCredentials;
  environment.transcript = pooled->transcript;
  // A session keeps its environment; the waiter is there for the login alone.
  auto asked = std::make_shared<std::atomic<SessionWaiter*>>(&waiter);
  environment.isWorthyTrust = [asked](const std::string& fingerprint) {
    SessionWaiter* present = asked->load();
    return present != nullptr && present->isWorthyTrust(fingerprint);
  };
  pooled->session = iEngine->makeSession(environment);
  // In use from now on, so that shutDown can interrupt the login too.
  bool loggedIn = false;
  if (!enter(pooled)) {
    *error = shutDownError();
  } else {
    loggedIn = pooled->session->logIn(error);
  }
  asked->store(nullptr);
  ConditionLock lock(iCondition);
  if (loggedIn) {
    if (!iLoginPath) iLoginPath = pooled->session->loginPath();
    return pooled;
  }
  removeFromInUse(pooled);
  if (*error == nullptr) *error = QuarnKitError::errorWithCode(kQuarnKitLoginFailed);
  return nullptr;
}

bool SessionPool::enter(const std::shared_ptr<PooledSession>& session) {
  ConditionLock lock(iCondition);
  if (iIsShutDown) return false;
  addToInUse(session);
  return true;
}

void SessionPool::addToInUse(const std::shared_ptr<PooledSession>& session) {
  iInUse.insert(session);
  session->holder = std::this_thread::get_id();
  noteHolder(*session, 1);
}

void SessionPool::removeFromInUse(const std::shared_ptr<PooledSession>& session) {
  if (iInUse.erase(session) != 0) noteHolder(*session, -1);
  session->holder = {};
}

// Its place is kept, for the login that follows.
void SessionPool::drop(std::shared_ptr<PooledSession> session) {
  ConditionLock lock(iCondition);
  removeFromInUse(session);
  // Closed by its last reference, the argument: after the lock is released.
}

bool SessionPool::loginFailed(SessionUse use, const NSErrorRef& error) {
  ConditionLock lock(iCondition);
  --iLive;
  if (use == SessionUse::kTransfer) --iTransfers;
  const bool tooMany = QuarnKitError::isCode(error, kQuarnKitTooManyConnections);
  if (tooMany && iLive > 0) lowerCap();
  wakeAll();
  return tooMany && iLive > 0;
}

void SessionPool::detach(std::shared_ptr<PooledSession> session, bool reusable) {
  if (session == nullptr) return;
  session->transcript->flush();
  reusable = reusable && !session->session->hasFailed();
  std::string heldPath = reusable ? session->session->heldPath() : std::string();
  const bool hasOpenedAhead = reusable && session->session->hasOpenedAhead();
  ConditionLock lock(iCondition);
  session->hasOpenedAhead = hasOpenedAhead;
  // What it has sent is not to be lost, nor to arrive behind the same content from another session.
  while (!heldPath.empty() && (session->mustLetGo || !hasPlaceForIdle())) {
    iCondition.unlock();
    endHold(*session);
    reusable = !session->session->hasFailed();
    heldPath.clear();
    iCondition.lock();
  }
  session->mustLetGo = false;
  session->heldPath = std::move(heldPath);
  if (session->heldPath.empty()) session->heldFile.reset();
  removeFromInUse(session);
  if (reusable && hasPlaceForIdle()) {
    keepIdle(std::move(session));
  } else {
    --iLive;
  }
  wakeNext();
  // A session that is not kept is closed by its last reference, the argument: after the lock is released.
}

bool SessionPool::tryBeginTransfer() {
  ConditionLock lock(iCondition);
  if (iTransfers >= transferCap()) return false;
  ++iTransfers;
  // A transfer that was woken for what is free may not have it any more: others may.
  wakeNext();
  return true;
}

void SessionPool::endTransfer() {
  ConditionLock lock(iCondition);
  --iTransfers;
  wakeNext();
}

bool SessionPool::pause(double seconds, const SessionWaiter& waiter) {
  const NSDate limit = NSDate::dateWithTimeIntervalSinceNow(seconds);
  ConditionLock lock(iCondition);
  while (!iIsShutDown && !waiter.wantsToStop()) {
    if (!iCondition.waitUntilDate(limit)) return true;
  }
  return false;
}

void SessionPool::wakeWaiters() {
  ConditionLock lock(iCondition);
  wakeAll();
}

void SessionPool::shutDown() {
  std::set<std::shared_ptr<PooledSession>> running;
  std::vector<std::shared_ptr<PooledSession>> idle;
  {
    ConditionLock lock(iCondition);
    iIsShutDown = true;
    running = iInUse;
    iLive -= static_cast<int>(iIdle.size());
    idle.swap(iIdle);
    wakeAll();
    wakeCloser();
  }
  for (const auto& pooled : running) pooled->session->interrupt();
}

void SessionPool::noteHolder([[maybe_unused]] const PooledSession& session, [[maybe_unused]] int change) {
#ifndef NDEBUG
  int& count = iHolders[session.holder];
  count += change;
  if (count == 0) iHolders.erase(session.holder);
#endif
}

bool SessionPool::threadHoldsSession() const {
  ConditionLock lock(iCondition);
  const auto found = iHolders.find(std::this_thread::get_id());
  return found != iHolders.end() && found->second > 0;
}

}  // namespace ombra
