// The names that new contents have on the server until they are whole.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// A fresh name each time.
std::string makeTemporaryName();
// A fresh name in the folder of `path`, for its new content.
std::string temporaryPathBeside(std::string_view path);
// Whether `name` is one of these, and so not to be listed: of an upload that is under way, or of one that was
// given up with its session.
bool isTemporaryName(std::string_view name);

}  // namespace ombra
