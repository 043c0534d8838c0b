// Downloads, uploads and streams.
#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "remote/PooledConnection.h"
#include "remote/QuarnKitError.h"
#include "remote/RetryPauses.h"

namespace ombra {
namespace {
// A turn of a download that gives way is this many times as long as it took to begin, but not longer than so
// many seconds: what goes from turn to turn at once brings hardly anything over a long way.
constexpr double kTurnByItsBeginning = 4;
constexpr double kLongestTurn = 1;
}  // namespace

// Stands between an engine and the program's delegate.
class PooledConnection::Control final : public TransferControl {
 public:
  Control(PooledConnection& connection, Run& run) : iConnection(connection), iRun(run) {
    iRun.sessionStart = iRun.reporter.bytes();
  }

  void progress(uint64_t bytesReached) override {
    iRun.moved = true;
    if (!iFirstBytes) iFirstBytes = NSDate::date();
    iRun.reporter.reached(bytesReached);
  }

  bool shouldCancel() const override {
    iRun.reporter.poll();
    if (iConnection.iShouldCancel) return true;
    if (mustGiveWay()) iRun.givesWay = true;
    return iRun.givesWay;
  }

  bool mayReturnEarly() const override { return iConnection.iWritesBehind; }

  bool takesOverNewFile() override {
    if (iRun.path.empty() || iRun.newFile) return iRun.newFile.has_value();
    std::optional<PutOffFiles::Turn> turn = iConnection.iCore->newFiles.take(
        [this](const std::string& path, const UnconfirmedExtents*) { return path == iRun.path; });
    if (turn) iRun.newFile.emplace(std::move(*turn));
    return iRun.newFile.has_value();
  }
  void newFileIsMade() override { iConnection.endOfNewFile(iRun, true); }
  void newFileIsThere(const NSFileAttributes& attributes) override { iRun.made = attributes; }

 private:
  // Only after a piece of its own, so that each turn brings the download forward.
  bool mustGiveWay() const {
    return iRun.kind == Run::Kind::kDownload && iRun.reporter.bytes() > iRun.sessionStart &&
           iConnection.sessions().othersWait() && !iConnection.isAwaited() && wasWorthItsBeginning();
  }
  bool wasWorthItsBeginning() const {
    if (!iFirstBytes) return true;
    const double toBegin = iFirstBytes->timeIntervalSinceDate(iBegun);
    return NSDate::date().timeIntervalSinceDate(*iFirstBytes) >=
           std::min(kTurnByItsBeginning * toBegin, kLongestTurn);
  }

  PooledConnection& iConnection;
  Run& iRun;
  const NSDate iBegun = NSDate::date();
  std::optional<NSDate> iFirstBytes;
};

ProgressReporter::Report PooledConnection::progressReport() {
  return [this](uint64_t bytes, double throughput, bool stalled) {
    if (ConnectionDelegate* delegate = iDelegate) delegate->connection(*this, bytes, throughput, stalled);
  };
}

bool PooledConnection::attachForTransfer(NSErrorRef* error) {
  if (iSession != nullptr && !iCountsAsTransfer) {
    iCountsAsTransfer = sessions().tryBeginTransfer();
    // The share of transfers is taken: give the session back before waiting for one of them.
    if (!iCountsAsTransfer) dropSession(true);
  }
  if (iSession != nullptr) return true;
  if (iReleased) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "the connection was given back"));
    return false;
  }
  iSession = sessions().attach(*this, SessionUse::kTransfer, error);
  iCountsAsTransfer = iSession != nullptr;
  return iSession != nullptr;
}

void PooledConnection::endTransfer() {
  if (!iCountsAsTransfer) return;
  iCountsAsTransfer = false;
  sessions().endTransfer();
}

PooledConnection::Attempt PooledConnection::attemptTransfer(Run& run, const TransferWork& work,
                                                            NSErrorRef* fault) {
  if (!attachForTransfer(fault)) return isOutage(*fault) ? Attempt::kMayBeRepeated : Attempt::kFailed;
  Control control(*this, run);
  run.givesWay = false;
  // What a session holds for others must not wait for the end of a transfer.
  sessions().claim(*iSession, run.heldPath, run.heldFile);
  if (work(*iSession->session, control, fault)) {
    sessions().obey(*iSession);
    return Attempt::kDone;
  }
  const bool lost = loseSession(*fault);
  if (run.givesWay && !iShouldCancel && QuarnKitError::isCode(*fault, kQuarnKitCancelled)) {
    run.reporter.flush();
    dropSession(true);
    return Attempt::kGaveWay;
  }
  const bool untouched = run.kind == Run::Kind::kStream ? run.spool->isUntouched() : !run.moved;
  return lost && (run.kind == Run::Kind::kDownload || untouched) ? Attempt::kMayBeRepeated : Attempt::kFailed;
}

