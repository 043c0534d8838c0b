// The names that this engine gives to files on their way.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// A fresh name beside `path` for its new content until that is whole. Never listed.
std::string temporaryPathBeside(std::string_view path);
bool isTemporaryFTPName(std::string_view name);

}  // namespace ombra
