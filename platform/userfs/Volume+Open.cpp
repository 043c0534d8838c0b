// The life of an open file: open, create, flush, synchronise, release.
#include <fcntl.h>

#include <utility>

#include "platform/foundation/NSLog.h"
#include "platform/foundation/ProcessEnd.h"
#include "platform/userfs/NumberTranslation.h"
#include "platform/userfs/ProcessOfThread.h"
#include "platform/userfs/RequestContext.h"
#include "platform/userfs/Volume.h"

namespace ombra {

namespace {

FileAccess accessOf(int flags) {
  switch (flags & O_ACCMODE) {
    case O_RDONLY:
      return FileAccess::kReads;
    case O_WRONLY:
      return FileAccess::kWrites;
    default:
      return FileAccess::kBoth;
  }
}

}  // namespace

// A creating open empties the file on the server. What is there already is never opened so: somebody else may
// have made and filled it since the kernel looked.
int Volume::openFile(const std::string& path, int flags, GMUserData* userData) {
  GMUserFileSystemDurability* durability = this->durability();
  const int delegateFlags = interfaceOpenFlags(flags & ~(O_CREAT | O_EXCL));
  const bool isOpen = iHandles.itemAtPath(path) != nullptr;
  GMUserData prepared;
  if (durability != nullptr) {
    durability->forgetFailedContentAtPath(path);
    prepared = durability->openFileAtPathIfAny(path);
  }
  NSErrorRef error;
  if (!delegate().openFileAtPath(path, delegateFlags, userData, &error)) return failure(error);
  // What was prepared may have been dropped from the cache in between; this is then another, fresh object.
  const bool isPrepared = durability != nullptr ? prepared != nullptr && prepared == *userData : isOpen;
  if (durability != nullptr && !isPrepared) durability->seedCacheAttributesAtPath(path, *userData);
  if ((flags & O_TRUNC) == 0) return 0;
  const int result = truncateOpened(path, *userData, isPrepared);
  if (result != 0) giveBack(path, std::exchange(*userData, nullptr));
  return result;
}

// A file that was prepared already has not looked at the flags. One that was not is empty now, but its node
// may not know; truncating it once more is what tells it.
int Volume::truncateOpened(const std::string& path, const GMUserData& userData, bool isPrepared) {
  const auto attributes = isPrepared ? std::nullopt : attributesAtPath(path);
  if (attributes && attributes->fileSize.value_or(0) == 0) return 0;
  return truncateFile(path, userData, 0);
}

// The delegate has opened the file, but the kernel gets no handle that it would release.
void Volume::giveBack(const std::string& path, const GMUserData& userData) {
  try {
    delegate().releaseFileAtPath(path, userData);
  } catch (const std::exception& exception) {
    NSLog("\"{}\" was closed with a failure: {}", path, exception.what());
  }
}

std::shared_ptr<OpenHandle> Volume::addHandle(const std::string& path, const GMUserData& userData, int flags,
                                              pid_t process, uint64_t node) {
  const FileAccess access = accessOf(flags);
  // Only the close of a written file asks who opened it.
  const bool writes = access != FileAccess::kReads;
  const pid_t opener = writes && process != 0 ? processOfThread(process) : 0;
  auto handle = iHandles.add(path, userData, access, opener, node);
  if ((flags & O_TRUNC) != 0 && writes) handle->noteChange();
  if (node == 0) RequestContext::current().created = handle;
  return handle;
}

int Volume::open(const char* path, int flags, pid_t process, OpenedFile* opened) {
  const std::string listed = listedPath(path);
  GMUserData userData;
  {
    if (const int result = takePrivileges(listed, iHandles.itemAtPath(listed)); result != 0) return result;
    const OpenGate::Pass turn(iOpenGate, listed);
    if (const int result = openFile(listed, flags, &userData); result != 0) return result;
  }
  const auto handle = addHandle(listed, userData, flags, process, RequestContext::current().nodeIDOfFile());
  opened->handle = handle->identifier;
  opened->keepsPages = iHandles.isContentOfLastOpen(listed, userData);
  opened->bypassesPages = handle->bypassesPages;
  opened->onlyReads = !handle->forWriting;
  return 0;
}

int Volume::create(const char* path, mode_t mode, int flags, pid_t process, OpenedFile* opened) {
  const std::string listed = listedPath(path);
  if (const int refusal = refusalToCreate(listed); refusal != 0) return refusal;
  const OpenGate::Pass turn(iOpenGate, listed);
  GMUserData userData;
  bool isInDoubt = false;
  if (attributesAtPath(listed)) {
    // Somebody else made it since the kernel looked; the delegate's creation would empty it.
    if ((flags & O_EXCL) != 0) return -EEXIST;
    if (const int result = openFile(listed, flags, &userData); result != 0) return result;
  } else {
    NSFileAttributes attributes;
    attributes.posixPermissions = static_cast<uint16_t>(mode & 07777);
    NSErrorRef error;
    if (!delegate().createFileAtPath(listed, attributes, &userData, &error)) return failure(error);
    isInDoubt = durability() != nullptr && durability()->isCreationInDoubt(userData);
  }
  // A new file is stored when it is closed, also by those who only read.
  const int access = (flags & O_ACCMODE) == O_RDONLY ? O_RDWR : 0;
  const auto handle = addHandle(listed, userData, flags | access, process, 0);
  if (isInDoubt) handle->noteChange();
  opened->handle = handle->identifier;
  opened->bypassesPages = handle->bypassesPages;
  iHandles.isContentOfLastOpen(listed, userData);
  iFolders.noteEntry(listed, RequestContext::current().nodeID);
  if (!RequestContext::current().isMakingNode()) return 0;
  // No close follows that would tell.
  const int result = flush(opened->handle, 0);
  if (result == 0) return 0;
  RequestContext::current().created = nullptr;
  release(opened->handle);
  return result;
}

int Volume::makeNode(const char* path, mode_t mode) {
  if (!S_ISREG(mode)) return -EPERM;
  OpenedFile opened;
  if (const int result = create(path, mode, O_CREAT | O_EXCL | O_WRONLY, 0, &opened); result != 0)
    return result;
  RequestContext::current().created = nullptr;
  release(opened.handle);
  return 0;
}

int Volume::synchronizeItem(const OpenItem& item) {
  GMUserFileSystemDurability* durability = this->durability();
  const auto path = item.path();
  if (durability == nullptr || !path) return 0;
  NSErrorRef error;
  return durability->synchronizeFileAtPath(*path, item.userData(), &error) ? 0 : failure(error);
}

// close(2) of a descriptor. The process that opened, and each that wrote, is told whether the bytes are
// stored. A child that inherited the descriptor and only closes its copy has nothing to wait for.
int Volume::flush(uint64_t identifier, pid_t process) {
  const auto handle = iHandles.handle(identifier);
  if (handle == nullptr) return -EBADF;
  if (!handle->hasUnstored()) return 0;
  const bool isOther = handle->opener != 0 && process != 0 && !isThreadOf(process, handle->opener) &&
                       !handle->writers.includes(process);
  // Where the opener is gone there is nobody else to tell.
  if (isOther && !processHasEnded(handle->opener)) return 0;
  return synchronizeHandle(*handle);
}

// A close that comes meanwhile finds the changes still unstored, and waits as well.
int Volume::synchronizeHandle(OpenHandle& handle) {
  const uint64_t changes = handle.changes;
  const int result = synchronizeItem(*handle.item);
  if (result == 0) handle.stored = changes;
  return result;
}

int Volume::synchronize(uint64_t identifier) {
  const auto handle = iHandles.handle(identifier);
  if (handle == nullptr) return -EBADF;
  if (const int result = synchronizeHandle(*handle); result != 0) return result;
  const auto path = handle->item->path();
  GMUserFileSystemDurability* durability = this->durability();
  if (durability == nullptr || !path) return 0;
  NSErrorRef error;
  return durability->flushFileAtPath(*path, handle->item->userData(), &error) ? 0 : failure(error);
}

void Volume::release(uint64_t identifier) {
  auto handle = iHandles.remove(identifier);
  if (handle == nullptr) return;
  // To hand it to another thread is a tenth of what reading a small file costs.
  if (releasesAtOnce(*handle)) {
    releaseNow(std::move(handle));
  } else {
    releaseLater(std::move(handle));
  }
}

void Volume::releaseAll() {
  for (auto& handle : iHandles.removeAll()) releaseLater(std::move(handle));
}

bool Volume::releasesAtOnce(const OpenHandle& handle) const {
  // Who writes through another handle keeps others from the file meanwhile.
  if (handle.forWriting || handle.item->isOpen()) return false;
  GMUserFileSystemDurability* durability = this->durability();
  return durability != nullptr && durability->releasesAtOnce(handle.item->userData());
}

void Volume::releaseLater(std::shared_ptr<OpenHandle> handle) {
  iClosers.add([volume = shared_from_this(), handle = std::move(handle)]() mutable {
    volume->releaseNow(std::move(handle));
  });
}

void Volume::releaseNow(std::shared_ptr<OpenHandle> handle) {
  try {
    close(handle);
  } catch (const std::exception& exception) {
    NSLog("\"{}\" was closed with a failure: {}", handle->item->path().value_or("a removed file"),
          exception.what());
  }
  // The delegate counts who holds an open file, so our share goes before it looks.
  handle = nullptr;
  if (GMUserFileSystemDurability* durability = this->durability()) durability->trimCache();
}

void Volume::close(const std::shared_ptr<OpenHandle>& handle) {
  const OpenItem& item = *handle->item;
  if (handle->forWriting && synchronizeItem(item) != 0) {
    NSLog("\"{}\" could not be stored when it was closed.", item.path().value_or("a removed file"));
  }
  delegate().releaseFileAtPath(optionalPath(item.path()), item.userData());
}

}  // namespace ombra