bool PooledConnection::runTransfer(Run& run, const TransferWork& work, NSErrorRef* error) {
  iShouldCancel = false;
  iInTransfer = true;
  iRun = &run;
  iKnownLinks.clear();
  RetryPauses pauses;
  NSErrorRef fault;
  Attempt attempt = run.ahead && run.ahead() ? Attempt::kDone : Attempt::kFailed;
  while (attempt != Attempt::kDone) {
    fault = nullptr;
    const uint64_t before = run.reporter.bytes();
    attempt = attemptTransfer(run, work, &fault);
    if (attempt == Attempt::kDone) break;
    if (attempt == Attempt::kGaveWay) continue;
    if (run.reporter.bytes() > before) pauses.reset();
    const bool again = attempt == Attempt::kMayBeRepeated && !iShouldCancel;
    const std::optional<double> seconds = again ? pauses.next() : std::nullopt;
    if (!seconds || !sessions().pause(*seconds, *this)) break;
  }
  if (run.kind != Run::Kind::kStream) run.reporter.flush();
  endTransfer();
  iRun = nullptr;
  iInTransfer = false;
  if (attempt == Attempt::kDone) return true;
  // A pause that was cut short by a cancel mark is a cancelled transfer, whatever led to the pause.
  if (iShouldCancel) fault = QuarnKitError::errorWithCode(kQuarnKitCancelled);
  if (fault == nullptr) fault = QuarnKitError::errorWithCode(kQuarnKitRefused);
  storeError(error, std::move(fault));
  return false;
}

bool PooledConnection::downloadFileAtPath(std::string_view path, NSFileHandle& toFileHandle,
                                          uint64_t byteOffset, uint64_t* bytesTransferred,
                                          NSErrorRef* error) {
  if (bytesTransferred != nullptr) *bytesTransferred = byteOffset;
  if (!isAllowed(path, error) || !makeFilesAtOrBelow(path, error)) return false;
  const std::string whole = absolute(path);
  std::string version;
  Run run{Run::Kind::kDownload, ProgressReporter(byteOffset, progressReport())};
  const bool isOfAWalk = byteOffset == 0 && takesAhead();
  if (isOfAWalk) run.ahead = [&] { return takeAhead(whole, toFileHandle, run); };
  std::optional<double> seconds;
  const auto work = [&](Session& session, TransferControl& control, NSErrorRef* fault) {
    const NSDate begun = NSDate::date();
    const bool isRead = session.download(whole, toFileHandle, run.reporter.bytes(), &version, control, fault);
    seconds = NSDate::date().timeIntervalSinceDate(begun);
    return isRead;
  };
  const bool done = runTransfer(run, work, error);
  if (done && isOfAWalk) iCore->filesAhead.wasRead(whole, run.reporter.bytes(), seconds);
  if (bytesTransferred != nullptr) *bytesTransferred = run.reporter.bytes();
  return done;
}

// Also where no delegate listens it must be possible to see that bytes move.
ProgressReporter::Report PooledConnection::uploadReport(std::shared_ptr<UnconfirmedExtents> file) {
  return [report = progressReport(), sent = std::move(file)](uint64_t bytes, double rate, bool stalled) {
    if (!stalled) sent->noteProgress();
    report(bytes, rate, stalled);
  };
}

bool PooledConnection::mayUploadFrom(uint64_t offset, NSErrorRef* error) const {
  if (offset == 0 || supportsUploadByteOffset()) return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported, "writing into an existing file"));
  return false;
}

