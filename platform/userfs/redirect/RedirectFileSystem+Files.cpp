// Litter files: opening, content, and copies between here and the file system below.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>

#include "platform/userfs/redirect/LocalFile.h"
#include "platform/userfs/redirect/LocalHandle.h"
#include "platform/userfs/redirect/LowerFile.h"
#include "platform/userfs/redirect/RedirectRules.h"

namespace ombra {

namespace {

constexpr size_t kCopyStep = 1024 * 1024;
// Within that the kernel has told of what was closed.
constexpr std::chrono::milliseconds kUntilRelease{500};
// The kernel has seen to the rest: it appends, and checks that a new file is new.
constexpr int kFlagsOfLocalOpen = O_ACCMODE | O_TRUNC;

bool isForWriting(int flags) { return (flags & O_ACCMODE) != O_RDONLY || (flags & O_TRUNC) != 0; }

// The library has a macro for this, in C alone.
fuse_bufvec vectorOf(size_t size) {
  fuse_bufvec vector{};
  vector.count = 1;
  vector.buf[0].size = size;
  vector.buf[0].fd = -1;
  return vector;
}

void setTimes(int descriptor, const struct stat& attributes) {
  const timespec times[2] = {attributes.st_atim, attributes.st_mtim};
  futimens(descriptor, times);
}

}  // namespace

int RedirectFileSystem::openKept(const std::string& path, const std::string& local, fuse_file_info* file) {
  const int descriptor = ::open(local.c_str(), (file->flags & kFlagsOfLocalOpen) | O_NOFOLLOW | O_CLOEXEC);
  if (descriptor < 0) return -errno;
  if (isForWriting(file->flags)) iStore->list(path);
  noteWriter(descriptor, 1);
  file->fh = kLocal | static_cast<uint64_t>(descriptor);
  file->keep_cache = 0;
  return 0;
}

int RedirectFileSystem::open(const char* path, fuse_file_info* file) {
  if (RedirectRules::isLitter(path)) {
    if (const auto local = iStore->find(path)) return openKept(path, *local, file);
    if (isForWriting(file->flags)) {
      const auto present = below(path);
      if (!present) return -ENOENT;
      int result = 0;
      if ((file->flags & O_TRUNC) == 0) {
        result = takeUp(path, *present);
      } else {
        result = makeKeptFile(path, present->st_mode, nullptr);
      }
      return result != 0 ? result : open(path, file);
    }
  }
  const int result = fuse_fs_open(iLower, path, file);
  if (result != 0 || !isLocal(file)) return result;
  // Its handles cannot be told from ours.
  fuse_fs_release(iLower, path, file);
  return -EOVERFLOW;
}

// With `descriptor` null the file is closed again.
int RedirectFileSystem::makeKeptFile(const std::string& path, mode_t mode, int* descriptor) {
  int made = -1;
  const int number = iStore->make(path, [&made, mode](const std::string& local) {
    made = ::open(local.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (made < 0) return errno;
    // Not less for our own mask: the program's has been applied.
    return fchmod(made, mode & 0777) == 0 ? 0 : errno;
  });
  if (descriptor != nullptr && number == 0) {
    *descriptor = made;
  } else if (made >= 0) {
    close(made);
  }
  return -number;
}

int RedirectFileSystem::create(const char* path, mode_t mode, fuse_file_info* file) {
  if (!RedirectRules::isLitter(path)) {
    const int result = fuse_fs_create(iLower, path, mode, file);
    if (result != 0 || !isLocal(file)) return result;
    fuse_fs_release(iLower, path, file);
    return -EOVERFLOW;
  }
  // Somebody else made it since the kernel looked.
  if (kept(path) || below(path)) return (file->flags & O_EXCL) != 0 ? -EEXIST : open(path, file);
  int descriptor = -1;
  if (const int result = makeKeptFile(path, mode, &descriptor); result != 0) return result;
  file->fh = kLocal | static_cast<uint64_t>(descriptor);
  noteWriter(descriptor, 1);
  return 0;
}

void RedirectFileSystem::noteWriter(int descriptor, int change) {
  struct stat status {};
  if ((fcntl(descriptor, F_GETFL) & O_ACCMODE) == O_RDONLY || fstat(descriptor, &status) != 0) return;
  const MutexLock lock(iLock);
  size_t& count = iWriters[status.st_ino];
  count += static_cast<size_t>(change);
  if (count > 0) return;
  iWriters.erase(status.st_ino);
  iWritersChange.notify_all();
}

bool RedirectFileSystem::staysOpenToWrite(const struct stat& local) {
  const auto limit = std::chrono::steady_clock::now() + kUntilRelease;
  const MutexLock lock(iLock);
  while (iWriters.contains(local.st_ino)) {
    if (iWritersChange.wait_until(iLock, limit) == std::cv_status::timeout)
      return iWriters.contains(local.st_ino);
  }
  return false;
}

int RedirectFileSystem::makeNode(const char* path, mode_t mode, dev_t device) {
  if (!RedirectRules::isLitter(path)) return fuse_fs_mknod(iLower, path, mode, device);
  if (!S_ISREG(mode)) return -EPERM;
  if (kept(path) || below(path)) return -EEXIST;
  return makeKeptFile(path, mode, nullptr);
}

int RedirectFileSystem::read(const char* path, fuse_bufvec** buffer, size_t size, off_t offset,
                             fuse_file_info* file) {
  if (!isLocal(file)) return fuse_fs_read_buf(iLower, path, buffer, size, offset, file);
  // The library frees both.
  auto* vector = static_cast<fuse_bufvec*>(std::malloc(sizeof(fuse_bufvec)));  // NOLINT
  void* memory = std::malloc(size);                                            // NOLINT
  if (vector == nullptr || memory == nullptr) {
    std::free(vector);  // NOLINT
    std::free(memory);  // NOLINT
    return -ENOMEM;
  }
  *vector = vectorOf(size);
  vector->buf[0].mem = memory;
  *buffer = vector;
  const ssize_t got = pread(descriptorOf(file), memory, size, offset);
  if (got < 0) return -errno;
  vector->buf[0].size = static_cast<size_t>(got);
  return 0;
}

int RedirectFileSystem::write(const char* path, fuse_bufvec* buffer, off_t offset, fuse_file_info* file) {
  if (!isLocal(file)) return fuse_fs_write_buf(iLower, path, buffer, offset, file);
  fuse_bufvec target = vectorOf(fuse_buf_size(buffer));
  target.buf[0].flags = static_cast<fuse_buf_flags>(FUSE_BUF_IS_FD | FUSE_BUF_FD_SEEK);
  target.buf[0].fd = descriptorOf(file);
  target.buf[0].pos = offset;
  return static_cast<int>(fuse_buf_copy(&target, buffer, fuse_buf_copy_flags{}));
}

int RedirectFileSystem::flush(const char* path, fuse_file_info* file) {
  return isLocal(file) ? 0 : fuse_fs_flush(iLower, path, file);
}

// Litter does not outlive a crash of the machine, and need not.
int RedirectFileSystem::synchronize(const char* path, int dataOnly, fuse_file_info* file) {
  return isLocal(file) ? 0 : fuse_fs_fsync(iLower, path, dataOnly, file);
}

int RedirectFileSystem::release(const char* path, fuse_file_info* file) {
  if (!isLocal(file)) return fuse_fs_release(iLower, path, file);
  noteWriter(descriptorOf(file), -1);
  return systemResult(close(descriptorOf(file)));
}

int RedirectFileSystem::truncate(const char* path, off_t size, fuse_file_info* file) {
  if (isLocal(file)) return systemResult(ftruncate(descriptorOf(file), size));
  if (path == nullptr || !RedirectRules::isLitter(path)) return fuse_fs_truncate(iLower, path, size, file);
  if (const auto local = iStore->find(path)) return systemResult(::truncate(local->c_str(), size));
  const auto present = below(path);
  if (!present) return -ENOENT;
  const int result = size == 0 ? makeKeptFile(path, present->st_mode, nullptr) : takeUp(path, *present);
  return result != 0 || size == 0 ? result : truncate(path, size, nullptr);
}

int RedirectFileSystem::allocate(const char* path, int mode, off_t offset, off_t length,
                                 fuse_file_info* file) {
  if (isLocal(file)) return systemResult(fallocate(descriptorOf(file), mode, offset, length));
  return fuse_fs_fallocate(iLower, path, mode, offset, length, file);
}

int RedirectFileSystem::takeUp(const std::string& path, const struct stat& attributes) {
  return -iStore->make(path, [&](const std::string& local) {
    const int result = copyFromBelow(path, local, attributes);
    if (result != 0) unlink(local.c_str());
    return -result;
  });
}

int RedirectFileSystem::copyFromBelow(const std::string& path, const std::string& local,
                                      const struct stat& attributes) {
  if (!S_ISREG(attributes.st_mode)) return -EPERM;
  if (static_cast<uint64_t>(attributes.st_size) > kLargestCopy) return -EFBIG;
  LowerFile source(iLower, path);
  if (const int result = source.open(); result != 0) return result;
  const LocalDescriptor target(
      ::open(local.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (target.get() < 0) return -errno;
  std::string buffer(kCopyStep, '\0');
  for (off_t offset = 0;;) {
    const int got = source.read(buffer.data(), buffer.size(), offset);
    if (got < 0) return got;
    if (got == 0) break;
    if (const int number = LocalFile::writeAll(target.get(), buffer.data(), static_cast<size_t>(got)))
      return -number;
    offset += got;
  }
  fchmod(target.get(), attributes.st_mode & 0777);
  setTimes(target.get(), attributes);
  return 0;
}

int RedirectFileSystem::fillBelow(LowerFile& target, int source) {
  std::string buffer(kCopyStep, '\0');
  for (off_t offset = 0;;) {
    const ssize_t got = pread(source, buffer.data(), buffer.size(), offset);
    if (got < 0) return -errno;
    if (got == 0) return target.store();
    for (ssize_t done = 0; done < got;) {
      const int written = target.write(buffer.data() + done, static_cast<size_t>(got - done), offset + done);
      if (written <= 0) return written < 0 ? written : -EIO;
      done += written;
    }
    offset += got;
  }
}

// All of it, or nothing.
int RedirectFileSystem::copyBelow(const std::string& local, const std::string& path,
                                  const struct stat& attributes) {
  const LocalDescriptor source(::open(local.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (source.get() < 0) return -errno;
  int result = 0;
  {
    LowerFile target(iLower, path);
    result = target.create(attributes.st_mode & 0777);
    if (result != 0) return result;
    result = fillBelow(target, source.get());
  }
  if (result != 0) {
    fuse_fs_unlink(iLower, path.c_str());
    return result;
  }
  // A date is worth no failure.
  const timespec times[2] = {attributes.st_atim, attributes.st_mtim};
  fuse_fs_utimens(iLower, path.c_str(), times, nullptr);
  return 0;
}

}  // namespace ombra
