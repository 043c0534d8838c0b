// Opening, attributes, whole content, closing.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "fshelper/OFSRemoteFile.h"
#include "fshelper/OFSRemoteFileLocalCalls.h"
#include "fshelper/OFSRemoteFileScopes.h"
#include "fshelper/OFSRemoteFileSupport.h"
#include "fshelper/OFSTracing.h"
#include "fshelper/StAbstractConnection.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSLog.h"
#include "remote/QuarnKitError.h"

namespace ombra {
namespace {

constexpr const char* kOpen = "-[OFSRemoteFile openWithMode:error:]";
constexpr const char* kAttributes = "-[OFSRemoteFile attributes]";
constexpr const char* kSetAttributes = "-[OFSRemoteFile setAttributes:error:]";
constexpr const char* kData = "-[OFSRemoteFile data]";
constexpr const char* kClose = "-[OFSRemoteFile close]";

constexpr size_t kDataPiece = 65536;

int descriptorOf(const std::shared_ptr<NSFileHandle>& handle) {
  return handle ? handle->fileDescriptor() : -1;
}

// The programs that ask get no more than EIO. Once is enough: what follows fails for the same reason.
void sayThatDescriptorsAreUsedUp(const std::string& path) {
  static std::atomic<bool> sIsSaid{false};
  if (sIsSaid.exchange(true)) return;
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  NSLog(
      "{} could not be opened, nor can others: each open file takes a descriptor, and this process may have "
      "no more than {}. Close some, or raise the limit (ulimit -Hn, or LimitNOFILE= of a unit) and mount "
      "again.",
      path, limit.rlim_cur);
}

}  // namespace

bool OFSRemoteFile::openWithMode(uint32_t mode, NSErrorRef* error) {
  OFS_TRACE(kOpen, "mode=0{:o}", mode);
  const ConditionLock lock(iCondition);
  if (iFileHandle != nullptr) return true;
  iMode = mode;
  try {
    locked_prepare(error);
    return true;
  } catch (const KCException& exception) {
    locked_failOpen(exception, error);
    return false;
  }
}

void OFSRemoteFile::locked_prepare(NSErrorRef* error) {
  locked_openCacheFile(error);
  if ((iMode & (kO_CREAT | kO_TRUNC)) == 0) {
    if (iState == kOFSNew) locked_awaitDownload();
    return;
  }
  locked_setState(kOFSSettled);
  iCondition.broadcast();
  const bool isNew = (iMode & kO_CREAT) != 0;
  bool truncated = false;
  {
    const ConditionRelease released(iCondition);
    truncated = truncate(0, isNew, error);
  }
  if (!truncated) OFS_RAISE(kOpen, "_truncateToOffset:error: failed");
}

void OFSRemoteFile::locked_openCacheFile(NSErrorRef* error) {
  auto& calls = OFSRemoteFileLocalCalls::current();
  const int descriptor = calls.open(iLocalPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const int failure = errno;
  // At once, not when the open has succeeded: a process that is killed while a slow server keeps it waiting
  // leaves nothing behind either.
  ::unlink(iLocalPath.c_str());
  if (failure == EMFILE && descriptor < 0) sayThatDescriptorsAreUsedUp(remotePath());
  if (descriptor < 0) OFS_RAISE(kOpen, "open failed, errno = {} ({})", failure, kc_strerror(failure));
  std::shared_ptr<NSFileHandle> handle = calls.scratchHandle(descriptor);
  if (handle == nullptr) {
    storeError(error, ofs_reportedPosixError(kENOENT));
    OFS_RAISE(kOpen, "no file handle");
  }
  setFileHandle(std::move(handle));
}

void OFSRemoteFile::locked_awaitDownload() {
  locked_performSelectorOnWorkerThread(&OFSRemoteFile::downloadOnThread);
  while (iState == kOFSNew) locked_wait();
}

void OFSRemoteFile::locked_failOpen(const KCException& exception, NSErrorRef* error) {
  OFS_TRACE_MESSAGE("{} {}", exception.reason(), remotePath());
  if (error != nullptr && *error == nullptr) *error = ofs_reportedPosixError(kEIO);
  setFileHandle(nullptr);
  // Nothing of the caller's was in the file. What a later open finds here would look like an empty file.
  locked_confirm(iLocalGeneration);
  if (iState == kOFSSettled) iContentFailed = true;
}

NSFileAttributes OFSRemoteFile::attributes() {
  OFS_TRACE(kAttributes, "{}", "");
  const ConditionLock lock(iCondition);
  while (iState == kOFSNew) locked_wait();
  NSFileAttributes result;
  struct stat status {};
  if (OFSRemoteFileLocalCalls::current().fstat(descriptorOf(iFileHandle), &status) != 0) {
    const int failure = errno;
    OFS_TRACE_MESSAGE("fstat failed, errno = {} ({})", failure, kc_strerror(failure));
    return result;
  }
  result.fileSize = static_cast<uint64_t>(status.st_size);
  result.modificationDate = kc_dateWithTimespec(status.st_mtim);
  result.posixPermissions = static_cast<uint16_t>(status.st_mode & 07777);
  // What a download brings is not a change of the file.
  const std::optional<NSDate> seeded = seededDate();
  if (iState == kOFSDownloading && seeded) result.modificationDate = seeded;
  return result;
}

bool OFSRemoteFile::setAttributes(const NSFileAttributes& attributes, NSErrorRef* error) {
  OFS_TRACE(kSetAttributes, "{}", "");
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection holder(pool.get(), nullptr);
  const ConditionLock lock(iCondition);
  {
    const SettleWaiter waiter(*this);
    while (iState != kOFSSettled || (iMoves > 0 && !locked_sendsNothing())) locked_wait();
  }
  if (!locked_setLocalAttributes(attributes)) return false;
  // The item of an abandoned file is gone from the server.
  if (!attributes.posixPermissions || locked_sendsNothing()) return true;
  return locked_setRemotePermissions(*holder, *attributes.posixPermissions, error);
}

bool OFSRemoteFile::locked_setLocalAttributes(const NSFileAttributes& attributes) {
  auto& calls = OFSRemoteFileLocalCalls::current();
  const int descriptor = descriptorOf(iFileHandle);
  if (attributes.posixPermissions && calls.fchmod(descriptor, *attributes.posixPermissions) != 0) {
    const int failure = errno;
    OFS_TRACE_MESSAGE("fchmod failed, errno = {} ({})", failure, kc_strerror(failure));
    return false;
  }
  if (!attributes.modificationDate) return true;
  timeval times[2];
  ::gettimeofday(&times[0], nullptr);
  const timespec modified = kc_timespec(*attributes.modificationDate);
  times[1] = {modified.tv_sec, modified.tv_nsec / 1000};
  if (calls.futimes(descriptor, times) == 0) return true;
  const int failure = errno;
  OFS_TRACE_MESSAGE("futimes failed, errno = {} ({})", failure, kc_strerror(failure));
  return false;
}

bool OFSRemoteFile::locked_setRemotePermissions(AbstractConnection& connection, uint16_t permissions,
                                                NSErrorRef* error) {
  NSFileAttributes change;
  change.posixPermissions = permissions;
  NSErrorRef failure;
  // With the condition held: everything else on this file waits for the change.
  HeldTransfer held(*this);
  if (held.end(connection.changeAttributes(change, remotePath(), &failure))) return true;
  // A server that has no modes to change keeps no file from being written: intended.
  if (failure != nullptr && failure->code() == kQuarnKitAttributeChangeNotSupported) return true;
  storeError(error, ofs_reportedPosixError(kEIO, failure));
  return false;
}

NSData OFSRemoteFile::data() {
  OFS_TRACE(kData, "{}", "");
  NSData content;
  while (true) {
    const size_t length = content.size();
    content.resize(length + kDataPiece);
    const int count =
        _readToBuffer(content.data() + length, kDataPiece, static_cast<int64_t>(length), nullptr);
    content.resize(length + static_cast<size_t>(count > 0 ? count : 0));
    if (count < static_cast<int>(kDataPiece)) return content;
  }
}

void OFSRemoteFile::close() {
  OFS_TRACE(kClose, "remotePath={}", remotePath());
  const ConditionLock lock(iCondition);
  OFS_TRACE_MESSAGE("close state={}", static_cast<int>(iState));
  if (iState == kOFSUploading && iBytesRequired != iBytesUploading) {
    // The running upload does not cover everything that was written. Its failure leaves close: there is no
    // slot for it.
    locked_waitForState(kOFSSettled);
    if (iFileHandle != nullptr) {
      iFileHandle->synchronizeFile();
      locked_uploadPendingLength(0, iFileHandle->seekToEndOfFile());
    }
  }
  const NSDate deadline = NSDate::dateWithTimeIntervalSinceNow(0.9 * gHardLimit);
  const SettleWaiter waiter(*this);
  while (iState == kOFSDownloading || iState == kOFSStreaming || iState == kOFSUploading) {
    ++iClosers;
    const bool woken = locked_waitUntilDate(deadline);
    --iClosers;
    if (woken) continue;
    OFS_TRACE_MESSAGE("continuing");
    return;
  }
}

}  // namespace ombra
