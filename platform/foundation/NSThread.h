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
  // Starts a detached thread that runs `body`. An exception out of `body` is logged and ends the thread. False
  // when the system gives no thread (the body then never runs); the caller must handle it.
  [[nodiscard]] static bool detachNewThread(std::function<void()> body);
  // The calling thread's full name (any length; the system shows its first 15 bytes). Empty until set.
  static const std::string& name();
  static void setName(std::string name);
  // The value under `key` in the calling thread's dictionary; created empty. Gone when the thread ends.
  static std::any& threadDictionary(std::string_view key);
};

}  // namespace ombra
