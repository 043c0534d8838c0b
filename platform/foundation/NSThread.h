// Threads with names and per-thread dictionaries.
#pragma once

#include <any>
#include <functional>
#include <string>
#include <string_view>

namespace ombra {

// Operations on the calling thread, and the start of detached ones.
class NSThread {
 public:
  // Runs `body` on a detached thread: a new one, or one whose body has ended, of which nothing is left but
  // what the body did to the system's thread itself (signal mask, priority): one that changes these restores
  // them. An exception out of `body` is logged and ends it. False when the system gives no thread (the body
  // then never runs); the caller must handle it.
  [[nodiscard]] static bool detachNewThread(std::function<void()> body);
  // The calling thread's full name (any length; the system shows its first 15 bytes). Empty until set.
  static const std::string& name();
  static void setName(std::string name);
  // The value under `key` in the calling thread's dictionary; created empty. Gone when the thread's body
  // ends.
  static std::any& threadDictionary(std::string_view key);
};

}  // namespace ombra
