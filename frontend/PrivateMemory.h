// For processes that passwords pass through.
#pragma once

#include <sys/prctl.h>

namespace ombra {

// From here on this process leaves no core file and no other process of the user may look into its memory. A
// program that it starts does not inherit the latter.
inline void keepMemoryPrivate() {
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
  return;  // the search for leaks looks into the process from another one
#endif
#elif defined(__SANITIZE_ADDRESS__)
  return;
#endif
  prctl(PR_SET_DUMPABLE, 0);
}

}  // namespace ombra