bool PooledConnection::upload(NSFileHandle& handle, std::string_view path, uint64_t offset,
                              uint64_t* bytesTransferred, NSErrorRef* error) {
  if (bytesTransferred != nullptr) *bytesTransferred = offset;
  if (!isAllowed(path, error) || !mayUploadFrom(offset, error)) return false;
  const std::string whole = absolute(path);
  if (iPutsOffNewFiles && offset == 0) {
    bool isPutOff = false;
    if (!putOffNewFile(handle, whole, &isPutOff, error)) return false;
    if (isPutOff) {
      noteNewFile(handle, whole, offset, std::nullopt);
      return true;
    }
  }
  Run run{Run::Kind::kUpload, ProgressReporter(offset, uploadReport(handle.extents()))};
  const uint64_t length = handle.fileLength();
  run.path = whole;
  run.heldPath = whole;
  run.heldFile = handle.extents();
  if (handle.isScratch()) {
    iUploadPath = &whole;
  } else {
    // Without a session in hand, as far as that goes.
    sessions().letGoOf(whole);
  }
  const auto work = [&](Session& session, TransferControl& control, NSErrorRef* fault) {
    // What the file has under way on another session must not arrive after what is sent now; and whoever
    // wrote to the path must be done before it is written to in another way.
    if (session.heldPath() != whole) sessions().finishUploads(whole, run.heldFile);
    return endOfNewFile(run, session.upload(handle, whole, offset, control, fault));
  };
  const bool done = runTransfer(run, work, error);
  iUploadPath = nullptr;
  if (done && length == 0) noteNewFile(handle, whole, offset, std::move(run.made));
  // What the server had confirmed before was not sent again, but it is there.
  if (bytesTransferred != nullptr) *bytesTransferred = done ? std::max(length, offset) : run.reporter.bytes();
  return done;
}

bool PooledConnection::finishUploads(NSFileHandle& fileHandle, std::string_view toPath, NSErrorRef* error) {
  const std::shared_ptr<UnconfirmedExtents> file = fileHandle.extents();
  const std::string whole = absolute(toPath);
  const auto isThis = [&](const std::string& path, const UnconfirmedExtents* other) {
    return other == file.get() || path == whole;
  };
  if (!makePutOffFiles(isThis, error)) return false;
  if (file->isSending()) sessions().finishUploads(whole, file);
  return AbstractConnection::finishUploads(fileHandle, toPath, error);
}

bool PooledConnection::flushFileAtPath(std::string_view path, NSErrorRef* error) {
  if (!isAllowed(path, error) || !makeFilesAtOrBelow(path, error)) return false;
  const std::string whole = absolute(path);
  const Work work = [&](Session& session, NSErrorRef* fault) { return session.flushFile(whole, fault); };
  return perform(Repeat::kSafe, work, error);
}

bool PooledConnection::uploadFileHandle(NSFileHandle& fileHandle, std::string_view /*withFilename*/,
                                        std::string_view toPath, uint64_t byteOffset,
                                        uint64_t* bytesTransferred, NSErrorRef* error) {
  return upload(fileHandle, toPath, byteOffset, bytesTransferred, error);
}

bool PooledConnection::uploadFileAtPath(const std::string& localPath, std::string_view toPath,
                                        uint64_t byteOffset, uint64_t* bytesTransferred, NSErrorRef* error) {
  const int descriptor = ::open(localPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    const NSErrorRef cause = NSError::errorWithDomain(NSPOSIXErrorDomain, errno);
    if (bytesTransferred != nullptr) *bytesTransferred = byteOffset;
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitLocalFailure, localPath, cause));
    return false;
  }
  NSFileHandle handle(descriptor);
  return upload(handle, toPath, byteOffset, bytesTransferred, error);
}

bool PooledConnection::streamBytesWithFilename(std::string_view /*filename*/, std::string_view toPath,
                                               ConnectionDelegate& handler, NSErrorRef* error) {
  if (!isAllowed(toPath, error)) return false;
  const std::string whole = absolute(toPath);
  StreamSpool spool([this, &handler](std::byte* buffer, size_t capacity) -> size_t {
    // What the handler gives after it has cancelled is of no use to anybody.
    if (iShouldCancel) return 0;
    return handler.connection(*this, buffer, capacity);
  });
  sessions().letGoOf(whole);
  // No report: progress is never told during a stream.
  Run run{Run::Kind::kStream, ProgressReporter(0, nullptr), &spool};
  run.path = whole;
  const auto next = [&spool](std::byte* buffer, size_t capacity) { return spool.next(buffer, capacity); };
  const auto work = [&](Session& session, TransferControl& control, NSErrorRef* fault) {
    sessions().finishUploads(whole, nullptr);
    const bool sent = endOfNewFile(run, session.stream(next, whole, control, fault));
    if (!sent || !iShouldCancel) return sent;
    // The cancel mark came with the end of the data: what was sent is not the whole.
    *fault = QuarnKitError::errorWithCode(kQuarnKitCancelled);
    return false;
  };
  return runTransfer(run, work, error);
}

}  // namespace ombra
