// An open local file.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/UnconfirmedExtents.h"

namespace ombra {

// Owns a descriptor and closes it when destroyed. A handle over a scratch file is never flushed to disk
// (nothing of it outlives the process) and records which extents were written since they were last confirmed
// as sent. Positioned reads and writes may come from several threads.
class NSFileHandle {
 public:
  enum class Kind { kFile, kScratch };

  // Takes over `descriptor` (must be >= 0).
  explicit NSFileHandle(int descriptor, Kind kind = Kind::kFile);
  ~NSFileHandle();
  NSFileHandle(const NSFileHandle&) = delete;
  NSFileHandle& operator=(const NSFileHandle&) = delete;

  int fileDescriptor() const { return iDescriptor; }
  bool isScratch() const { return iKind == Kind::kScratch; }

  // fsync; nothing for a scratch handle. Errors are ignored, as the interface has none.
  void synchronizeFile();
  // Moves the position to the end and answers it: the file's length in bytes.
  uint64_t seekToEndOfFile();
  // The file's length in bytes without moving the position.
  uint64_t fileLength() const;

  // Writes all of `bytes` at `offset`. False with errno set when the system refused part of it.
  [[nodiscard]] bool writeAll(const void* bytes, size_t length, uint64_t offset);
  // Reads up to `length` bytes at `offset`, over short reads. The count, or -1 with errno set.
  [[nodiscard]] ssize_t readAt(void* bytes, size_t length, uint64_t offset) const;

  // While it lives, `readAt` on the same thread takes these bytes, which were just written to the file, from
  // the writer's memory: a program's write is sent on without a way through the system. Nobody else changes
  // that part of the file meanwhile. Lives on the stack; the last one made counts.
  class RecentWrite {
   public:
    RecentWrite(const NSFileHandle& file, const void* bytes, FileExtent extent);
    ~RecentWrite();
    RecentWrite(const RecentWrite&) = delete;
    RecentWrite& operator=(const RecentWrite&) = delete;

   private:
    friend class NSFileHandle;
    const NSFileHandle& iFile;
    const std::byte* const iBytes;
    const FileExtent iExtent;
    const RecentWrite* const iOuter;
  };

  // Scratch extents: what was written locally and not yet confirmed by the server.
  void noteWritten(FileExtent extent) {
    if (isScratch()) iExtents->add(extent);
  }
  // The file now ends at `length`: extents beyond it are cut off.
  void noteTruncated(uint64_t length) { iExtents->cut(length); }
  // The sorted, disjoint unconfirmed extents that overlap [from, end of file), cut to begin at `from`.
  std::vector<FileExtent> unconfirmedExtents(uint64_t from) const { return iExtents->from(from); }
  // The server has these bytes now.
  void noteConfirmed(FileExtent extent) { iExtents->remove(extent); }
  // The record itself, for those who send the file. Never null; empty for an ordinary file.
  const std::shared_ptr<UnconfirmedExtents>& extents() const { return iExtents; }

 private:
  const int iDescriptor;
  const Kind iKind;
  const std::shared_ptr<UnconfirmedExtents> iExtents = std::make_shared<UnconfirmedExtents>();
};

}  // namespace ombra
