// What the transfers of the open files tell about themselves, for those who want to know how far they are.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSDate.h"
#include "platform/foundation/NSError.h"

namespace ombra {

// How fast a count grows: its growth over the last five seconds. Not thread-safe.
class OFSTransferRate {
 public:
  // A count begins anew at 0.
  void begin(NSDate now);
  // The count so far.
  void add(NSDate now, uint64_t count);
  // Per second; 0 when nothing has moved for that long. Absent in the first half second, when nobody knows.
  std::optional<uint64_t> perSecond(NSDate now) const;

 private:
  struct Sample {
    NSDate time;
    uint64_t count;
  };
  std::deque<Sample> iSamples;  // half a second apart
  uint64_t iCount = 0;
  NSDate iBegin;
  NSDate iGrown;  // when the count was last another
};

// What went wrong last, and where.
struct OFSTransferFailure {
  std::string path;  // the server's
  std::string text;
  NSDate date;
};

// What all transfers of a volume share: sums since the mount, and the last failure. Thread-safe; a leaf lock.
class OFSTransferTotals {
 public:
  void addReceived(uint64_t bytes) { iReceived += bytes; }
  void addSent(uint64_t bytes) { iSent += bytes; }
  uint64_t received() const { return iReceived.load(); }
  uint64_t sent() const { return iSent.load(); }
  void setLastFailure(OFSTransferFailure failure) EXCLUDES(iLock);
  std::optional<OFSTransferFailure> lastFailure() const EXCLUDES(iLock);

 private:
  std::atomic<uint64_t> iReceived{0};
  std::atomic<uint64_t> iSent{0};
  mutable Mutex iLock;
  std::optional<OFSTransferFailure> iFailure GUARDED_BY(iLock);
};

// The record of one open file. The engine writes it, mostly with the file's condition held; whoever asks for
// the status reads it and never waits for a transfer: the lock is a leaf, held for a few assignments.
//
//   idle --begin--> running --end--> idle                     downloads, streams, whole-file uploads
//   idle --beginPiece--> running --endPiece--> between pieces --beginPiece--> … --end--> idle     in place
//
// Between two pieces, which are a program's writes, a transfer still counts as running for two seconds.
class OFSTransferRecord {
 public:
  enum class Direction { kDownload, kUpload };
  // Of what was written here: nothing is missing on the server (as far as the ledger knows); something is; or
  // it is not to be sent any more.
  enum class Ledger { kCovered, kUnsent, kAbandoned };

  struct Snapshot {
    bool running = false;
    Direction direction = Direction::kDownload;
    uint64_t done = 0;             // bytes moved by this transfer
    std::optional<uint64_t> size;  // bytes that it is to move, where the engine knows it
    bool inPieces = false;         // in place
    bool lastBytes = false;        // the program has written all: somebody waits until it is on the server
    std::optional<uint64_t> perSecond;
    Ledger ledger = Ledger::kCovered;
    std::string failure;  // why the last upload failed; empty when it has not
  };

  // Where this file's bytes and failures count as well; null: nowhere.
  void setTotals(std::shared_ptr<OFSTransferTotals> totals) EXCLUDES(iLock);

  void begin(Direction direction, std::optional<uint64_t> size = std::nullopt) EXCLUDES(iLock);
  // So many bytes in all, counted from the transfer's beginning. Less than before: it has begun again.
  void moved(uint64_t done) EXCLUDES(iLock);
  void beginPiece() EXCLUDES(iLock);
  void endPiece(uint64_t bytes) EXCLUDES(iLock);
  // The transfer has come to its end. A failure (null: success) is kept unless it is a cancellation, which
  // somebody wanted.
  void end(const std::string& remotePath, const NSErrorRef& failure) EXCLUDES(iLock);
  void fail(const std::string& remotePath, const NSErrorRef& failure) EXCLUDES(iLock);
  void setLedger(Ledger ledger) EXCLUDES(iLock);

  // While one exists, no more is written: what the running transfer is to move is known.
  class LastBytes {
   public:
    explicit LastBytes(OFSTransferRecord& record) : iRecord(record) { ++iRecord.iLastBytes; }
    ~LastBytes() { --iRecord.iLastBytes; }
    LastBytes(const LastBytes&) = delete;
    LastBytes& operator=(const LastBytes&) = delete;

   private:
    OFSTransferRecord& iRecord;
  };

  Snapshot snapshot() const EXCLUDES(iLock);

 private:
  void locked_moved(uint64_t done) REQUIRES(iLock);
  bool locked_isRunning(NSDate now) const REQUIRES(iLock);

  std::atomic<int> iLastBytes{0};

  mutable Mutex iLock;
  std::shared_ptr<OFSTransferTotals> iTotals GUARDED_BY(iLock);
  bool iRunning GUARDED_BY(iLock) = false;
  bool iInPieces GUARDED_BY(iLock) = false;
  NSDate iLastPiece GUARDED_BY(iLock);
  Direction iDirection GUARDED_BY(iLock) = Direction::kDownload;
  uint64_t iDone GUARDED_BY(iLock) = 0;
  std::optional<uint64_t> iSize GUARDED_BY(iLock);
  OFSTransferRate iRate GUARDED_BY(iLock);
  Ledger iLedger GUARDED_BY(iLock) = Ledger::kCovered;
  std::string iFailure GUARDED_BY(iLock);
};

}  // namespace ombra
