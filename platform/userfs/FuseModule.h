// The modules of the fuse library that come with the program.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// Loads "libfusemod_NAME.so" from the folder of the running program, else from where the system looks, and
// keeps it: the library asks the system for it by that name alone, and is given the one that is loaded. False
// with the reason.
[[nodiscard]] bool loadFuseModule(std::string_view name, std::string* reason);

}  // namespace ombra
