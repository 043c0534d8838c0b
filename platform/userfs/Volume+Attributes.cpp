// Attributes of items and of the volume.
#include <sys/types.h>

#include <algorithm>
#include <functional>

#include "platform/userfs/RequestContext.h"
#include "platform/userfs/Volume.h"

namespace ombra {

namespace {

constexpr uint64_t kBlockSize = 4096;
// What programs are advised to read and write at a time: cp takes a piece of this size where it would take
// 128 KiB otherwise, and each piece is a request that it waits for.
constexpr blksize_t kGoodPiece = 512 * 1024;
constexpr mode_t kPermissionBits = 07777;

mode_t typeBits(NSFileTypeValue type) {
  switch (type) {
    case NSFileTypeValue::NSFileTypeDirectory:
      return S_IFDIR;
    case NSFileTypeValue::NSFileTypeSymbolicLink:
      return S_IFLNK;
    case NSFileTypeValue::NSFileTypeRegular:
      break;
  }
  return S_IFREG;
}

// A number for items that the delegate has none for: readers of folders skip entries with the number 0.
uint64_t substituteNumber(std::string_view path) { return std::hash<std::string_view>()(path) | 1; }

}  // namespace

void Volume::fill(struct stat* target, const NSFileAttributes& attributes, std::string_view path) const {
  *target = {};
  const NSFileTypeValue type = attributes.fileType.value_or(NSFileTypeValue::NSFileTypeRegular);
  const mode_t permissions =
      attributes.posixPermissions.value_or(type == NSFileTypeValue::NSFileTypeRegular ? 0644 : 0755);
  target->st_mode = typeBits(type) | (permissions & kPermissionBits);
  target->st_nlink = 1;
  target->st_ino = attributes.systemFileNumber.value_or(0);
  if (target->st_ino == 0) target->st_ino = substituteNumber(path);
  target->st_uid = attributes.ownerAccountID.value_or(iUser);
  target->st_gid = attributes.groupOwnerAccountID.value_or(iGroup);
  target->st_size = type == NSFileTypeValue::NSFileTypeSymbolicLink
                        ? lengthOfLink(path)
                        : static_cast<off_t>(attributes.fileSize.value_or(0));
  target->st_blocks = (target->st_size + 511) / 512;
  target->st_blksize = type == NSFileTypeValue::NSFileTypeRegular ? kGoodPiece : kBlockSize;
  target->st_mtim = kc_timespec(attributes.modificationDate.value_or(NSDate()));
  target->st_ctim = target->st_mtim;
  target->st_atim = target->st_mtim;
}

// Its item is gone, so the cache copy tells. Not its size while content is arriving, or when the download has
// failed: readers would take what has arrived for the whole file.
NSFileAttributes Volume::attributesOfRemoved(const OpenItem& item) const {
  NSFileAttributes attributes = item.lastAttributes();
  GMUserFileSystemDurability* durability = this->durability();
  if (durability == nullptr) return attributes;
  // Asked first: a copy that is complete now is so for good.
  const bool isComplete = durability->contentStateOfFile(item.userData()) == GMContentState::kComplete;
  const auto current = durability->attributesOfAbandonedFile(item.userData());
  if (!current) return attributes;
  if (current->fileSize) {
    const uint64_t known = isComplete ? 0 : attributes.fileSize.value_or(0);
    attributes.fileSize = std::max(*current->fileSize, known);
  }
  if (current->modificationDate) attributes.modificationDate = current->modificationDate;
  return attributes;
}

int Volume::fillRemoved(struct stat* target, const OpenItem& item) const {
  fill(target, attributesOfRemoved(item), "");
  target->st_nlink = 0;
  return 0;
}

int Volume::attributes(const char* path, uint64_t handle, struct stat* attributes) {
  const auto open = handle != 0 ? iHandles.handle(handle) : nullptr;
  if (path == nullptr && open == nullptr) return -EBADF;
  GMUserData userData;
  std::optional<std::string> listed;
  if (open != nullptr) {
    listed = open->item->path();
    if (!listed) return fillRemoved(attributes, *open->item);
    userData = open->item->userData();
  } else {
    listed = listedPath(path);
  }
  NSErrorRef error;
  const auto found = delegate().attributesOfItemAtPath(*listed, userData, &error);
  if (!found) {
    const int reason = failure(error);
    // Somebody else has removed the item. Its handle goes on, as it would on any disk.
    return open != nullptr && reason == -ENOENT ? fillRemoved(attributes, *open->item) : reason;
  }
  if (open != nullptr) open->item->noteSeen(*found);
  fill(attributes, *found, *listed);
  const RequestContext& request = RequestContext::current();
  if (request.isLookup() && path != nullptr) iFolders.noteEntry(path, request.nodeID);
  return 0;
}

// What the delegate does with the attributes of an open file goes through its open-file object. For one that
// nobody has open, that would fetch the whole content first.
int Volume::changeItem(const std::string& path, const std::shared_ptr<OpenItem>& item,
                       const NSFileAttributes& attributes) {
  if (item != nullptr && attributes.posixPermissions) item->setMayHavePrivileges(true);
  const auto present = attributesAtPath(path);
  const auto type = present ? present->fileType : std::nullopt;
  // A link's own mode and dates are kept nowhere; programs that copy trees set them all the same.
  if (type == NSFileTypeValue::NSFileTypeSymbolicLink) return 0;
  NSErrorRef error;
  GMUserFileSystemDurability* durability = this->durability();
  if (durability != nullptr && item == nullptr && type.has_value()) {
    return durability->changeAttributesWithoutContent(attributes, path, &error) ? 0 : failure(error);
  }
  const GMUserData userData = item != nullptr ? item->userData() : nullptr;
  if (userData != nullptr || type == NSFileTypeValue::NSFileTypeDirectory) {
    if (!delegate().setAttributes(attributes, path, userData, &error)) return failure(error);
    return item != nullptr && attributes.modificationDate ? storeDate(*item, *attributes.modificationDate)
                                                          : 0;
  }
  // The delegate opens the file for this, so this is an open and waits for its turn.
  const OpenGate::Pass turn(iOpenGate, path);
  if (durability != nullptr) durability->forgetFailedContentAtPath(path);
  return delegate().setAttributes(attributes, path, nullptr, &error) ? 0 : failure(error);
}

// Of an open file the delegate changes the date on this side only. It goes to the server after what was
// written so far, which would change it there; a later write brings a date of its own.
int Volume::storeDate(const OpenItem& item, NSDate date) {
  GMUserFileSystemDurability* durability = this->durability();
  if (durability == nullptr) return 0;
  if (const int result = synchronizeItem(item); result != 0) return result;
  const auto path = item.path();
  if (!path) return 0;
  NSFileAttributes attributes;
  attributes.modificationDate = date;
  NSErrorRef error;
  return durability->changeAttributesWithoutContent(attributes, *path, &error) ? 0 : failure(error);
}

int Volume::takePrivileges(const std::string& path, const std::shared_ptr<OpenItem>& item) {
  if (!RequestContext::current().takesPrivileges || (item != nullptr && !item->mayHavePrivileges())) return 0;
  const auto present = attributesAtPath(path);
  const mode_t mode = present ? present->posixPermissions.value_or(0) : 0;
  // Without execution for the group the second bit is no privilege but asks for mandatory locks.
  const bool isForGroup = (mode & S_ISGID) != 0 && (mode & S_IXGRP) != 0;
  const mode_t taken = (mode & S_ISUID) | (isForGroup ? S_ISGID : 0);
  if (taken != 0) {
    NSFileAttributes attributes;
    attributes.posixPermissions = static_cast<uint16_t>(mode & ~taken & kPermissionBits);
    if (const int result = changeItem(path, item, attributes); result != 0) return result;
  }
  if (item != nullptr) item->setMayHavePrivileges(false);
  return 0;
}

int Volume::change(const char* path, uint64_t handle, const NSFileAttributes& attributes) {
  if (handle != 0) {
    const auto open = iHandles.handle(handle);
    if (open == nullptr) return -EBADF;
    const auto current = open->item->path();
    if (current) return changeItem(*current, open->item, attributes);
    open->item->noteAttributes(attributes);
    return 0;
  }
  if (path == nullptr) return -EBADF;
  const std::string listed = listedPath(path);
  return changeItem(listed, iHandles.itemAtPath(listed), attributes);
}

int Volume::changeMode(const char* path, uint64_t handle, mode_t mode) {
  NSFileAttributes attributes;
  attributes.posixPermissions = static_cast<uint16_t>(mode & kPermissionBits);
  return change(path, handle, attributes);
}

int Volume::changeTimes(const char* path, uint64_t handle, const timespec times[2]) {
  // Access times are kept nowhere.
  if (times[1].tv_nsec == UTIME_OMIT) return 0;
  NSFileAttributes attributes;
  attributes.modificationDate =
      times[1].tv_nsec == UTIME_NOW ? NSDate::date() : kc_dateWithTimespec(times[1]);
  return change(path, handle, attributes);
}

// Everything belongs to who mounted. Asking for that is granted, asking for another owner is refused: a copy
// that says it kept the owner must have kept it.
int Volume::changeOwner(const char* path, uint64_t handle, uid_t user, gid_t group) {
  struct stat present {};
  if (const int result = attributes(path, handle, &present); result != 0) return result;
  const bool keepsUser = user == static_cast<uid_t>(-1) || user == present.st_uid;
  const bool keepsGroup = group == static_cast<gid_t>(-1) || group == present.st_gid;
  if (!keepsUser || !keepsGroup) return -EPERM;
  const auto open = iHandles.handle(handle);
  const auto named = open != nullptr ? open->item->path() : std::optional<std::string>(listedPath(path));
  return named && S_ISREG(present.st_mode) ? takePrivileges(*named, iHandles.itemAtPath(*named)) : 0;
}

int Volume::volumeAttributes(const char* path, struct statvfs* attributes) {
  NSErrorRef error;
  const auto found = delegate().attributesOfFileSystemForPath(listedPath(path), &error);
  if (!found) return failure(error);
  *attributes = {};
  attributes->f_bsize = kBlockSize;
  attributes->f_frsize = kBlockSize;
  attributes->f_blocks = found->systemSize.value_or(0) / kBlockSize;
  attributes->f_bfree = found->systemFreeSize.value_or(0) / kBlockSize;
  attributes->f_bavail = attributes->f_bfree;
  // Servers tell no number of files; some installers refuse a volume that claims to have none left.
  attributes->f_files = uint64_t{1} << 30;
  attributes->f_ffree = attributes->f_files;
  attributes->f_favail = attributes->f_files;
  attributes->f_namemax = 255;
  return 0;
}

}  // namespace ombra
