// Answers that are fetched before they are asked for.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSDate.h"
#include "platform/foundation/NSThread.h"
#include "remote/Walks.h"

namespace ombra {

// How far ahead is fetched, and how long that is good for; the same for all.
struct AheadLimits {
  // Under way, or here and not asked for yet. Each takes a session.
  static constexpr size_t kMost = 4;
  // From the moment at which an answer came to the one at which it is asked for; and of one for which the
  // server took less than kFarSeconds, so that little is lost when it is asked again.
  static constexpr double kMostSecondsOld = 1.0;
  static constexpr double kMostSecondsOldNearby = 0.1;
  static constexpr double kFarSeconds = 0.008;
  // What is being fetched for so long, and nobody has asked for, is broken off: it may be endless.
  static constexpr double kMostSecondsFetching = 10.0;
  // A server that answers sooner is asked one question after the other: to hand an answer from thread to
  // thread takes as long.
  static constexpr double kWorthwhileSeconds = 0.0002;
  // Questions that are passed before the next attempt, after a failure or when nothing was asked for in time.
  static constexpr int kPassed = 8;
  // The pause after a session that was not to be had; doubled each time, up to the most. Some servers lock
  // accounts that log in in vain.
  static constexpr double kFirstPause = 60;
  static constexpr double kMostPause = 3600;
  // What is due is over by then, whatever the clock's steps.
  static constexpr double kALittle = 0.01;
};

enum class AheadOutcome { kFetched, kFailed, kNoSession };

// A program that walks through a tree waits for one answer after the other. Where a session has one request
// under way at a time, what such a program will most likely ask for next is fetched on further sessions
// meanwhile.
//
// An answer is  wanted -> waiting for a session -> being fetched -> fetched;  whoever asks for it takes it
// out, and waits where it is being fetched. What came too long ago, failed, or may have been changed at that
// path through this program since is never handed out: then the server is asked anew. More is fetched when an
// answer is waited for, less when nobody asks for one in time.
//
// Thread-safe. One lock, which is not held while anything is fetched; below it only that of the walks.
template <typename Answer>
class Ahead : private AheadLimits {
 public:
  // One that is under way.
  class Request {
   public:
    Request(Ahead& owner, std::string path) : iOwner(owner), iPath(std::move(path)) {}
    const std::string& path() const { return iPath; }
    // To be asked right before the server is: false when nobody wants the answer any more.
    bool begins() { return iOwner.begins(*this); }
    // Nobody wants it any more: what has begun may be broken off. Stays where it is.
    const std::atomic<bool>& isCalledOff() const { return iIsCalledOff; }
    // What ends the fetching soon: from any thread, and with the owner's lock held. Null: nothing any more.
    void setBreakOff(std::function<void()> breakOff) { iOwner.setBreakOff(*this, std::move(breakOff)); }

   private:
    friend class Ahead;
    enum class State { kWanted, kWaitingForSession, kBeingFetched, kFetched, kFailed };
    Ahead& iOwner;
    const std::string iPath;
    std::atomic<bool> iIsCalledOff{false};
    // Guarded by the owner's lock:
    State iState = State::kWanted;
    NSDate iSince = NSDate::date();  // in its state
    uint64_t iChanges = 0;           // that had been made by then
    double iSeconds = 0;             // that the server took
    std::function<void()> iBreakOff;
    Answer iAnswer{};
  };
  // Fetches what is at the path, on a thread of this object's.
  using Fetch = std::function<AheadOutcome(Request& request, Answer* answer)>;
  struct Taken {
    Answer answer;
    uint64_t changes = 0;  // that the walks had counted when the server was asked
  };

  // `name`: of the threads. `room`: how many sessions may be taken at present; called without the lock.
  Ahead(std::string name, Walks& walks, std::function<int()> room, Fetch fetch)
      : iName(std::move(name)), iWalks(walks), iRoom(std::move(room)), iFetch(std::move(fetch)) {}
  ~Ahead() {
    stop();
    std::vector<std::thread> threads;
    {
      const ConditionLock lock(iCondition);
      threads.swap(iThreads);
      if (iWatcher.joinable()) threads.push_back(std::move(iWatcher));
    }
    for (std::thread& thread : threads) thread.join();
  }
  Ahead(const Ahead&) = delete;
  Ahead& operator=(const Ahead&) = delete;

