// Removing whole folders without ever leaving them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/foundation/DirectoryStream.h"
#include "platform/foundation/NSFileManager.h"

namespace ombra {
namespace {

// A folder that is being emptied, and its name in the folder above.
struct OpenFolder {
  DirectoryStream stream;
  std::string name;
  int descriptor() const { return ::dirfd(stream.get()); }
};

// Works on descriptors from the top folder down, so that a folder which is swapped for a link meanwhile is
// not followed, and stays on one device, so that nothing of a volume mounted below is touched.
class TreeRemover {
 public:
  // 0 or the errno of the first item that could not be removed.
  int removeTree(int parent, const std::string& name) {
    if (!removeOne(parent, name)) return errno;
    while (!iOpen.empty()) {
      if (!step()) return errno;
    }
    return 0;
  }

 private:
  // Removes what is no folder at once and opens what is one.
  bool removeOne(int parent, const std::string& name) {
    if (::unlinkat(parent, name.c_str(), 0) == 0) return true;
    // Linux says EISDIR for a folder, POSIX EPERM.
    if (errno != EISDIR && errno != EPERM) return false;
    const int reason = errno;
    if (enter(parent, name)) return true;
    if (errno == ENOTDIR || errno == ELOOP) errno = reason;
    return false;
  }

  bool enter(int parent, const std::string& name) {
    const int descriptor = ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0) return false;
    struct stat status {};
    DIR* stream =
        ::fstat(descriptor, &status) == 0 && isOnDevice(status.st_dev) ? ::fdopendir(descriptor) : nullptr;
    if (stream == nullptr) {
      const int reason = errno;
      ::close(descriptor);
      errno = reason;
      return false;
    }
    iOpen.push_back({DirectoryStream(stream), name});
    return true;
  }

  bool isOnDevice(dev_t device) {
    if (iOpen.empty()) iDevice = device;
    if (device == iDevice) return true;
    errno = EBUSY;
    return false;
  }

  // Takes the next item of the deepest open folder; at its end removes the folder itself.
  bool step() {
    errno = 0;
    const dirent* entry = ::readdir(iOpen.back().stream.get());
    if (entry != nullptr) {
      const std::string name = entry->d_name;
      return name == "." || name == ".." || removeOne(iOpen.back().descriptor(), name);
    }
    if (errno != 0) return false;
    const std::string name = std::move(iOpen.back().name);
    iOpen.pop_back();
    const int parent = iOpen.empty() ? AT_FDCWD : iOpen.back().descriptor();
    return ::unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0;
  }

  std::vector<OpenFolder> iOpen;
  dev_t iDevice = 0;
};

// Without the slashes at the end, which would make the kernel follow a link.
std::string plainPath(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

bool NSFileManager::removeItemAtPath(const std::string& path, NSErrorRef* error) {
  const int reason = TreeRemover().removeTree(AT_FDCWD, plainPath(path));
  if (reason == 0) return true;
  storeError(error, NSError::errorWithDomain(NSPOSIXErrorDomain, reason, {{"NSFilePath", path}}));
  return false;
}

}  // namespace ombra
