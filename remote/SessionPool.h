// The capped set of sessions to one server.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/NSCondition.h"
#include "remote/PoolTranscript.h"
#include "remote/Session.h"

namespace ombra {

enum class SessionUse {
  kRequest,   // short: a listing, a change
  kTransfer,  // may take long: a share of the sessions is kept free of these
};

// A session in the hands of the pool.
struct PooledSession {
  std::shared_ptr<PoolTranscript> transcript;
  std::shared_ptr<Session> session;
  NSDate idleSince;
  std::thread::id holder;  // the thread that has it in hand; none while it is idle
  // What it holds open for further uploads, or is about to; empty when nothing. All three are the pool's.
  std::string heldPath;
  std::shared_ptr<UnconfirmedExtents> heldFile;  // whose content goes there
  bool hasOpenedAhead = false;                   // while it is idle
  bool mustLetGo = false;  // in use while that path moved or went: what it holds may stand for another file
};

// Who waits for a session, and what the pool needs of him meanwhile. Called on the waiting thread, without a
// lock unless said otherwise.
class SessionWaiter {
 public:
  virtual ~SessionWaiter() = default;
  virtual const KCUUID& UUID() const = 0;
  // Stop waiting. Called with the pool's lock held: an atomic flag, nothing more.
  virtual bool wantsToStop() const = 0;
  // Somebody needs this soon. Downloads that nobody waits for stand back behind the others.
  virtual bool isAwaited() { return true; }
  // Whether there is something useful to do while waiting. Asked with the pool's lock held.
  virtual bool hasSpareWork() const { return false; }
  // Does a piece of it; may block.
  virtual void doSpareWork() {}
  // The path that is about to be uploaded to: a session that holds it open is given first.
  virtual const std::string* preferredPath() const { return nullptr; }
  // Whether what the session is for cannot be repeated when the session turns out to be lost: then it is
  // looked at before, however lately it was used.
  virtual bool hasOneAttempt() const { return false; }
  // Asked during a login.
  virtual bool isWorthyTrust(const std::string& fingerprint) = 0;
};

// Hands sessions to threads that wait in line, keeps idle ones warm for a minute (what they hold open for
// further uploads: for a second), and never has more of them than the cap. The cap falls by itself when the
// server takes no more, and rises again by one each minute.
//
// A waiting thread never holds a session: that alone makes the cap free of deadlock, and debug builds assert
// it.
//
// A session is  nothing -> logging in -> in use <-> idle -> nothing;  "in use" counts as a transfer or as a
// request. Thread-safe. One lock; no session, delegate or transcript is called with it held.
class SessionPool {
 public:
  SessionPool(std::shared_ptr<Engine> engine, std::shared_ptr<const KCCredentials> credentials);
  ~SessionPool();
  SessionPool(const SessionPool&) = delete;
  SessionPool& operator=(const SessionPool&) = delete;

  const Engine& engine() const { return *iEngine; }
  const std::shared_ptr<const KCCredentials>& credentials() const { return iCredentials; }
  TranscriptSink& transcript() { return *iTranscript; }
  // 0: the engine's cap.
  void setMaximumSessions(int maximum) EXCLUDES(iCondition);
  // How many sessions there may be at present.
  int cap() const EXCLUDES(iCondition);
  // Whether the server has refused a session, so that there may be fewer than there were to be.
  bool isLowered() const EXCLUDES(iCondition);
  // Absent until a session has logged in.
  std::optional<std::string> loginPath() const EXCLUDES(iCondition);
  bool isShutDown() const EXCLUDES(iCondition);

