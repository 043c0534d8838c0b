// Texts that many nodes share: the paths of their folders.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace ombra {

using FolderPath = std::shared_ptr<const std::string>;

// `path` as an object that later calls with the same text are likely to answer as well: the items of a folder
// are made one after the other, and each would otherwise carry a copy. Thread-safe.
FolderPath sharedFolderPath(std::string_view path);

}  // namespace ombra
