// Downloads, uploads and streams.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "remote/ConfirmedUpload.h"
#include "remote/QuarnKitError.h"
#include "remote/local/FileCopy.h"
#include "remote/local/LocalErrors.h"
#include "remote/local/LocalSession.h"
#include "remote/local/WholeFile.h"

namespace ombra {
namespace {

constexpr size_t kStreamPiece = 256 * 1024;

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : iDescriptor(descriptor) {}
  ~Descriptor() {
    if (iDescriptor >= 0) close(iDescriptor);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return iDescriptor; }

 private:
  const int iDescriptor;
};

// What cannot be flushed is where it belongs already: pipes, read-only file systems.
bool flush(int descriptor) { return fsync(descriptor) == 0 || errno == EINVAL || errno == EROFS; }

std::string versionOf(const struct stat& status) {
  return fmt::format("{}:{}:{}:{}.{:09}", status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
                     status.st_mtim.tv_nsec);
}

bool refuse(NSErrorRef* error, NSErrorRef reason) {
  storeError(error, std::move(reason));
  return false;
}

}  // namespace

bool LocalSession::download(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                            TransferControl& control, NSErrorRef* error) {
  if (!mayGoOn(error)) return false;
  const std::string whole(path);
  // Without waiting: a pipe of this name has no content to give.
  const Descriptor from(::open(whole.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (from.get() < 0 || fstat(from.get(), &status) != 0) {
    return refuse(error, localServerError(errno == ENOTDIR ? ENOENT : errno, path));
  }
  if (!S_ISREG(status.st_mode)) return refuse(error, QuarnKitError::errorWithCode(kQuarnKitRefused, path));
  if (version != nullptr) {
    const std::string present = versionOf(status);
    if (!version->empty() && *version != present) {
      return refuse(error, QuarnKitError::errorWithCode(kQuarnKitItemChanged, path));
    }
    *version = present;
  }
  FileCopy copy;
  copy.from = from.get();
  copy.to = to.fileDescriptor();
  copy.toIsServer = false;
  copy.toLength = to.fileLength();
  copy.path = whole.c_str();
  copy.control = &control;
  copy.interrupted = &iInterrupted;
  uint64_t reached = offset;
  // To the end, wherever that is by then: a file that grows is read as far as it goes.
  return copy.copyRange({offset, std::numeric_limits<int64_t>::max()}, &reached, error);
}

bool LocalSession::upload(NSFileHandle& from, std::string_view path, uint64_t offset,
                          TransferControl& control, NSErrorRef* error) {
  if (!mayGoOn(error)) return false;
  const std::string whole(path);
  if (offset == 0) return uploadWhole(from, whole, control, error);
  NSErrorRef reason;
  if (uploadExtents(from, whole, offset, control, &reason)) return true;
  if (!QuarnKitError::isCode(reason, kQuarnKitNoSuchItem)) return refuse(error, reason);
  // The file that was to be changed is gone, and with it all that had been confirmed.
  from.noteWritten({0, from.fileLength()});
  return uploadWhole(from, whole, control, error);
}

bool LocalSession::uploadWhole(NSFileHandle& from, const std::string& path, TransferControl& control,
                               NSErrorRef* error) {
  WholeFile file;
  if (!file.open(path, error)) return false;
  const FileExtent all{0, from.fileLength()};
  // Nothing of what had been confirmed is left in a file that is written in place.
  if (file.isInPlace()) from.noteWritten(all);
  ConfirmedUpload confirmed(from, all.end);
  FileCopy copy;
  copy.from = from.fileDescriptor();
  copy.to = file.descriptor();
  copy.path = path.c_str();
  copy.control = &control;
  copy.interrupted = &iInterrupted;
  uint64_t reached = 0;
  return confirmed.stored(copy.copyRange(all, &reached, error) && file.commit(error));
}

bool LocalSession::uploadExtents(NSFileHandle& from, const std::string& path, uint64_t offset,
                                 TransferControl& control, NSErrorRef* error) {
  const Descriptor to(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (to.get() < 0 || fstat(to.get(), &status) != 0) return refuse(error, localServerError(errno, path));
  if (!S_ISREG(status.st_mode)) return refuse(error, QuarnKitError::errorWithCode(kQuarnKitRefused, path));
  const uint64_t length = from.fileLength();
  const auto present = static_cast<uint64_t>(status.st_size);
  // Where somebody made the file shorter, what had been confirmed there is gone.
  if (present < length) from.noteWritten({present, length});
  const uint64_t begin = std::min(offset, present);
  std::vector<FileExtent> extents{{begin, std::max(length, begin)}};
  if (from.isScratch()) extents = from.unconfirmedExtents(begin);
  FileCopy copy;
  copy.from = from.fileDescriptor();
  copy.to = to.get();
  copy.toLength = present;
  copy.path = path.c_str();
  copy.control = &control;
  copy.interrupted = &iInterrupted;
  for (const FileExtent& extent : extents) {
    from.noteConfirmed(extent);
    uint64_t reached = extent.begin;
    if (!copy.copyRange(extent, &reached, error)) {
      from.noteWritten({reached, extent.end});
      return false;
    }
  }
  return true;
}

bool LocalSession::flushFile(std::string_view path, NSErrorRef* error) {
  if (!mayGoOn(error)) return false;
  const std::string whole(path);
  constexpr int kFlags = O_CLOEXEC | O_NONBLOCK;
  int descriptor = ::open(whole.c_str(), O_RDONLY | kFlags);
  if (descriptor < 0 && errno == EACCES) descriptor = ::open(whole.c_str(), O_WRONLY | kFlags);
  const Descriptor file(descriptor);
  if (file.get() < 0 || !flush(file.get())) return refuse(error, localServerError(errno, path));
  // A new content came by a rename, which is the folder's. One that may not be read stores that by itself.
  const std::string folder = whole.substr(0, whole.rfind('/') + 1);
  const Descriptor parent(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | kFlags));
  if (parent.get() >= 0 && !flush(parent.get())) return refuse(error, localServerError(errno, path));
  return true;
}

bool LocalSession::sendPieces(const std::function<size_t(std::byte*, size_t)>& next, int descriptor,
                              const std::string& path, TransferControl& control, NSErrorRef* error) {
  std::vector<std::byte> buffer(kStreamPiece);
  uint64_t sent = 0;
  while (true) {
    if (control.shouldCancel()) return refuse(error, QuarnKitError::errorWithCode(kQuarnKitCancelled, path));
    if (!mayGoOn(error)) return false;
    const size_t count = next(buffer.data(), buffer.size());
    if (control.shouldCancel()) return refuse(error, QuarnKitError::errorWithCode(kQuarnKitCancelled, path));
    if (count == 0) return true;
    for (size_t done = 0; done < count;) {
      const ssize_t written = write(descriptor, buffer.data() + done, count - done);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return refuse(error, localServerError(errno, path));
      done += static_cast<size_t>(written);
    }
    sent += count;
    control.progress(sent);
  }
}

bool LocalSession::stream(const std::function<size_t(std::byte*, size_t)>& next, std::string_view path,
                          TransferControl& control, NSErrorRef* error) {
  if (!mayGoOn(error)) return false;
  if (iEnvironment.credentials->option("streaming") == "0") {
    return refuse(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported, path));
  }
  const std::string whole(path);
  WholeFile file;
  return file.open(whole, error) && sendPieces(next, file.descriptor(), whole, control, error) &&
         file.commit(error);
}

}  // namespace ombra
