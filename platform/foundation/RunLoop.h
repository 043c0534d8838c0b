// The event loop of the main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/foundation/NeverDestroyed.h"

struct sd_event;

namespace ombra {

// An sd-event loop. Created and run on one thread; `perform` may be called from any.
class RunLoop {
 public:
  static RunLoop& mainRunLoop();

  // Runs until `stop` and answers its code. Notifications between processes are delivered here. May be run
  // again.
  int run();
  // Ends `run` after what is being handled; from any thread. A stop before `run` ends that run at once.
  void stop(int code);
  // Runs `work` on the loop's thread, soon, in the order given. Work given after the loop has ended is
  // dropped, and so is work that nobody runs a loop for. An exception out of it is logged.
  void perform(std::function<void()> work);
  // Handles what is ready, waiting at most `microseconds`. True when something was handled. For tests and
  // waits of a command that has no loop of its own.
  bool runOnce(uint64_t microseconds);
  // The loop itself, for this folder's bus connection.
  sd_event* event();

 private:
  friend class NeverDestroyed<RunLoop>;
  RunLoop();
  ~RunLoop();
  struct State;
  std::unique_ptr<State> iState;
};

}  // namespace ombra
