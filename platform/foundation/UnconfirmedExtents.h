// What of a local file a server may not have yet.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSError.h"

namespace ombra {

// A half-open range of a file, [begin, end), in bytes.
struct FileExtent {
  uint64_t begin = 0;
  uint64_t end = 0;
  bool operator==(const FileExtent&) const = default;
};

// The extents that were written and not sent, and what became of those that were sent. Shared by the file and
// by those who send it, so that an outcome that comes late finds its place even when the file is gone.
//
// An extent is  unconfirmed -> sent -> stored;  one that was not stored after all is given back. Thread-safe;
// a leaf lock.
class UnconfirmedExtents {
 public:
  void add(FileExtent extent) EXCLUDES(iCondition);
  // Stored, or on its way.
  void remove(FileExtent extent) EXCLUDES(iCondition);
  // The file now ends at `length`: extents beyond it are cut off.
  void cut(uint64_t length) EXCLUDES(iCondition);
  // The sorted, disjoint extents that overlap [begin, end of file), cut to begin there.
  std::vector<FileExtent> from(uint64_t begin) const EXCLUDES(iCondition);

  // The least length that the file has had since the server's copy was last cut to that; absent when it was
  // not cut. What lies behind it on the server is not the file's any more.
  std::optional<uint64_t> leastLength() const EXCLUDES(iCondition);
  void forgetLeastLength() EXCLUDES(iCondition);

  // Somebody has the file open on the server and sends to it, until `endSending`. A failure that nobody has
  // been told of is kept, the first one.
  void beginSending() EXCLUDES(iCondition);
  void endSending(NSErrorRef failure) EXCLUDES(iCondition);
  bool isSending() const EXCLUDES(iCondition);
  void waitUntilSent() EXCLUDES(iCondition);
  // The file itself is not on the server yet: somebody makes it there, with its content or without, until
  // `endPutOff`. A failure is kept as above.
  void putOff() EXCLUDES(iCondition);
  void endPutOff(NSErrorRef failure) EXCLUDES(iCondition);
  bool isPutOff() const EXCLUDES(iCondition);
  // Whether the server may turn out not to have what it was sent although nothing is being sent.
  bool isInDoubt() const EXCLUDES(iCondition);
  // Was sent and is not stored.
  void giveBack(FileExtent extent) EXCLUDES(iCondition);
  // Where what was given back begins: it has to be sent again wherever the next upload begins.
  std::optional<uint64_t> givenBackFrom() const EXCLUDES(iCondition);
  void forgetGivenBack() EXCLUDES(iCondition);
  NSErrorRef takeFailure() EXCLUDES(iCondition);
  // The server has taken some more of what is being sent; and how often it has. Never waits.
  void noteProgress() { ++iProgress; }
  uint64_t progress() const { return iProgress.load(); }
  // Nothing is under way or put off, and no failure waits to be told.
  bool isSettled() const EXCLUDES(iCondition);
  // The server has the file as a whole, by another way.
  void clear() EXCLUDES(iCondition);
  // The server has taken the file as a whole, sent from the file itself: what the close of it fails of is
  // still to be told.
  void clearSent() EXCLUDES(iCondition);

 private:
  void locked_add(FileExtent extent) REQUIRES(iCondition);

  std::atomic<uint64_t> iProgress{0};
  mutable NSCondition iCondition;
  std::vector<FileExtent> iExtents GUARDED_BY(iCondition);
  std::optional<uint64_t> iLeastLength GUARDED_BY(iCondition);
  std::optional<uint64_t> iGivenBack GUARDED_BY(iCondition);
  NSErrorRef iFailure GUARDED_BY(iCondition);
  int iSenders GUARDED_BY(iCondition) = 0;
  int iMakers GUARDED_BY(iCondition) = 0;
};

}  // namespace ombra
