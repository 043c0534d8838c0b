// An open folder of the C library, closed with its owner.
#pragma once

#include <dirent.h>

#include <memory>

namespace ombra {

struct DirectoryCloser {
  void operator()(DIR* folder) const { ::closedir(folder); }
};
using DirectoryStream = std::unique_ptr<DIR, DirectoryCloser>;

}  // namespace ombra
