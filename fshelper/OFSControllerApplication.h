// What the program needs of an application object: a start, and the keys held at that moment.
#pragma once

#include <cstdint>

namespace ombra {

// Modifier flags of an event.
enum NSEventModifierFlags : uint32_t {
  NSShiftKeyMask = 0x20000,
  NSAlternateKeyMask = 0x80000,
  NSCommandKeyMask = 0x100000,
};

class NSApplication {
 public:
  virtual ~NSApplication() = default;
  // Called once, on the main thread, before its event loop runs. Subclasses begin with the inherited one.
  virtual void finishLaunching() {}
};

// The modifier keys held right now, as NSEventModifierFlags: Shift, Alt (Option) and Super (Command), asked
// from the X server that DISPLAY names. None without an X server or its client library, and when the server
// does not answer within two seconds.
uint32_t modifierFlagsOfCurrentEvent();

}  // namespace ombra