  // A session that is logged in, after waiting in line for it. Null with the error filled: kQuarnKitCancelled
  // when the waiter wants to stop, kQuarnKitConnectionLost after shutDown, else what the login met.
  std::shared_ptr<PooledSession> attach(SessionWaiter& waiter, SessionUse use, NSErrorRef* error)
      EXCLUDES(iCondition);
  // Takes it back; `reusable` when it may serve another call. A transfer must have been ended before.
  void detach(std::shared_ptr<PooledSession> session, bool reusable) EXCLUDES(iCondition);
  // Notes what a session in use is about to upload: `file` to `path`, or null and nothing when it will not
  // hold anything. What else it holds is ended first.
  void claim(PooledSession& session, std::string_view path, std::shared_ptr<UnconfirmedExtents> file)
      EXCLUDES(iCondition);
  // Ends what a session in use holds if somebody has asked for that meanwhile.
  void obey(PooledSession& session) EXCLUDES(iCondition);
  // Idle sessions, and those that this thread has attached, end their hold of that path or one below it
  // before this returns; others in use at the end of the call that uses them. Waits for the server.
  void letGoOf(std::string_view path) EXCLUDES(iCondition);
  // Returns when nothing is under way to that path, nor from that file (may be null) to any. Waits for other
  // threads' calls too; therefore this thread's sessions end first whatever they hold, so that two that need
  // each other's holds both go on.
  void finishUploads(std::string_view path, const std::shared_ptr<UnconfirmedExtents>& file)
      EXCLUDES(iCondition);
  // Turns an attached request into a transfer: false when the share of transfers is taken.
  bool tryBeginTransfer() EXCLUDES(iCondition);
  void endTransfer() EXCLUDES(iCondition);
  // True when somebody who needs it soon waits for a session.
  bool othersWait() const { return iAwaitedInLine.load(std::memory_order_relaxed) > 0; }

  // Sleeps for so long; less when the waiter wants to stop or the pool is shut down: then false.
  bool pause(double seconds, const SessionWaiter& waiter) EXCLUDES(iCondition);
  // Lets waiters look at their flags.
  void wakeWaiters() EXCLUDES(iCondition);
  // Interrupts the sessions in use and closes the idle ones; from now on nothing is attached.
  void shutDown() EXCLUDES(iCondition);

 private:
  struct Place {
    SessionUse use = SessionUse::kRequest;
    bool awaited = true;
    const std::string* preferredPath = nullptr;
    bool busy = false;  // does spare work: others go first
    bool inLine = false;
    bool sleeps = false;  // on `wake`, of its own: hundreds may wait, and only the next is to wake
    NSCondition wake;
    bool woken GUARDED_BY(wake) = false;
  };
  enum class Turn { kGranted, kStop, kShutDown };

