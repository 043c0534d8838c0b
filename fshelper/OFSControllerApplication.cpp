#include "fshelper/OFSControllerApplication.h"

#include <dlfcn.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>

#include "platform/foundation/NSThread.h"

namespace ombra {
namespace {

// An X server that hangs, behind a dead network for example, must not hold up a mount.
constexpr std::chrono::seconds kLongestAnswer{2};

// What is needed of libxcb: its types as its headers declare them, and a few functions. Loaded on demand,
// since a helper on a server must not depend on X; and not libX11, which ends the process when the X server
// goes away.
struct XLibrary {
  struct Cookie {
    unsigned sequence;
  };
  struct Screen {
    uint32_t root;  // and more
  };
  struct ScreenIterator {
    Screen* data;
    int rem;
    int index;
  };
  struct PointerReply {
    uint8_t responseType;
    uint8_t sameScreen;
    uint16_t sequence;
    uint32_t length;
    uint32_t root;
    uint32_t child;
    int16_t position[4];
    uint16_t mask;
  };
  using Connect = void* (*)(const char* display, int* screen);
  using HasError = int (*)(void* connection);
  using Disconnect = void (*)(void* connection);
  using GetSetup = const void* (*)(void* connection);
  using RootsIterator = ScreenIterator (*)(const void* setup);
  using QueryPointer = Cookie (*)(void* connection, uint32_t window);
  using QueryPointerReply = PointerReply* (*)(void* connection, Cookie cookie, void** error);

  explicit XLibrary(void* library)
      : connect(reinterpret_cast<Connect>(dlsym(library, "xcb_connect"))),
        hasError(reinterpret_cast<HasError>(dlsym(library, "xcb_connection_has_error"))),
        disconnect(reinterpret_cast<Disconnect>(dlsym(library, "xcb_disconnect"))),
        getSetup(reinterpret_cast<GetSetup>(dlsym(library, "xcb_get_setup"))),
        rootsIterator(reinterpret_cast<RootsIterator>(dlsym(library, "xcb_setup_roots_iterator"))),
        queryPointer(reinterpret_cast<QueryPointer>(dlsym(library, "xcb_query_pointer"))),
        queryPointerReply(reinterpret_cast<QueryPointerReply>(dlsym(library, "xcb_query_pointer_reply"))) {}
  bool isComplete() const {
    return connect != nullptr && hasError != nullptr && disconnect != nullptr && getSetup != nullptr &&
           rootsIterator != nullptr && queryPointer != nullptr && queryPointerReply != nullptr;
  }

  const Connect connect;
  const HasError hasError;
  const Disconnect disconnect;
  const GetSetup getSetup;
  const RootsIterator rootsIterator;
  const QueryPointer queryPointer;
  const QueryPointerReply queryPointerReply;
};

// Bits of the X protocol's key mask: Mod1 is Alt, Mod4 the logo key on all usual keyboards.
constexpr unsigned kXShift = 1U << 0;
constexpr unsigned kXMod1 = 1U << 3;
constexpr unsigned kXMod4 = 1U << 6;

uint32_t flagsForKeyMask(unsigned mask) {
  return ((mask & kXShift) != 0 ? NSShiftKeyMask : 0U) | ((mask & kXMod1) != 0 ? NSAlternateKeyMask : 0U) |
         ((mask & kXMod4) != 0 ? NSCommandKeyMask : 0U);
}

// Asks with the pointer's place, which comes with the state of the keys. May take for ever.
uint32_t flagsOfDisplay(const std::string& name) {
  void* handle = dlopen("libxcb.so.1", RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return 0;
  const XLibrary x(handle);
  if (!x.isComplete()) return 0;
  // Never null, and to be let go also when it stands for a failure.
  const std::unique_ptr<void, XLibrary::Disconnect> display(x.connect(name.c_str(), nullptr), x.disconnect);
  if (x.hasError(display.get()) != 0) return 0;
  const XLibrary::ScreenIterator screens = x.rootsIterator(x.getSetup(display.get()));
  if (screens.rem == 0) return 0;
  const XLibrary::Cookie asked = x.queryPointer(display.get(), screens.data->root);
  const std::unique_ptr<XLibrary::PointerReply, decltype(&std::free)> reply(
      x.queryPointerReply(display.get(), asked, nullptr), &std::free);
  return reply == nullptr ? 0 : flagsForKeyMask(reply->mask);
}

}  // namespace

uint32_t modifierFlagsOfCurrentEvent() {
  const char* name = std::getenv("DISPLAY");
  if (name == nullptr || *name == '\0') return 0;
  const auto flags = std::make_shared<std::promise<uint32_t>>();
  std::future<uint32_t> answer = flags->get_future();
  // Detached, because nothing ends a call of the library that hangs; it has only what it owns.
  const bool asked = NSThread::detachNewThread(
      [flags, display = std::string(name)] { flags->set_value(flagsOfDisplay(display)); });
  if (!asked || answer.wait_for(kLongestAnswer) != std::future_status::ready) return 0;
  return answer.get();
}

}  // namespace ombra
