#include "tests/userfs/ForeignFileSystem.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/userfs/FuseLibrary.h"
#include "platform/userfs/FuserMount.h"

namespace ombra {

struct ForeignFileSystem::Library {
  ~Library() {
    if (handle != nullptr) fuse_destroy(handle);
  }
  fuse* handle = nullptr;
};

struct ForeignFileSystem::Operations {
  static ForeignFileSystem& self() {
    return *static_cast<ForeignFileSystem*>(fuse_get_context()->private_data);
  }

  // Calls `body` with the content of the file.
  template <typename Body>
  static int withFile(const char* path, const Body& body) {
    ForeignFileSystem& files = self();
    const MutexLock lock(files.iLock);
    const auto found = files.iFiles.find(path + 1);
    return found == files.iFiles.end() ? -ENOENT : body(found->second);
  }

  static int getattr(const char* path, struct stat* attributes, fuse_file_info* /*file*/) {
    *attributes = {};
    attributes->st_mode = S_IFDIR | 0755;
    attributes->st_nlink = 1;
    if (std::strcmp(path, "/") == 0) return 0;
    return withFile(path, [attributes](const std::string& content) {
      attributes->st_mode = S_IFREG | 0644;
      attributes->st_size = static_cast<off_t>(content.size());
      return 0;
    });
  }
  static int create(const char* path, mode_t /*mode*/, fuse_file_info* /*file*/) {
    ForeignFileSystem& files = self();
    const MutexLock lock(files.iLock);
    files.iFiles[path + 1] = "";
    return 0;
  }
  static int truncate(const char* path, off_t size, fuse_file_info* /*file*/) {
    return withFile(path, [size](std::string& content) {
      content.resize(static_cast<size_t>(size));
      return 0;
    });
  }
  static int read(const char* path, char* buffer, size_t size, off_t offset, fuse_file_info* /*file*/) {
    return withFile(path, [=](const std::string& content) {
      if (static_cast<size_t>(offset) >= content.size()) return 0;
      return static_cast<int>(content.copy(buffer, size, static_cast<size_t>(offset)));
    });
  }
  static int write(const char* path, const char* buffer, size_t size, off_t offset,
                   fuse_file_info* /*file*/) {
    return withFile(path, [=](std::string& content) {
      const auto begin = static_cast<size_t>(offset);
      if (content.size() < begin + size) content.resize(begin + size);
      content.replace(begin, size, buffer, size);
      return static_cast<int>(size);
    });
  }
  static int unlink(const char* path) {
    ForeignFileSystem& files = self();
    const MutexLock lock(files.iLock);
    return files.iFiles.erase(path + 1) == 1 ? 0 : -ENOENT;
  }
  static int readdir(const char* path, void* buffer, fuse_fill_dir_t fill, off_t /*offset*/,
                     fuse_file_info* /*file*/, fuse_readdir_flags /*flags*/) {
    if (std::strcmp(path, "/") != 0) return -ENOENT;
    ForeignFileSystem& files = self();
    const MutexLock lock(files.iLock);
    fill(buffer, ".", nullptr, 0, fuse_fill_dir_flags{});
    for (const auto& [name, content] : files.iFiles) {
      fill(buffer, name.c_str(), nullptr, 0, fuse_fill_dir_flags{});
    }
    return 0;
  }
  static void destroy(void* data) { ++static_cast<ForeignFileSystem*>(data)->iEnds; }
};

ForeignFileSystem::ForeignFileSystem() = default;

ForeignFileSystem::~ForeignFileSystem() { unmount(); }

void ForeignFileSystem::add(const std::string& name, std::string content) {
  const MutexLock lock(iLock);
  iFiles[name] = std::move(content);
}

std::string ForeignFileSystem::contentOf(const std::string& name) {
  const MutexLock lock(iLock);
  const auto found = iFiles.find(name);
  return found == iFiles.end() ? "(none)" : found->second;
}

bool ForeignFileSystem::mount(const std::string& options) {
  fuse_operations operations{};
  operations.getattr = Operations::getattr;
  operations.create = Operations::create;
  operations.truncate = Operations::truncate;
  operations.read = Operations::read;
  operations.write = Operations::write;
  operations.unlink = Operations::unlink;
  operations.readdir = Operations::readdir;
  operations.destroy = Operations::destroy;
  fuse_args arguments{};
  fuse_opt_add_arg(&arguments, "foreign");
  fuse_opt_add_arg(&arguments, ("-o" + options).c_str());
  auto library = std::make_unique<Library>();
  library->handle = fuse_new(&arguments, &operations, sizeof(operations), this);
  fuse_opt_free_args(&arguments);
  if (library->handle == nullptr || fuse_mount(library->handle, iFolder.path().c_str()) != 0) return false;
  iLibrary = std::move(library);
  iLoop = std::thread([handle = iLibrary->handle] { fuse_loop(handle); });
  return true;
}

void ForeignFileSystem::unmount() {
  if (iLibrary == nullptr) return;
  // Out of the tree first, which ends the loop: the library closes the device, which the loop reads.
  std::string words;
  const bool isDetached = ::umount2(path().c_str(), MNT_DETACH) == 0 || FuserMount::detach(path(), &words);
  if (!isDetached) fuse_unmount(iLibrary->handle);
  iLoop.join();
  if (isDetached) fuse_unmount(iLibrary->handle);
  iLibrary.reset();
}

}  // namespace ombra
