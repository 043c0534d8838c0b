// Handles of files of this machine among those of the file system below.
#pragma once

#include <cerrno>

#include "platform/userfs/redirect/RedirectFileSystem.h"

namespace ombra {

inline bool isLocal(const fuse_file_info* file) {
  return file != nullptr && (file->fh & RedirectFileSystem::kLocal) != 0;
}

inline int descriptorOf(const fuse_file_info* file) {
  return static_cast<int>(file->fh & ~RedirectFileSystem::kLocal);
}

// What a system call has answered, as an operation answers it.
template <typename Number>
int systemResult(Number result) {
  return result < 0 ? -errno : static_cast<int>(result);
}

}  // namespace ombra
