// Bytes: reads that end early, writes, truncation.
#include <fcntl.h>

#include <algorithm>
#include <limits>

#include "platform/userfs/RequestContext.h"
#include "platform/userfs/Volume.h"

namespace ombra {

namespace {

// The pages that others have of what is written past them: dropped afterwards, and where a mapping may have
// changed some, before as well, since they are written then and would take the new bytes with them if they
// came later. Dropping waits, deaf to every signal, for reads of these pages that are under way; after a
// write these have all that they need.
class PagesOfOthers {
 public:
  PagesOfOthers(const OpenHandle& handle, off_t offset, size_t length, const Volume::PageDropper& dropPages)
      : iHandle(handle), iOffset(offset), iLength(length), iDrop(dropPages) {
    if (iHandle.bypassesPages && iHandle.item->mayHaveChangedPages()) drop();
  }
  ~PagesOfOthers() {
    if (iHandle.bypassesPages && iHandle.item->mayHavePages()) drop();
  }
  PagesOfOthers(const PagesOfOthers&) = delete;
  PagesOfOthers& operator=(const PagesOfOthers&) = delete;

 private:
  void drop() const {
    const uint64_t nodeID = iHandle.item->nodeID();
    if (nodeID != 0 && iLength != 0) iDrop(nodeID, iOffset, iLength);
  }