  // The answer for `path`, when it can be had. Waits for one that is being fetched, unless `stops` (may be
  // empty) answers true: asked with the lock held, at first and at each `wake`. Before that it begins `next`,
  // as `begin` does.
  std::optional<Taken> take(std::string_view path, const std::function<bool()>& stops = {},
                            const std::vector<Walks::Item>& next = {}) EXCLUDES(iCondition) {
    const size_t room = next.empty() ? 0 : roomForMore();
    const ConditionLock lock(iCondition);
    forgetOld();
    const RequestRef request = takeOut(path);
    locked_begin(next, room);
    if (request == nullptr) return std::nullopt;
    if (request->iState == State::kBeingFetched) iMost = std::min(iMost + 1, kMost);
    while (request->iState == State::kBeingFetched && !(stops && stops())) iAskers.wait(iCondition);
    if (request->iState != State::kFetched || iWalks.isAffected(path, request->iChanges)) {
      // Without a session yet: whoever asks has a place of his own in the line for them, ahead of this one's.
      if (isWaiting(*request)) fetchFewer();
      request->iIsCalledOff = true;
      return std::nullopt;
    }
    iSeconds = request->iSeconds;
    return Taken{std::move(request->iAnswer), request->iChanges};
  }

  // The walk has come one question further; `seconds`: how long the server took to answer, absent when it was
  // not asked.
  void passed(std::optional<double> seconds) EXCLUDES(iCondition) {
    const ConditionLock lock(iCondition);
    if (seconds) iSeconds = *seconds;
    if (iUntilRetry > 0) --iUntilRetry;
  }

  // Begins what is not under way yet of these, the first ones first, where that is worthwhile.
  void begin(const std::vector<Walks::Item>& guessed) EXCLUDES(iCondition) {
    const size_t room = roomForMore();
    const ConditionLock lock(iCondition);
    forgetOld();
    locked_begin(guessed, room);
  }

  // How many are under way, or here and not asked for yet.
  size_t count() const EXCLUDES(iCondition) {
    const ConditionLock lock(iCondition);
    return iRequests.size();
  }

  // How many of them have not come yet, nor failed.
  size_t underWay() const EXCLUDES(iCondition) {
    const ConditionLock lock(iCondition);
    return static_cast<size_t>(
        std::count_if(iRequests.begin(), iRequests.end(), [](const RequestRef& request) {
          return request->iState != State::kFetched && request->iState != State::kFailed;
        }));
  }

  // What `isMeant` picks is not handed out any more. Called with the lock held.
  void callOff(const std::function<bool(const std::string& path)>& isMeant) EXCLUDES(iCondition) {
    const ConditionLock lock(iCondition);
    const size_t count = std::erase_if(iRequests, [&isMeant](const RequestRef& request) {
      if (!isMeant(request->iPath)) return false;
      request->iIsCalledOff = true;
      return true;
    });
    // It was fetched for nothing.
    for (size_t i = 0; i < count; ++i) fetchFewer();
  }

  // Those who wait look whether they are to stop.
  void wake() EXCLUDES(iCondition) {
    const ConditionLock lock(iCondition);
    iAskers.wakeAll();
  }
  // Nothing is begun any more, and what is under way has been called off.
  void stop() EXCLUDES(iCondition) {
    const ConditionLock lock(iCondition);
    iIsStopped = true;
    for (const RequestRef& request : iRequests) request->iIsCalledOff = true;
    iAskers.wakeAll();
    iFetchers.wakeAll();
    iCondition.broadcast();
  }

 private:
  using RequestRef = std::shared_ptr<Request>;
  using State = typename Request::State;

  typename std::vector<RequestRef>::iterator find(std::string_view path) REQUIRES(iCondition) {
    return std::find_if(iRequests.begin(), iRequests.end(),
                        [path](const RequestRef& request) { return request->iPath == path; });
  }
  RequestRef takeOut(std::string_view path) REQUIRES(iCondition) {
    const auto found = find(path);
    if (found == iRequests.end()) return nullptr;
    RequestRef request = std::move(*found);
    iRequests.erase(found);
    return request;
  }

