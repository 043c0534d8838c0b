// A file of the file system below a module, for a copy.
#pragma once

#include <fcntl.h>

#include <cerrno>
#include <string>
#include <utility>

#include "platform/userfs/redirect/RedirectFileSystem.h"

namespace ombra {

// Closes itself. `result` is 0 when it is open.
class RedirectFileSystem::LowerFile {
 public:
  LowerFile(fuse_fs* fileSystem, std::string path) : iFileSystem(fileSystem), iPath(std::move(path)) {}
  ~LowerFile() {
    if (iIsOpen) fuse_fs_release(iFileSystem, iPath.c_str(), &iFile);
  }
  LowerFile(const LowerFile&) = delete;
  LowerFile& operator=(const LowerFile&) = delete;

  int open() {
    iFile.flags = O_RDONLY;
    return opened(fuse_fs_open(iFileSystem, iPath.c_str(), &iFile));
  }
  int create(mode_t mode) {
    iFile.flags = O_WRONLY | O_CREAT | O_EXCL;
    return opened(fuse_fs_create(iFileSystem, iPath.c_str(), mode, &iFile));
  }
  int read(char* buffer, size_t size, off_t offset) {
    return fuse_fs_read(iFileSystem, iPath.c_str(), buffer, size, offset, &iFile);
  }
  int write(const char* buffer, size_t size, off_t offset) {
    return fuse_fs_write(iFileSystem, iPath.c_str(), buffer, size, offset, &iFile);
  }
  // Has the bytes stored; what a file system without that answers is a success.
  int store() {
    const int result = fuse_fs_fsync(iFileSystem, iPath.c_str(), 0, &iFile);
    return result == -ENOSYS ? 0 : result;
  }

 private:
  int opened(int result) {
    iIsOpen = result == 0;
    return result;
  }

  fuse_fs* const iFileSystem;
  const std::string iPath;
  fuse_file_info iFile{};
  bool iIsOpen = false;
};

}  // namespace ombra
