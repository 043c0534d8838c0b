// A server that is asked ahead: what was asked, and its answers.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"
#include "remote/Ahead.h"
#include "tests/support/FakeEngine.h"
#include "tests/support/WatchedCondition.h"

namespace ombra {

template <typename Answer>
class AskedAhead {
 public:
  using Request = typename Ahead<Answer>::Request;

  // On a thread that fetches.
  AheadOutcome fetch(Request& request, Answer* result) {
    if (waitsForSession) sessions.pass();
    if (hasNoSession) {
      note(&iCalledOff, request.path());
      return AheadOutcome::kNoSession;
    }
    if (!request.begins()) {
      note(&iCalledOff, request.path());
      return AheadOutcome::kFailed;
    }
    note(&iBegun, request.path());
    std::atomic<bool> isBrokenOff{false};
    request.setBreakOff([&] {
      isBrokenOff = true;
      server.poke();
    });
    if (isSlow) server.pass([&isBrokenOff] { return isBrokenOff.load(); });
    request.setBreakOff(nullptr);
    if (isBrokenOff) note(&iBrokenOff, request.path());
    *result = answer;
    note(&iEnded, request.path());
    if (throws) throw KCException("while fetching");
    return fails ? AheadOutcome::kFailed : AheadOutcome::kFetched;
  }
  // Block until so many were, since the beginning.
  bool waitUntilEnded(size_t count) { return waitFor(&iEnded, count); }
  bool waitUntilBrokenOff(size_t count) { return waitFor(&iBrokenOff, count); }
  // Of those that never began.
  bool waitUntilCalledOff(size_t count) { return waitFor(&iCalledOff, count); }
  size_t calledOff() EXCLUDES(iCondition) {
    const WatchedLock lock(iCondition);
    return iCalledOff.size();
  }
  std::vector<std::string> begun() EXCLUDES(iCondition) {
    const WatchedLock lock(iCondition);
    return iBegun;
  }

  std::atomic<bool> waitsForSession{false};
  std::atomic<bool> hasNoSession{false};
  std::atomic<bool> isSlow{false};
  std::atomic<bool> fails{false};
  std::atomic<bool> throws{false};
  std::atomic<int> room{16};
  Gate sessions;
  Gate server;
  Answer answer{};  // to all; set before the first question

 private:
  void note(std::vector<std::string>* where, const std::string& path) EXCLUDES(iCondition) {
    const WatchedLock lock(iCondition);
    where->push_back(path);
    iCondition.broadcast();
  }
  bool waitFor(const std::vector<std::string>* where, size_t count) EXCLUDES(iCondition) {
    const WatchedLock lock(iCondition);
    while (where->size() < count) {
      if (!iCondition.waitFor("what is fetched ahead")) return false;
    }
    return true;
  }

  WatchedCondition iCondition;
  // Guarded by it:
  std::vector<std::string> iBegun;
  std::vector<std::string> iEnded;
  std::vector<std::string> iBrokenOff;
  std::vector<std::string> iCalledOff;
};

}  // namespace ombra
