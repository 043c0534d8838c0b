// Settings of the user, overridden on the command line.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSDictionary.h"

namespace ombra {

// The property list defaults.plist in the configuration folder, below "-Key value" pairs of the command line.
// Read once, on first use; thread-safe. A file that cannot be read or parsed counts as empty, with a log
// line.
class NSUserDefaults {
 public:
  static NSUserDefaults& standardUserDefaults();

  // The value under `key`; command line first, then the file. Absent when neither has it.
  std::optional<PropertyValue> objectForKey(std::string_view key) EXCLUDES(iLock);
  // True for a true Boolean, a non-zero number, and a text that begins with Y, y, T, t or a digit 1 to 9.
  bool boolForKey(std::string_view key) EXCLUDES(iLock);
  std::optional<std::string> stringForKey(std::string_view key) EXCLUDES(iLock);

  // Changes the file (written beside it and renamed over it). A null value removes the key.
  [[nodiscard]] bool setObject(PropertyValue value, std::string_view forKey, NSErrorRef* error)
      EXCLUDES(iLock);
  // All keys and values of the file.
  NSDictionary dictionaryRepresentation() EXCLUDES(iLock);
  // Sets a value for this process alone, over all others; null removes it again. For tests.
  void setVolatileObject(PropertyValue value, std::string_view forKey) EXCLUDES(iLock);
  // Forgets what was read, so that the next question reads the file and the arguments again: what other
  // processes have changed since then shows.
  void reload() EXCLUDES(iLock);

 private:
  void loadIfNeeded() REQUIRES(iLock);

  Mutex iLock;
  bool iLoaded GUARDED_BY(iLock) = false;
  NSDictionary iVolatile GUARDED_BY(iLock);
  NSDictionary iArguments GUARDED_BY(iLock);
  NSDictionary iFile GUARDED_BY(iLock);
};

}  // namespace ombra
