// An open folder of which a module adds to the listing.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "platform/userfs/redirect/RedirectFileSystem.h"

namespace ombra {

struct RedirectFileSystem::OpenFolder {
  std::optional<std::string> path;  // wherever it has been moved; guarded by the file system's lock
  bool isBelow = false;             // the file system below has it as well, opened as `lower`
  fuse_file_info lower{};
  // As of the last read of the beginning, so that the offsets of one walk stay valid: sorted names of litter.
  std::vector<std::string> litter;
  // Whether the file system below numbers its entries. One that does not gives them all at once.
  bool hasOffsets = true;

  bool hides(const char* name) const {
    return !litter.empty() && std::binary_search(litter.begin(), litter.end(), std::string_view(name));
  }
};

// What a read of a folder is given to, on its way through.
struct RedirectFileSystem::Filling {
  void* buffer;
  fuse_fill_dir_t fill;
  OpenFolder* folder;
  bool isFull = false;
};

}  // namespace ombra