  const OpenHandle& iHandle;
  const off_t iOffset;
  const size_t iLength;
  const Volume::PageDropper& iDrop;
};

}  // namespace

std::optional<uint64_t> Volume::promisedSize(const OpenItem& item) const {
  const auto path = item.path();
  if (!path) return attributesOfRemoved(item).fileSize;
  const auto attributes = delegate().attributesOfItemAtPath(*path, item.userData(), nullptr);
  return attributes ? attributes->fileSize : std::nullopt;
}

Volume::AfterShortRead Volume::afterShortRead(OpenItem& item, uint64_t end, bool* sawEnd) {
  GMUserFileSystemDurability* durability = this->durability();
  if (durability == nullptr || *sawEnd) return AfterShortRead::kEnd;
  // Where no size is promised, only the state tells the end of the file from the end of what has come.
  const auto promised = promisedSize(item);
  if (promised && end >= *promised) return AfterShortRead::kEnd;
  switch (durability->contentStateOfFile(item.userData())) {
    case GMContentState::kArriving:
      durability->waitForContent(item.userData(), end);
      return AfterShortRead::kReadAgain;
    case GMContentState::kFailed:
      // The pages that the kernel has are of a content that nobody will complete.
      if (const auto path = item.path()) iHandles.forgetLastOpen(*path);
      return AfterShortRead::kFail;
    case GMContentState::kComplete:
      break;
  }
  // The rest may have come between the read and the question, so one more look decides.
  *sawEnd = true;
  return AfterShortRead::kReadAgain;
}

int Volume::read(uint64_t identifier, char* buffer, size_t size, off_t offset) {
  const auto handle = iHandles.handle(identifier);
  if (handle == nullptr) return -EBADF;
  OpenItem& item = *handle->item;
  size = std::min<size_t>(size, std::numeric_limits<int>::max());
  size_t done = 0;
  bool sawEnd = false;
  while (true) {
    const auto path = item.path();
    const int64_t at = offset + static_cast<int64_t>(done);
    NSErrorRef error;
    const int got = delegate().readFileAtPath(optionalPath(path), item.userData(), buffer + done, size - done,
                                              at, &error);
    if (got < 0) return failure(error);
    done += std::min<size_t>(static_cast<size_t>(got), size - done);
    if (done == size) return static_cast<int>(done);
    switch (afterShortRead(item, static_cast<uint64_t>(offset) + done, &sawEnd)) {
      case AfterShortRead::kReadAgain:
        continue;
      case AfterShortRead::kEnd:
        return static_cast<int>(done);
      case AfterShortRead::kFail:
        return -EIO;
    }
  }
}

int Volume::write(uint64_t identifier, const char* buffer, size_t size, off_t offset,
                  const PageDropper& dropPages) {
  const auto handle = iHandles.handle(identifier);
  if (handle == nullptr) return -EBADF;
  OpenItem& item = *handle->item;
  size = std::min<size_t>(size, std::numeric_limits<int>::max());
  size_t done = 0;
  NSErrorRef error;
  const HandleChange change(*handle, RequestContext::current().thread);
  if (const auto path = item.path()) {
    if (const int result = takePrivileges(*path, handle->item); result != 0) return result;
  }
  const PagesOfOthers pages(*handle, offset, size, dropPages);
  while (done < size) {
    const int64_t at = offset + static_cast<int64_t>(done);
    const auto path = item.path();
    const int count = delegate().writeFileAtPath(optionalPath(path), item.userData(), buffer + done,
                                                 size - done, at, &error);
    if (count <= 0) break;
    done += std::min<size_t>(static_cast<size_t>(count), size - done);
  }
  item.noteWrite(static_cast<uint64_t>(offset) + done);
  if (done == 0 && size != 0) return failure(error);
  return static_cast<int>(done);
}

// The delegate answers success also for a truncation that failed. Where an error came with it and the file
// did not take the size, it has failed.
int Volume::truncateFile(const std::string& path, const GMUserData& userData, off_t size) {
  NSErrorRef error;
  if (!delegate().truncateFileAtPath(path, userData, size, &error)) return failure(error);
  if (error == nullptr) return 0;
  const auto attributes = attributesAtPath(path);
  const bool isDone = attributes && attributes->fileSize == static_cast<uint64_t>(size);
  return isDone ? 0 : failure(error);
}

// truncate(2) of a file that nobody has open: an open and a release around it, so that its cache copy takes
// the attributes of the file, and a failed one is tried again. There will be no close to wait for the server,
// so this does. To nothing, nothing of the file is needed and nothing is fetched.
int Volume::truncateClosed(const std::string& path, off_t size) {
  const OpenGate::Pass turn(iOpenGate, path);
  GMUserData userData;
  const int flags = size == 0 ? O_WRONLY | O_TRUNC : O_RDWR;
  if (const int result = openFile(path, flags, &userData); result != 0) return result;
  const auto handle = iHandles.add(path, userData, FileAccess::kBoth, 0, 0);
  int result = size == 0 ? 0 : truncateFile(path, userData, size);
  if (result == 0) result = synchronizeItem(*handle->item);
  release(handle->identifier);
  return result;
}

int Volume::truncate(const char* path, uint64_t identifier, off_t size) {
  if (identifier == 0) {
    if (path == nullptr) return -EBADF;
    const std::string listed = listedPath(path);
    const auto item = iHandles.itemAtPath(listed);
    if (const int result = takePrivileges(listed, item); result != 0) return result;
    if (item == nullptr) return truncateClosed(listed, size);
    // No close need follow: those who have it open may only read. And where the file had that size before,
    // only this tells whether the server has it still.
    const int result = truncateFile(listed, item->userData(), size);
    return result != 0 ? result : synchronizeItem(*item);
  }
  const auto handle = iHandles.handle(identifier);
  if (handle == nullptr) return -EBADF;
  const HandleChange change(*handle, RequestContext::current().thread);
  if (const auto current = handle->item->path()) {
    if (const int result = takePrivileges(*current, handle->item); result != 0) return result;
    return truncateFile(*current, handle->item->userData(), size);
  }
  GMUserFileSystemDurability* durability = this->durability();
  NSErrorRef error;
  if (durability == nullptr || !durability->truncateAbandonedFile(handle->item->userData(), size, &error)) {
    return failure(error);
  }
  handle->item->noteSize(static_cast<uint64_t>(size));
  return 0;
}

}  // namespace ombra
