// The redirect module of this build, made known to the fuse library.
#pragma once

#include <dlfcn.h>

#include <string>

namespace ombra {

// Loads the module; "" or the reason. The library finds it by its name then, as one that an administrator has
// installed.
inline std::string whyModuleIsNotLoaded() {
  if (dlopen(OMBRA_REDIRECT_MODULE, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE) != nullptr) return {};
  return dlerror();
}

}  // namespace ombra
