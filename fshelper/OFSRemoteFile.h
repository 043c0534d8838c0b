// One open remote file: its local cache file, its transfer state, and the workers that keep the two in step.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fshelper/OFSTransferRecord.h"
#include "platform/foundation/FileAttributes.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSFileHandle.h"
#include "platform/userfs/GMUserFileSystemDelegate.h"
#include "remote/AbstractConnection.h"
#include "remote/KCConnectionPool.h"

namespace ombra {

class StAbstractConnection;

// The base of every timed wait, in seconds (60). Tests scale it.
extern std::atomic<double> gHardLimit;
// Whether sequential writes are streamed; false for the rest of the process once a stream could not be
// started.
extern std::atomic<bool> gStreamingSupported;
// Whether written data is uploaded at all where the server cannot write at an offset.
extern std::atomic<bool> gUploadingSupported;

// How far the transfers of an open file have come.
//
//   kOFSNew ──first progress──▶ kOFSDownloading ──worker ends──▶ kOFSSettled
//    │                                                            │    ▲
//    └──download ends at once, or open creates/truncates──▶───────┘    │
//                                                                 │    │
//   kOFSSettled ──a sequential write starts a stream──▶ kOFSStreaming ─┤ worker ends
//   kOFSSettled ──a write needs a whole-file upload───▶ kOFSUploading ─┤ worker ends
//   kOFSStreaming ──a write needs a whole-file upload─▶ kOFSUploading  │
//   any but kOFSDownloading ──a write or truncation has failed─────────┘
//
// Nothing leads back to kOFSNew: content is downloaded at most once per object. kOFSDownloading is left by
// its own worker alone; writes and truncations wait for that.
enum OFSTransferState : int32_t {
  kOFSNew = 0,          // nothing is known about the content
  kOFSDownloading = 1,  // the first bytes have arrived; reads wait for what is missing
  kOFSStreaming = 2,    // sequential writes are being sent
  kOFSUploading = 3,    // a whole-file upload worker runs
  kOFSSettled = 4,      // no transfer runs; the cache file is the truth
};

// Must be held by shared_ptr: each worker thread keeps the object alive by a reference of its own. Every
// public operation may be called from any thread; those that move bytes block for as long as a server takes.
class OFSRemoteFile final : public GMOpenFile,
                            public ConnectionDelegate,
                            public std::enable_shared_from_this<OFSRemoteFile> {
 public:
  // All ones: the mark in bytesRequired that makes every transfer stop.
  static constexpr uint64_t kCancelMark = ~uint64_t{0};

  // A new object for a server path.
  static std::shared_ptr<OFSRemoteFile> remoteFileForPath(std::string path);
  // A path in the per-user temporary folder that names no file; empty when there is no such folder.
  static std::string uniquePath();

  explicit OFSRemoteFile(std::string path);
  // Closes. What is not on the server by then, and was not abandoned, is named in the log.
  ~OFSRemoteFile() override;

  // Where later transfers take their connections from. Never waits for a transfer, as the path does not.
  std::shared_ptr<KCConnectionPool> connectionPool() const EXCLUDES(iPathLock);
  void setConnectionPool(std::shared_ptr<KCConnectionPool> pool) EXCLUDES(iPathLock);
  // Never waits for a transfer: the path has a leaf lock of its own.
  std::string remotePath() const EXCLUDES(iPathLock);
  void setRemotePath(std::string path) EXCLUDES(iPathLock);
  const std::string& localPath() const { return iLocalPath; }
  // The low 16 bits of the flags of the first open.
  uint16_t mode() const EXCLUDES(iCondition);
  std::shared_ptr<NSFileHandle> fileHandle() const EXCLUDES(iPathLock);
  const NSCondition& condition() const { return iCondition; }
  int32_t state() const EXCLUDES(iCondition);
  uint64_t bytesAvailable() const EXCLUDES(iCondition);
  uint64_t bytesRequired() const EXCLUDES(iCondition);
  NSErrorRef lastError() const EXCLUDES(iCondition);
  // The lengths of the queued buffers of a stream, in order; absent when no queue exists.
  std::optional<std::vector<uint64_t>> streamWork() const EXCLUDES(iCondition);
  bool needsFlush() const EXCLUDES(iCondition);
  uint64_t bytesUploading() const EXCLUDES(iCondition);
  // Threads that wait on the condition at the moment, except a stream that waits for data.
  size_t waiterCount() const EXCLUDES(iCondition);

  // Prepares the object: makes the cache file and, unless `mode` (InterfaceOpenFlags) creates or truncates,
  // starts the download and waits for its first bytes or its end. True at once when it is open already; the
  // flags are then ignored. Failure: ENOENT when no handle could be made, else EIO.
  bool openWithMode(uint32_t mode, NSErrorRef* error) EXCLUDES(iCondition);
  // Never waits for a transfer.
  bool isOpen() const EXCLUDES(iPathLock);
  // Size, date and mode of the cache file, once the object is no longer new; empty when they cannot be read.
  // During a download the size is that of what has arrived.
  NSFileAttributes attributes() EXCLUDES(iCondition);
  // Waits until no transfer runs. Mode and date go to the cache file, the mode also to the server (a server
  // that cannot change it counts as done). False with EIO when the server refused; false without an error
  // when the cache file did.
  bool setAttributes(const NSFileAttributes& attributes, NSErrorRef* error) EXCLUDES(iCondition);
  // The whole content, as far as it can be read.
  NSData data() EXCLUDES(iCondition);
  // Waits for running transfers, at most 0.9 × gHardLimit. Raises KCException when the last upload, which it
  // may have to start, fails; reports nothing else.
  void close() EXCLUDES(iCondition);
  // The count of bytes read, 0 at the end of the file; waits for the range to arrive and for uploads to end.
  // -1 with EIO, or -1 without an error when the system call was interrupted.
  int _readToBuffer(void* buffer, size_t size, int64_t offset, NSErrorRef* error) EXCLUDES(iCondition);
  // The count of bytes written to the cache file and handed on to be sent. -1 with EIO and what lies beneath,
  // or -1 without an error when the system call was interrupted: nothing was written then.
  int _writeFromBuffer(const void* buffer, size_t size, int64_t offset, NSErrorRef* error)
      EXCLUDES(iCondition);
  // Waits until no transfer runs, cuts or extends the cache file and sends it as a whole. False with EIO.
  bool _truncateToOffset(int64_t offset, NSErrorRef* error) EXCLUDES(iCondition);

  // --- Durability: the ledger of local changes and what the server has confirmed as a whole.

  // Makes sure that the server has everything written before the call: lets the running transfer settle (an
  // idle stream ends at once) and, if that did not cover it, uploads the whole file. No limit of its own;
  // later writes wait meanwhile. False with EIO and the reason beneath. An abandoned file succeeds without
  // doing anything.
  bool synchronize(NSErrorRef* error) EXCLUDES(iCondition);
  // Whether what a read did not find is still to come.
  GMContentState contentState() EXCLUDES(iCondition);
  // Waits until the content is no longer arriving or more than `seen` bytes of it are there.
  void waitForContent(uint64_t seen) EXCLUDES(iCondition);
  // Gives the cache file the mode and the date of the item, once, right after the first open. Bytes that a
  // download still brings do not change the date.
  void seedCacheAttributes(const NSFileAttributes& attributes) EXCLUDES(iCondition);
  // Mode and date of the item have changed behind the open file: the cache file takes them, and keeps them
  // when its content has arrived. Never waits for a transfer.
  void showAttributes(const NSFileAttributes& attributes) EXCLUDES(iPathLock);
  // The file is about to be removed from the server: from now on nothing is sent, and handles are served from
  // the cache. Returns when the transfer that was sending has ended, so that it cannot make the file again.
  void abandon() EXCLUDES(iCondition);
  // Another object of the path has come to stand for the file: from now on nothing of this one is sent, so
  // that it does not get over that one, and handles are served from the cache. What the server lacks by then
  // stays unsent, and a synchronisation fails. Waits as `abandon` does.
  void supersede() EXCLUDES(iCondition);
  // The removal did not happen: what is written counts again.
  void reclaim() EXCLUDES(iCondition);
  // Whether the file was made here without a word from the server, which so may still refuse it. Never waits
  // for a transfer.
  bool isMakingInDoubt() const EXCLUDES(iPathLock);
  // Whether it was made here, and nothing is in it. Never waits for a transfer.
  bool isNewAndEmpty() EXCLUDES(iCondition);
  // True when anything was ever written to it here.
  bool hasBeenChanged() EXCLUDES(iCondition);
  // True when nothing written is missing on the server and no transfer runs. Never waits for a transfer.
  bool isCovered() EXCLUDES(iCondition);
  // The same, once no transfer runs any more, however it has ended; a stream ends for it. Without a limit of
  // its own.
  bool isCoveredOnceIdle() EXCLUDES(iCondition);
  // Why the server does not take what was written: the last synchronisation was told so, and nothing was
  // written since. Null where it may still be sent, and where another attempt may help (no connection).
  NSErrorRef refusal() EXCLUDES(iCondition);
  // True when the cache file is known not to be the file: its download failed or it could not be prepared.
  bool downloadFailed() EXCLUDES(iCondition);
  // Asks a running download (only that) to stop, for unmount. Never waits for a transfer.
  void cancelDownload() EXCLUDES(iCondition);
  // Grows while a transfer moves bytes, and when a remote call made with the condition held has succeeded.
  // Never waits for a transfer.
  uint64_t movements() const EXCLUDES(iPathLock);
  // How far the transfers are. Never waits for one.
  OFSTransferRecord& transfer() { return iTransfer; }
  // While the file, or a folder above it, is being moved: writes and truncations wait, so that nothing is
  // sent to where it will not be. Each hold is ended once.
  void holdWrites() EXCLUDES(iCondition);
  void letWritesGo() EXCLUDES(iCondition);
  // The path once no move is under way. Not with a session in hand: the move may need one.
  std::string remotePathAfterMoves() EXCLUDES(iCondition);
  // Copies the cache file to a new file at a local path (mode 0600), for content that could not be sent.
  // False with errno set: EEXIST when there is one already, which stays as it is; else no file is left there.
  bool saveContentAs(const std::string& path) EXCLUDES(iPathLock);
  // Bytes that the cache file holds on the local disk (holes do not count). Never waits for a transfer.
  uint64_t cacheSize() EXCLUDES(iPathLock);

  // Every server is trusted for transfers: the check is made before the helper starts.
  bool connection(AbstractConnection& connection, const TrustQuestion& isWorthyTrust) override;
  // Progress of a download or a whole-file upload.
  void connection(AbstractConnection& connection, uint64_t transferredBytes, double throughput,
                  bool stalled) override EXCLUDES(iCondition);
  // True while an open, a read, a write or a truncation waits for the download.
  bool connectionIsAwaited(AbstractConnection& connection) override EXCLUDES(iCondition);
  // The next bytes of a stream; waits for them at most 0.1 × gHardLimit.
  size_t connection(AbstractConnection& connection, std::byte* streamBytes, size_t length) override
      EXCLUDES(iCondition);

 private:
  // Identifies one start of a worker. The current one is iEpoch; workers of older epochs were given up: they
  // end soon and change nothing any more.
  using Epoch = uint64_t;
  using WorkerBody = void (*)(const std::shared_ptr<OFSRemoteFile>& file, Epoch epoch);

  // A worker thread from its start to its end. The first of iWorkers runs, the others wait for it to end.
  struct Worker {
    Epoch epoch;
    AbstractConnection* connection;  // while its transfer runs; null before and after
  };

  // One buffer of the stream's queue: bytes of a write, or a range of the cache file (the head of a restarted
  // stream, which may be the most part of a huge file).
  struct StreamPiece {
    std::string bytes;
    FileExtent range;  // empty when `bytes` count
    size_t taken = 0;  // of `bytes`
    uint64_t length() const { return bytes.empty() ? range.end - range.begin : bytes.size() - taken; }
  };

  // Counts a waiter that wants the running transfer to settle, for a scope. An idle stream ends for its sake.
  class SettleWaiter;
  // Counts a synchroniser, for a scope. Later writes wait for it.
  class Synchronizer;
  // Marks, for a scope, that the condition is held during a remote call.
  class HeldTransfer;

  // --- object
  void locked_setState(OFSTransferState state) REQUIRES(iCondition);
  void setFileHandle(std::shared_ptr<NSFileHandle> handle) REQUIRES(iCondition) EXCLUDES(iPathLock);
  // Waits on the condition, counted.
  void locked_wait() REQUIRES(iCondition);
  bool locked_waitUntilDate(NSDate limit) REQUIRES(iCondition);
  // The same, of what arrives woken only by what makes the cache file at least `end` bytes long.
  void locked_waitForBytes(uint64_t end) REQUIRES(iCondition);
  void locked_waitForState(OFSTransferState state) REQUIRES(iCondition);
  // Until no transfer runs and no given-up worker is left either.
  void locked_waitUntilIdle() REQUIRES(iCondition);
  // Waits until the worker of `epoch` has settled or was given up.
  void locked_waitForEpoch(Epoch epoch) REQUIRES(iCondition);

  // --- open, attributes, close
  void locked_prepare(NSErrorRef* error) REQUIRES(iCondition);
  void locked_openCacheFile(NSErrorRef* error) REQUIRES(iCondition);
  void locked_awaitDownload() REQUIRES(iCondition);
  void locked_failOpen(const KCException& exception, NSErrorRef* error) REQUIRES(iCondition);
  bool locked_setLocalAttributes(const NSFileAttributes& attributes) REQUIRES(iCondition);
  bool locked_setRemotePermissions(AbstractConnection& connection, uint16_t permissions, NSErrorRef* error)
      REQUIRES(iCondition);

  // --- workers
  // Starts a detached thread that runs `body`, releasing the condition for the start. Workers that still run
  // are given up. Raises, with the state settled, when there is no thread.
  Epoch locked_performSelectorOnWorkerThread(WorkerBody body) REQUIRES(iCondition);
  void locked_giveUpWorkers() REQUIRES(iCondition);
  // In a worker: waits for its predecessor to end. False when it was given up meanwhile (it is then
  // forgotten).
  bool locked_beginWorker(Epoch epoch) REQUIRES(iCondition);
  void locked_endWorker(Epoch epoch) REQUIRES(iCondition);
  // The same where the caller wakes who waits for it.
  void locked_forgetWorker(Epoch epoch) REQUIRES(iCondition);
  // In a worker: names the connection of its transfer, so that it can be stopped. False when it was given up
  // already.
  [[nodiscard]] bool lendConnection(Epoch epoch, AbstractConnection& connection) EXCLUDES(iCondition);
  // The reverse, before the connection goes back to the pool and into other hands.
  void takeConnectionBack(Epoch epoch) EXCLUDES(iCondition);
  bool locked_isGivenUp(const AbstractConnection& connection) const REQUIRES(iCondition);
  // Asks the running worker's connection to stop, besides what the next progress report does.
  void locked_stopRunningConnection() REQUIRES(iCondition);
  bool locked_downloadRuns() const REQUIRES(iCondition);
  void locked_cancelDownload() REQUIRES(iCondition);

  // --- download and reads
  static void downloadOnThread(const std::shared_ptr<OFSRemoteFile>& file, Epoch epoch);
  bool isOpenedToRead() EXCLUDES(iCondition);
  // The caller wakes who waits for it.
  void locked_finishDownload(bool succeeded, uint64_t transferredBytes) REQUIRES(iCondition);
  // Whether that may be what somebody waits for: who waits has to be woken then.
  bool locked_measureCacheFile() REQUIRES(iCondition);
  void locked_awaitRange(uint64_t end, NSErrorRef* error) REQUIRES(iCondition);
  int locked_read(void* buffer, size_t size, int64_t offset) REQUIRES(iCondition);

  // --- streaming
  // `generation` is that of the write. True when the stream took the bytes; false when it could not be
  // started ("stream fallback").
  bool locked_streamBytes(const void* bytes, uint64_t length, uint64_t offset, uint64_t generation)
      REQUIRES(iCondition);
  uint64_t locked_streamWorkLength() const REQUIRES(iCondition);
  bool locked_synchronizeStreamWorkRemaining(size_t count) REQUIRES(iCondition);
  bool locked_continuesStreamAt(uint64_t offset) const REQUIRES(iCondition);
  void locked_endStreamBefore(uint64_t offset) REQUIRES(iCondition);
  void locked_beginStreamWork(uint64_t offset) REQUIRES(iCondition);
  void locked_queueStreamBytes(const void* bytes, uint64_t length, uint64_t offset, uint64_t generation)
      REQUIRES(iCondition);
  bool locked_startStream(uint64_t end) REQUIRES(iCondition);
  static void streamOnThread(const std::shared_ptr<OFSRemoteFile>& file, Epoch epoch);
  // `path`: where it was sent to.
  void locked_finishStream(bool succeeded, const std::string& path, const NSErrorRef& error)
      REQUIRES(iCondition);
  size_t locked_pullStreamBytes(AbstractConnection& connection, std::byte* bytes, size_t capacity)
      REQUIRES(iCondition);
  size_t locked_takeStreamBytes(AbstractConnection& connection, std::byte* bytes, size_t capacity)
      REQUIRES(iCondition);

  // --- writes and uploads
  int locked_write(AbstractConnection& connection, const void* buffer, size_t size, int64_t offset)
      REQUIRES(iCondition);
  // The count of bytes that the cache file took; raises when the system refuses.
  ssize_t locked_writeCacheFile(const void* buffer, size_t size, int64_t offset) REQUIRES(iCondition);
  // Hands bytes that the cache file has taken to the server, at their place in the file there.
  void locked_sendInPlace(AbstractConnection& connection, const void* buffer, FileExtent extent)
      REQUIRES(iCondition);
  void locked_awaitTurnToWrite() REQUIRES(iCondition);
  void locked_awaitTurnToTruncate(int64_t offset) REQUIRES(iCondition);
  void locked_failWrite(const KCException& exception, NSErrorRef* error) REQUIRES(iCondition);
  void locked_uploadWithConnection(AbstractConnection& connection, uint64_t offset) REQUIRES(iCondition);
  // Sends the cache file from `offset` on, with the condition held: what follows finds it on the server.
  bool locked_sendCacheFile(AbstractConnection& connection, uint64_t offset, uint64_t* transferred,
                            NSErrorRef* error) REQUIRES(iCondition);
  void locked_uploadPendingLength(uint64_t length, uint64_t offset) REQUIRES(iCondition);
  void locked_settleBeforeUploadAt(uint64_t offset) REQUIRES(iCondition);
  void locked_awaitUploadBefore(uint64_t offset) REQUIRES(iCondition);
  Epoch locked_startUpload() REQUIRES(iCondition);
  // Sets the cancel mark and waits until the running transfer has ended.
  void locked_cancelTransfer() REQUIRES(iCondition);
  static void uploadOnThread(const std::shared_ptr<OFSRemoteFile>& file, Epoch epoch);
  // One pass of the upload worker over a snapshot of the cache file; false when it was the last one.
  bool locked_uploadPass(Epoch epoch) REQUIRES(iCondition);
  // A copy of the cache file at a fresh path; absent when the disk has no room for it.
  std::optional<std::string> locked_takeSnapshot() REQUIRES(iCondition);
  bool sendSnapshot(Epoch epoch, const std::optional<std::string>& snapshot, const std::string& path,
                    uint64_t* transferred, NSErrorRef* error) EXCLUDES(iCondition);
  bool locked_finishUploadPass(bool succeeded, uint64_t transferredBytes, uint64_t generation,
                               bool hasSnapshot, const NSErrorRef& error) REQUIRES(iCondition);
  bool locked_isStoredInPlace(StAbstractConnection& holder) REQUIRES(iCondition);
  // `isNew`: this makes the file.
  bool truncate(int64_t offset, bool isNew, NSErrorRef* error) EXCLUDES(iCondition);
  void locked_truncate(StAbstractConnection& holder, int64_t offset, bool isNew) REQUIRES(iCondition);
  // The cache file is not the file any more: it is fetched again at the next open.
  void locked_discardContent() REQUIRES(iCondition);
  void locked_failTruncation(const KCException& exception, NSErrorRef* error) REQUIRES(iCondition);

  // --- ledger
  void locked_noteLocalChange(uint64_t from) REQUIRES(iCondition);
  // `isSentFromCacheFile`: the server may still have it open, and refuse its close.
  void locked_confirm(uint64_t generation, bool isSentFromCacheFile = false) REQUIRES(iCondition);
  // The same for a write that was sent in place, and may not be acknowledged yet.
  void locked_confirmInPlace() REQUIRES(iCondition);
  // Whether the server has acknowledged all that was sent in place.
  bool locked_isSettledInPlace() const REQUIRES(iCondition);
  bool locked_isCovered() const REQUIRES(iCondition);
  bool locked_finishInPlace(StAbstractConnection& holder, NSErrorRef* error) REQUIRES(iCondition);
  // A transfer begins that replaces the whole file: until it has succeeded, nobody knows what the server has.
  void locked_doubtServer() REQUIRES(iCondition);
  // After each change of the ledger: shows it on the record.
  void locked_publishLedger() REQUIRES(iCondition);
  bool locked_synchronize(StAbstractConnection& holder, NSErrorRef* error) REQUIRES(iCondition);
  // What came of one upload of the whole file. Undecided when a writer has ended it, or another one has sent
  // the file meanwhile.
  enum class Attempt { kStored, kUndecided, kFailed };
  // Uploads the whole file once; stored when that, or what came meanwhile, has covered `wanted`.
  Attempt locked_storeWholeFile(StAbstractConnection& holder, uint64_t wanted) REQUIRES(iCondition);
  // Reports the last error. Always false.
  bool locked_failSynchronization(NSErrorRef* error) REQUIRES(iCondition);
  bool locked_sendsNothing() const REQUIRES(iCondition) { return iAbandoned || iSuperseded; }
  void locked_stopSending() REQUIRES(iCondition);
  bool locked_failSuperseded(NSErrorRef* error) REQUIRES(iCondition);
  void locked_applySeed() REQUIRES(iCondition) EXCLUDES(iPathLock);
  std::optional<NSDate> seededDate() const EXCLUDES(iPathLock);

  const std::string iLocalPath;

  mutable NSCondition iCondition;
  mutable Mutex iPathLock;
  // Set while the condition is held during a remote call: who must not wait for that looks here first.
  std::atomic<int> iHeldTransfers{0};
  std::atomic<uint64_t> iMovements{0};
  OFSTransferRecord iTransfer;
  std::string iRemotePath GUARDED_BY(iPathLock);
  std::shared_ptr<KCConnectionPool> iConnectionPool GUARDED_BY(iPathLock);
  // The same handle as iFileHandle, for those who must not wait for a transfer.
  std::shared_ptr<NSFileHandle> iOpenFile GUARDED_BY(iPathLock);
  // What the cache file gets once its content has arrived; and what was shown on it since, which comes first.
  std::optional<NSFileAttributes> iSeed GUARDED_BY(iPathLock);
  NSFileAttributes iShown GUARDED_BY(iPathLock);

  uint32_t iMode GUARDED_BY(iCondition) = 0;
  std::shared_ptr<NSFileHandle> iFileHandle GUARDED_BY(iCondition);
  OFSTransferState iState GUARDED_BY(iCondition) = kOFSNew;
  // During a download the bytes in the cache file so far; during an upload or stream those confirmed sent.
  uint64_t iBytesAvailable GUARDED_BY(iCondition) = 0;
  // During a download what a reader needs; during an upload or stream the end of the data written so far; or
  // the cancel mark.
  uint64_t iBytesRequired GUARDED_BY(iCondition) = 0;
  NSErrorRef iLastError GUARDED_BY(iCondition);
  // The bytes still to be handed to the stream, in file order, without gaps. Absent when no stream runs.
  std::optional<std::deque<StreamPiece>> iStreamWork GUARDED_BY(iCondition);
  bool iNeedsFlush GUARDED_BY(iCondition) = false;
  uint64_t iBytesUploading GUARDED_BY(iCondition) = 0;

  Epoch iEpoch GUARDED_BY(iCondition) = 0;
  std::vector<Worker> iWorkers GUARDED_BY(iCondition);

  // Counts local changes; equal to the confirmed one when the server has the file as it is here.
  uint64_t iLocalGeneration GUARDED_BY(iCondition) = 0;
  uint64_t iConfirmedGeneration GUARDED_BY(iCondition) = 0;
  // Where the first unconfirmed change begins.
  uint64_t iUnsentFrom GUARDED_BY(iCondition) = kCancelMark;
  // What the last synchronisation was refused with, if it was, and of which state of the file.
  NSErrorRef iRefusal GUARDED_BY(iCondition);
  uint64_t iRefusedGeneration GUARDED_BY(iCondition) = 0;
  // An upload worker's failure that no writer has been told of yet.
  NSErrorRef iUnreportedError GUARDED_BY(iCondition);

  // Of the running stream: bytes that the library took; the state of the file that is confirmed (generation
  // 0: none) if it ends exactly at that length; that the library was told its end; why the cache file could
  // not be read.
  uint64_t iStreamTaken GUARDED_BY(iCondition) = 0;
  uint64_t iStreamGeneration GUARDED_BY(iCondition) = 0;
  uint64_t iStreamLength GUARDED_BY(iCondition) = 0;
  bool iStreamEnding GUARDED_BY(iCondition) = false;
  NSErrorRef iStreamFailure GUARDED_BY(iCondition);

  bool iContentFailed GUARDED_BY(iCondition) = false;
  bool iAbandoned GUARDED_BY(iCondition) = false;
  bool iSuperseded GUARDED_BY(iCondition) = false;

  size_t iSettleWaiters GUARDED_BY(iCondition) = 0;
  size_t iSynchronizers GUARDED_BY(iCondition) = 0;
  size_t iMoves GUARDED_BY(iCondition) = 0;
  size_t iClosers GUARDED_BY(iCondition) = 0;
  size_t iWaiters GUARDED_BY(iCondition) = 0;
  // The nearest end of a range that a reader waits for.
  uint64_t iAwaitedEnd GUARDED_BY(iCondition) = kCancelMark;
};

}  // namespace ombra