  size_t roomForMore() const { return static_cast<size_t>(std::max(iRoom(), 0)); }

  void locked_begin(const std::vector<Walks::Item>& guessed, size_t room) REQUIRES(iCondition) {
    if (!mayBegin()) return;
    for (const Walks::Item& next : guessed) {
      if (iRequests.size() >= std::min(iMost, room)) break;
      if (find(next.path) != iRequests.end() || !hasThread()) continue;
      iRequests.push_back(std::make_shared<Request>(*this, next.path));
      iFetchers.wakeOne();
      watchFor(*iRequests.back());
    }
  }

  static bool isWaiting(const Request& request) {
    return request.iState == State::kWanted || request.iState == State::kWaitingForSession;
  }

  bool mayBegin() const REQUIRES(iCondition) {
    return !iIsStopped && iUntilRetry == 0 && iSeconds >= kWorthwhileSeconds && !isPaused();
  }

  bool isPaused() const REQUIRES(iCondition) {
    const double left = iPausedUntil.timeIntervalSinceDate(NSDate::date());
    // A clock that was set back tells nothing.
    return left > 0 && left <= kMostPause;
  }

  static double mostSeconds(const Request& request) {
    // What is being fetched is rather waited for: to ask anew takes longer.
    if (request.iState == State::kBeingFetched) return kMostSecondsFetching;
    const bool isFromNearby = request.iState == State::kFetched && request.iSeconds < kFarSeconds;
    return isFromNearby ? kMostSecondsOldNearby : kMostSecondsOld;
  }

  // Whether it has been in its state for too long.
  static bool isOld(const Request& request, const NSDate& now) {
    const double age = now.timeIntervalSinceDate(request.iSince);
    // A clock that was set back tells nothing.
    return age < 0 || age > mostSeconds(request);
  }

  // What nobody has asked for in time: the guesses are wrong, or the program is slow.
  void forgetOld() REQUIRES(iCondition) {
    const NSDate now = NSDate::date();
    const size_t forgotten = std::erase_if(iRequests, [&now](const RequestRef& request) {
      if (!isOld(*request, now)) return false;
      request->iIsCalledOff = true;
      if (request->iBreakOff) request->iBreakOff();
      return true;
    });
    for (size_t i = 0; i < forgotten; ++i) fetchFewer();
  }

  void fetchFewer() REQUIRES(iCondition) {
    if (iMost == 1) iUntilRetry = kPassed;
    iMost = std::max<size_t>(iMost - 1, 1);
  }

  // One for what is wanted, and the watcher. What was called off may keep one for a while.
  bool hasThread() REQUIRES(iCondition) {
    const auto wanted =
        static_cast<size_t>(std::count_if(iRequests.begin(), iRequests.end(), [](const RequestRef& request) {
          return request->iState == State::kWanted;
        }));
    try {
      if (!iWatcher.joinable()) iWatcher = std::thread([this] { watch(); });
      while (iThreads.size() < std::min(iBusy + wanted + 1, kMost)) iThreads.emplace_back([this] { work(); });
    } catch (const std::system_error&) {
      // Those that are there do it one after the other.
    }
    return !iThreads.empty();
  }

  RequestRef nextWanted() const REQUIRES(iCondition) {
    const auto found = std::find_if(iRequests.begin(), iRequests.end(), [](const RequestRef& request) {
      return request->iState == State::kWanted;
    });
    return found == iRequests.end() ? nullptr : *found;
  }

  void setBreakOff(Request& request, std::function<void()> breakOff) EXCLUDES(iCondition) {
    const ConditionLock lock(iCondition);
    request.iBreakOff = std::move(breakOff);
  }

  bool begins(Request& request) EXCLUDES(iCondition) {
    const ConditionLock lock(iCondition);
    const NSDate now = NSDate::date();
    if (request.iIsCalledOff || iIsStopped || isOld(request, now)) return false;
    request.iState = State::kBeingFetched;
    request.iSince = now;
    request.iChanges = iWalks.changes();
    return true;
  }

