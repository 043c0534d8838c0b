// Lets bytes leave while nobody uses their channel.
#pragma once

#include <functional>
#include <thread>

#include "platform/foundation/NSCondition.h"

namespace ombra {

// A thread that takes over a channel between two uses of it, so that a program that writes goes on while what
// it wrote last is enciphered and sent, and so that small writes leave together. The channel belongs either
// to its user or to this thread, never to both: `lend` and `takeBack` hand it over. Both, and the destructor,
// are called by the user's one thread at a time.
class SFTPBackgroundSender {
 public:
  enum class Step { done, moved, blocked };
  // Sends some of what is queued: without waiting, or for at most a moment when `mayWait`. On this thread.
  using Move = std::function<Step(bool mayWait)>;

  explicit SFTPBackgroundSender(Move move) : iMove(std::move(move)) {}
  // Takes the channel back and ends the thread.
  ~SFTPBackgroundSender();
  SFTPBackgroundSender(const SFTPBackgroundSender&) = delete;
  SFTPBackgroundSender& operator=(const SFTPBackgroundSender&) = delete;

  // From here on the thread may move. `atOnce`, or else after a few milliseconds, in which more may come.
  // False when the system has no thread to give: the channel then stays with the caller.
  [[nodiscard]] bool lend(bool atOnce) EXCLUDES(iCondition);
  // The thread has let go of the channel when this returns; a step that runs is waited for.
  void takeBack() EXCLUDES(iCondition);

 private:
  void run() EXCLUDES(iCondition);
  // Sleeps until the channel is lent and it is time to move; false at the thread's end.
  bool waitForWork() EXCLUDES(iCondition);
  void moveUntilTakenBack() EXCLUDES(iCondition);

  const Move iMove;
  NSCondition iCondition;
  bool iIsLent GUARDED_BY(iCondition) = false;
  bool iAtOnce GUARDED_BY(iCondition) = false;
  bool iIsMoving GUARDED_BY(iCondition) = false;
  bool iHasNothing GUARDED_BY(iCondition) = false;  // since it was lent
  bool iIsEnding GUARDED_BY(iCondition) = false;
  // Until woken, not just for the moment in which more may come.
  bool iSleepsLong GUARDED_BY(iCondition) = false;
  std::thread iThread;  // begun by the first `lend`, joined by the destructor
};

}  // namespace ombra
