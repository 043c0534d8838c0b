#include "fshelper/OFSControllerApplication.h"

#include <dlfcn.h>

#include <cstdlib>
#include <memory>

namespace ombra {
namespace {

// The few functions of libX11 that are needed. Loaded on demand: a helper on a server must not depend on X.
struct XLibrary {
  using OpenDisplay = void* (*)(const char*);
  using CloseDisplay = int (*)(void*);
  using DefaultRootWindow = unsigned long (*)(void*);
  using QueryPointer = int (*)(void*, unsigned long, unsigned long*, unsigned long*, int*, int*, int*, int*,
                               unsigned int*);
  OpenDisplay openDisplay = nullptr;
  CloseDisplay closeDisplay = nullptr;
  DefaultRootWindow defaultRootWindow = nullptr;
  QueryPointer queryPointer = nullptr;

  explicit XLibrary(void* library)
      : openDisplay(reinterpret_cast<OpenDisplay>(dlsym(library, "XOpenDisplay"))),
        closeDisplay(reinterpret_cast<CloseDisplay>(dlsym(library, "XCloseDisplay"))),
        defaultRootWindow(reinterpret_cast<DefaultRootWindow>(dlsym(library, "XDefaultRootWindow"))),
        queryPointer(reinterpret_cast<QueryPointer>(dlsym(library, "XQueryPointer"))) {}
  bool isComplete() const {
    return openDisplay != nullptr && closeDisplay != nullptr && defaultRootWindow != nullptr &&
           queryPointer != nullptr;
  }
};

// Bits of the X protocol's key mask: Mod1 is Alt, Mod4 the logo key on all usual keyboards.
constexpr unsigned kXShift = 1U << 0;
constexpr unsigned kXMod1 = 1U << 3;
constexpr unsigned kXMod4 = 1U << 6;

uint32_t flagsForKeyMask(unsigned mask) {
  return ((mask & kXShift) != 0 ? NSShiftKeyMask : 0U) | ((mask & kXMod1) != 0 ? NSAlternateKeyMask : 0U) |
         ((mask & kXMod4) != 0 ? NSCommandKeyMask : 0U);
}

}  // namespace

uint32_t modifierFlagsOfCurrentEvent() {
  const char* name = std::getenv("DISPLAY");
  if (name == nullptr || *name == '\0') return 0;
  // Kept loaded: the library registers handlers that must not be unmapped.
  void* handle = dlopen("libX11.so.6", RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return 0;
  const XLibrary x(handle);
  if (!x.isComplete()) return 0;
  const std::unique_ptr<void, XLibrary::CloseDisplay> display(x.openDisplay(name), x.closeDisplay);
  if (display == nullptr) return 0;
  unsigned long root = 0;
  unsigned long child = 0;
  int position[4] = {};
  unsigned mask = 0;
  // The answer "not on this screen" still fills the mask.
  x.queryPointer(display.get(), x.defaultRootWindow(display.get()), &root, &child, &position[0], &position[1],
                 &position[2], &position[3], &mask);
  return flagsForKeyMask(mask);
}

}  // namespace ombra