  void work() EXCLUDES(iCondition) {
    NSThread::setName(iName);
    iCondition.lock();
    while (!iIsStopped) {
      const RequestRef request = nextWanted();
      if (request == nullptr) {
        iFetchers.wait(iCondition);
        continue;
      }
      request->iState = State::kWaitingForSession;
      ++iBusy;
      iCondition.unlock();
      Answer answer{};
      const AheadOutcome outcome = fetch(*request, &answer);
      iCondition.lock();
      --iBusy;
      request->iAnswer = std::move(answer);
      ended(*request, outcome);
    }
    iCondition.unlock();
  }

  static NSDate dueDate(const Request& request) {
    return request.iSince.dateByAddingTimeInterval(mostSeconds(request) + kALittle);
  }

  // Sees to it that what nobody asks for any more does not stay in memory, nor what takes too long under way.
  void watch() EXCLUDES(iCondition) {
    NSThread::setName("watching " + iName);
    const ConditionLock lock(iCondition);
    while (!iIsStopped) {
      iWatchedUntil.reset();
      for (const RequestRef& request : iRequests)
        iWatchedUntil = std::min(iWatchedUntil.value_or(dueDate(*request)), dueDate(*request));
      if (!iWatchedUntil) {
        iCondition.wait();
      } else if (!iCondition.waitUntilDate(*iWatchedUntil)) {
        forgetOld();
      }
    }
  }

  void watchFor(const Request& request) REQUIRES(iCondition) {
    if (!iWatchedUntil || dueDate(request) < *iWatchedUntil) iCondition.broadcast();
  }

  // None of what goes wrong here is anybody's failure.
  AheadOutcome fetch(Request& request, Answer* answer) const {
    try {
      return iFetch(request, answer);
    } catch (const std::exception&) {
      return AheadOutcome::kFailed;
    }
  }

  void ended(Request& request, AheadOutcome outcome) REQUIRES(iCondition) {
    const NSDate now = NSDate::date();
    request.iSeconds = now.timeIntervalSinceDate(request.iSince);
    request.iSince = now;
    request.iBreakOff = nullptr;
    request.iState = outcome == AheadOutcome::kFetched ? State::kFetched : State::kFailed;
    if (outcome == AheadOutcome::kFailed && !request.iIsCalledOff) iUntilRetry = kPassed;
    if (outcome == AheadOutcome::kFetched) iPause = kFirstPause;
    if (outcome == AheadOutcome::kNoSession && !request.iIsCalledOff && !isPaused()) {
      iPausedUntil = now.dateByAddingTimeInterval(iPause);
      iPause = std::min(2 * iPause, kMostPause);
    }
    iAskers.wakeAll();
    watchFor(request);
  }

  const std::string iName;
  Walks& iWalks;
  const std::function<int()> iRoom;
  const Fetch iFetch;

  mutable NSCondition iCondition;                            // the watcher waits for it
  WaitQueue iFetchers;                                       // those who fetch
  WaitQueue iAskers;                                         // those who ask
  std::vector<RequestRef> iRequests GUARDED_BY(iCondition);  // what will be asked for first is the first
  size_t iMost GUARDED_BY(iCondition) = kMost / 2;
  size_t iBusy GUARDED_BY(iCondition) = 0;     // threads
  double iSeconds GUARDED_BY(iCondition) = 0;  // that the server took for the last answer
  int iUntilRetry GUARDED_BY(iCondition) = 0;  // questions
  NSDate iPausedUntil GUARDED_BY(iCondition);
  double iPause GUARDED_BY(iCondition) = kFirstPause;
  bool iIsStopped GUARDED_BY(iCondition) = false;
  // Begun when needed, joined by the destructor:
  std::vector<std::thread> iThreads GUARDED_BY(iCondition);
  std::thread iWatcher GUARDED_BY(iCondition);
  std::optional<NSDate> iWatchedUntil GUARDED_BY(iCondition);
};

}  // namespace ombra
