#include "platform/userfs/Operations.h"

#include <cerrno>
#include <exception>

#include "platform/foundation/NSLog.h"
#include "platform/userfs/KernelMount.h"

namespace ombra {

namespace {

// Read-ahead of files on a server that hangs takes background places; when all are taken, every other file's
// read-ahead waits. So there are many, yet well below the number of threads, which also answer the rest.
constexpr unsigned kBackgroundRequests = 600;

OperationsContext& context() { return *static_cast<OperationsContext*>(fuse_get_context()->private_data); }

pid_t process() { return fuse_get_context()->pid; }

uint64_t handleOf(const fuse_file_info* file) { return file != nullptr ? file->fh : 0; }

// Runs one operation. Nothing that is thrown gets to the library.
template <typename Body>
int answer(const char* operation, const Body& body) noexcept {
  try {
    return body(*context().volume);
  } catch (const std::exception& exception) {
    NSLog("{}: {}", operation, exception.what());
  } catch (...) {
    NSLog("{}: an exception of an unknown kind", operation);
  }
  return -EIO;
}

void want(fuse_conn_info* connection, unsigned capabilities, bool wanted) {
  if (wanted) {
    connection->want |= capabilities & connection->capable;
  } else {
    connection->want &= ~capabilities;
  }
}

void* initialize(fuse_conn_info* connection, fuse_config* config) {
  want(connection, FUSE_CAP_ASYNC_READ | FUSE_CAP_ASYNC_DIO | FUSE_CAP_PARALLEL_DIROPS, true);
  // Overwriting a large file must not fetch it first.
  want(connection, FUSE_CAP_ATOMIC_O_TRUNC, true);
  // Attributes come with every listing: they cost nothing here, and a request each otherwise.
  want(connection, FUSE_CAP_READDIRPLUS, true);
  want(connection, FUSE_CAP_READDIRPLUS_AUTO, false);
  // Pages go when we say so; the dates of a file that is being written change with each write.
  want(connection, FUSE_CAP_EXPLICIT_INVAL_DATA, true);
  want(connection, FUSE_CAP_AUTO_INVAL_DATA, false);
  want(connection, FUSE_CAP_EXPIRE_ONLY, true);
  // The bytes are needed in memory in both directions, so pipes would only be a detour. A write-back cache
  // would hold bytes that a close has to have stored. Of the two ways to take set-user-id bits from a file
  // that is written, the older one would leave it to the server; the newer one is taken below the library.
  want(connection,
       FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE | FUSE_CAP_WRITEBACK_CACHE |
           FUSE_CAP_HANDLE_KILLPRIV | FUSE_CAP_POSIX_ACL,
       false);
  connection->max_read = KernelMount::kLargestRequest;
  connection->max_write = KernelMount::kLargestRequest;
  connection->max_background = kBackgroundRequests;
  connection->congestion_threshold = kBackgroundRequests * 3 / 4;

  config->use_ino = 1;
  config->nullpath_ok = 1;
  config->hard_remove = 1;
  config->entry_timeout = Volume::kEntrySeconds;
  config->attr_timeout = Volume::kEntrySeconds;
  // "Not there" is answered from our own listing each time, so it is never older than that.
  config->negative_timeout = 0;
  context().canExpireEntries = (connection->capable & FUSE_CAP_EXPIRE_ONLY) != 0;
  context().initialized();
  return &context();
}

int getattr(const char* path, struct stat* attributes, fuse_file_info* file) {
  return answer("getattr",
                [&](Volume& volume) { return volume.attributes(path, handleOf(file), attributes); });
}

int chmod(const char* path, mode_t mode, fuse_file_info* file) {
  return answer("chmod", [&](Volume& volume) { return volume.changeMode(path, handleOf(file), mode); });
}

int chown(const char* path, uid_t user, gid_t group, fuse_file_info* file) {
  return answer("chown",
                [&](Volume& volume) { return volume.changeOwner(path, handleOf(file), user, group); });
}

int utimens(const char* path, const timespec times[2], fuse_file_info* file) {
  return answer("utimens", [&](Volume& volume) { return volume.changeTimes(path, handleOf(file), times); });
}

int truncate(const char* path, off_t size, fuse_file_info* file) {
  return answer("truncate", [&](Volume& volume) { return volume.truncate(path, handleOf(file), size); });
}

int statfs(const char* path, struct statvfs* attributes) {
  return answer("statfs", [&](Volume& volume) { return volume.volumeAttributes(path, attributes); });
}

int opendir(const char* path, fuse_file_info* file) {
  return answer("opendir", [&](Volume& volume) { return volume.openFolder(path, &file->fh); });
}

int readdir(const char* /*path*/, void* buffer, fuse_fill_dir_t filler, off_t offset, fuse_file_info* file,
            fuse_readdir_flags flags) {
  return answer("readdir", [&](Volume& volume) {
    return volume.readFolder(file->fh, offset,
                             [&](const char* name, const struct stat* attributes, off_t next) {
                               const bool isPlus = (flags & FUSE_READDIR_PLUS) != 0 && attributes != nullptr;
                               return filler(buffer, name, attributes, next,
                                             isPlus ? FUSE_FILL_DIR_PLUS : fuse_fill_dir_flags{}) != 0;
                             });
  });
}

int releasedir(const char* /*path*/, fuse_file_info* file) {
  return answer("releasedir", [&](Volume& volume) {
    volume.closeFolder(file->fh);
    return 0;
  });
}

// Changes of a folder are made on the server before they are answered.
int fsyncdir(const char* /*path*/, int /*datasync*/, fuse_file_info* /*file*/) { return 0; }

int readlink(const char* path, char* buffer, size_t size) {
  return answer("readlink", [&](Volume& volume) { return volume.readSymbolicLink(path, buffer, size); });
}

int mknod(const char* path, mode_t mode, dev_t /*device*/) {
  return answer("mknod", [&](Volume& volume) { return volume.makeNode(path, mode); });
}

int mkdir(const char* path, mode_t mode) {
  return answer("mkdir", [&](Volume& volume) { return volume.makeFolder(path, mode); });
}

int symlink(const char* target, const char* path) {
  return answer("symlink", [&](Volume& volume) { return volume.makeSymbolicLink(target, path); });
}

// No server of ours has hard links. EPERM is what link(2) says then.
int link(const char* /*from*/, const char* /*to*/) { return -EPERM; }

int unlink(const char* path) {
  return answer("unlink", [&](Volume& volume) { return volume.removeFile(path); });
}

int rmdir(const char* path) {
  return answer("rmdir", [&](Volume& volume) { return volume.removeFolder(path); });
}

int rename(const char* from, const char* to, unsigned flags) {
  return answer("rename", [&](Volume& volume) { return volume.move(from, to, flags); });
}

void tell(const OpenedFile& opened, fuse_file_info* file) {
  file->fh = opened.handle;
  file->keep_cache = opened.keepsPages ? 1 : 0;
  file->direct_io = opened.bypassesPages ? 1 : 0;
  file->noflush = opened.onlyReads ? 1 : 0;
}

int open(const char* path, fuse_file_info* file) {
  return answer("open", [&](Volume& volume) {
    OpenedFile opened;
    const int result = volume.open(path, file->flags, process(), &opened);
    tell(opened, file);
    return result;
  });
}

int create(const char* path, mode_t mode, fuse_file_info* file) {
  return answer("create", [&](Volume& volume) {
    OpenedFile opened;
    const int result = volume.create(path, mode, file->flags, process(), &opened);
    tell(opened, file);
    return result;
  });
}

int read(const char* /*path*/, char* buffer, size_t size, off_t offset, fuse_file_info* file) {
  return answer("read", [&](Volume& volume) { return volume.read(file->fh, buffer, size, offset); });
}

int write(const char* /*path*/, const char* buffer, size_t size, off_t offset, fuse_file_info* file) {
  return answer("write", [&](Volume& volume) {
    return volume.write(file->fh, buffer, size, offset, context().dropPages);
  });
}

// Flush and fsync answer always: once "not implemented", the kernel would take every further one for a
// success.
int flush(const char* /*path*/, fuse_file_info* file) {
  return answer("flush", [&](Volume& volume) { return volume.flush(file->fh, process()); });
}

int fsync(const char* /*path*/, int /*datasync*/, fuse_file_info* file) {
  return answer("fsync", [&](Volume& volume) { return volume.synchronize(file->fh); });
}

int release(const char* /*path*/, fuse_file_info* file) {
  return answer("release", [&](Volume& volume) {
    volume.release(file->fh);
    return 0;
  });
}

// Space on a server cannot be set aside. posix_fallocate(3) then writes zeros itself.
int fallocate(const char* /*path*/, int /*mode*/, off_t /*offset*/, off_t /*length*/,
              fuse_file_info* /*file*/) {
  return -EOPNOTSUPP;
}

int setxattr(const char* path, const char* name, const char* value, size_t size, int flags) {
  return answer("setxattr",
                [&](Volume& volume) { return volume.setExtendedAttribute(path, name, value, size, flags); });
}

int getxattr(const char* path, const char* name, char* value, size_t size) {
  return answer("getxattr",
                [&](Volume& volume) { return volume.extendedAttribute(path, name, value, size); });
}

int listxattr(const char* path, char* list, size_t size) {
  return answer("listxattr", [&](Volume& volume) { return volume.extendedAttributes(path, list, size); });
}

int removexattr(const char* path, const char* name) {
  return answer("removexattr", [&](Volume& volume) { return volume.removeExtendedAttribute(path, name); });
}

fuse_operations makeOperations() {
  fuse_operations operations{};
  operations.init = initialize;
  operations.getattr = getattr;
  operations.chmod = chmod;
  operations.chown = chown;
  operations.utimens = utimens;
  operations.truncate = truncate;
  operations.statfs = statfs;
  operations.opendir = opendir;
  operations.readdir = readdir;
  operations.releasedir = releasedir;
  operations.fsyncdir = fsyncdir;
  operations.readlink = readlink;
  operations.mknod = mknod;
  operations.mkdir = mkdir;
  operations.symlink = symlink;
  operations.link = link;
  operations.unlink = unlink;
  operations.rmdir = rmdir;
  operations.rename = rename;
  operations.open = open;
  operations.create = create;
  operations.read = read;
  operations.write = write;
  operations.flush = flush;
  operations.fsync = fsync;
  operations.release = release;
  operations.fallocate = fallocate;
  operations.setxattr = setxattr;
  operations.getxattr = getxattr;
  operations.listxattr = listxattr;
  operations.removexattr = removexattr;
  return operations;
}

}  // namespace

const fuse_operations& volumeOperations() {
  static const fuse_operations sOperations = makeOperations();
  return sOperations;
}

}  // namespace ombra