  Turn waitForTurn(SessionWaiter& waiter, Place& place, std::shared_ptr<PooledSession>* idle)
      EXCLUDES(iCondition);
  // What the place has come to; absent while it has to stand in line.
  std::optional<Turn> turnOf(const SessionWaiter& waiter, Place& place, std::shared_ptr<PooledSession>* idle)
      REQUIRES(iCondition);
  // Does spare work or sleeps, the lock let go meanwhile.
  void standInLine(SessionWaiter& waiter, Place& place) REQUIRES(iCondition);
  bool tryTake(Place& place, std::shared_ptr<PooledSession>* idle) REQUIRES(iCondition);
  std::shared_ptr<PooledSession> takeIdle(const std::string* preferredPath) REQUIRES(iCondition);
  void sleepInLine(Place& place) REQUIRES(iCondition);
  bool isEligible(const Place& place) const REQUIRES(iCondition);
  Place* nextInLine() const REQUIRES(iCondition);
  bool hasRoom() const REQUIRES(iCondition) { return !iIdle.empty() || iLive < iCap; }
  // A session, or room for one, came free: wakes who is next, and those who sleep for a time.
  void wakeNext() REQUIRES(iCondition);
  // Something else changed: everybody looks again.
  void wakeAll() REQUIRES(iCondition);
  static void wake(Place& place);
  void publishLine() REQUIRES(iCondition);
  // The server takes no more sessions than there are now.
  void lowerCap() REQUIRES(iCondition);
  void raiseCapIfDue() REQUIRES(iCondition);
  int transferCap() const REQUIRES(iCondition);
  int wantedCap() const REQUIRES(iCondition);
  std::shared_ptr<PooledSession> logIn(SessionWaiter& waiter, NSErrorRef* error) EXCLUDES(iCondition);
  // Closes a session that was taken and turned out to be dead.
  void drop(std::shared_ptr<PooledSession> session) EXCLUDES(iCondition);
  // Gives the place of a failed login back. True when waiting for another session makes sense.
  bool loginFailed(SessionUse use, const NSErrorRef& error) EXCLUDES(iCondition);
  bool enter(const std::shared_ptr<PooledSession>& session) EXCLUDES(iCondition);
  void addToInUse(const std::shared_ptr<PooledSession>& session) REQUIRES(iCondition);
  void removeFromInUse(const std::shared_ptr<PooledSession>& session) REQUIRES(iCondition);
  void noteHolder(const PooledSession& session, int change) REQUIRES(iCondition);
  bool threadHoldsSession() const EXCLUDES(iCondition);
  // Whether a session that is given back may stay.
  bool hasPlaceForIdle() REQUIRES(iCondition);
  void keepIdle(std::shared_ptr<PooledSession> session) REQUIRES(iCondition);
  static bool standsUp(PooledSession& session, const SessionWaiter& waiter);
  void closeIdleSessions() EXCLUDES(iCondition);
  void sleepUntilDue(std::optional<NSDate> limit) EXCLUDES(iCondition, iCloserWake);
  void wakeCloser() EXCLUDES(iCloserWake);
  // The idle session that has held something open for long enough, in use from now on; null when there is
  // none. `limit` is put forward to when the next one is due.
  std::shared_ptr<PooledSession> takeDueHolder(std::optional<NSDate>* limit) REQUIRES(iCondition);
  void settleHolder(std::shared_ptr<PooledSession> session) EXCLUDES(iCondition);
  // Those that `isMeant` picks: idle ones, which are in use from now on, go into `idle`; those in use are
  // asked to let go, and are added to `own` when this thread has them, else what they send to `sending`.
  struct Holders {
    std::vector<std::shared_ptr<PooledSession>> idle;
    std::vector<std::shared_ptr<PooledSession>> own;
    std::vector<std::shared_ptr<UnconfirmedExtents>> sending;
  };
  using IsMeant = std::function<bool(const PooledSession& session)>;
  Holders takeHolders(const IsMeant& isMeant) REQUIRES(iCondition);
  void endHolds(Holders& holders) EXCLUDES(iCondition);
  // Ends what a session in this thread's hands holds.
  void endHold(PooledSession& session) EXCLUDES(iCondition);

  const std::shared_ptr<Engine> iEngine;
  const std::shared_ptr<const KCCredentials> iCredentials;
  const std::shared_ptr<TranscriptSink> iTranscript;

  std::atomic<int> iAwaitedInLine{0};

  mutable NSCondition iCondition;
  int iMaximum GUARDED_BY(iCondition) = 0;  // as set; 0: the engine's cap
  int iCap GUARDED_BY(iCondition);
  NSDate iRaiseDate GUARDED_BY(iCondition);  // while the cap is lowered
  int iLive GUARDED_BY(iCondition) = 0;      // in use, idle and logging in
  int iTransfers GUARDED_BY(iCondition) = 0;
  std::list<Place*> iLine GUARDED_BY(iCondition);
  std::set<std::shared_ptr<PooledSession>> iInUse GUARDED_BY(iCondition);
  // The one used last is at the end.
  std::vector<std::shared_ptr<PooledSession>> iIdle GUARDED_BY(iCondition);
  std::map<std::thread::id, int> iHolders GUARDED_BY(iCondition);  // kept in debug builds
  std::optional<std::string> iLoginPath GUARDED_BY(iCondition);
  bool iIsShutDown GUARDED_BY(iCondition) = false;
  std::thread iCloser;  // closes idle sessions; begun with the first one, joined by the destructor
  bool iCloserRuns GUARDED_BY(iCondition) = false;
  std::optional<NSDate> iCloserLimit GUARDED_BY(iCondition);  // when it looks again by itself
  // Of its own: sessions come and go thousands of times in a second, and it is to wake for a few of them.
  NSCondition iCloserWake;
  bool iCloserWoken GUARDED_BY(iCloserWake) = false;
};

}  // namespace ombra
