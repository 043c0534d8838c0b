// Owns threads that come and go.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "platform/foundation/NSDate.h"

namespace ombra {

// Threads that end by themselves. They are not joined but counted, because one of them may be stuck in a call
// to a dead server at the end, and the end must not wait for it for ever. What a thread uses is kept alive by
// what its body captures.
class ThreadGroup {
 public:
  ThreadGroup();

  // Starts a thread with that name. False when the system gives none. An exception out of `body` is logged.
  [[nodiscard]] bool start(const char* name, std::function<void()> body);
  size_t count() const;
  // Waits until no thread is left, until `limit` at the latest. True when none is left.
  bool waitUntilEmpty(std::optional<NSDate> limit = std::nullopt);

 private:
  struct Shared;
  std::shared_ptr<Shared> iShared;
};

}  // namespace ombra
