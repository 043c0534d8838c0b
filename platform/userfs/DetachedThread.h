// Threads that nobody joins.
#pragma once

#include <functional>

namespace ombra {

// Starts a thread with that name, which must outlive it. It is not joined: it may be stuck in a call to a
// dead server at the end, and the end must not wait for it for ever. What it uses is kept alive by what
// `body` captures; an exception out of `body` is logged. Other than NSThread's it is never kept for another
// body, so that a body may do to it what it likes (signals). False when the system gives none.
[[nodiscard]] bool startDetachedThread(const char* name, std::function<void()> body);

}  // namespace ombra
