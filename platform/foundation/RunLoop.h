// The event loop of the main thread.
#pragma once

#include <functional>
#include <memory>

struct sd_event;

namespace ombra {

// An sd-event loop. Created and run on one thread; `perform` may be called from any.
class RunLoop {
 public:
  static RunLoop& mainRunLoop();

  // Runs until `stop`. Notifications between processes are delivered here.
  int run();
  void stop(int code);
  // Runs `work` on the loop's thread, soon. Work given after the loop has ended is dropped.
  void perform(std::function<void()> work);
  // Handles what is ready, waiting at most `microseconds`. True when something was handled. For tests and waits
  // of a command that has no loop of its own.
  bool runOnce(uint64_t microseconds);
  // The loop itself, for this folder's bus connection.
  sd_event* event();

 private:
  RunLoop();
  ~RunLoop();
  struct State;
  std::unique_ptr<State> iState;
};

}  // namespace ombra
