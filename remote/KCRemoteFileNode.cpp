#include "remote/KCCredentials.h"
#include "remote/KCNode.h"

namespace ombra {

KCRemoteFileNode::KCRemoteFileNode(std::string path, std::shared_ptr<const KCCredentials> credentials)
    : KCNode(std::move(path)), iCredentials(std::move(credentials)) {
  // The base class could not convert yet. With UTF-8 there is nothing to convert.
  if (iCredentials != nullptr && iCredentials->encoding()) setPath(KCNode::path());
}

std::string KCRemoteFileNode::displayNameForFilename(std::string_view filename) const {
  if (iCredentials == nullptr) return std::string(filename);
  return iCredentials->unicodeStringForRemoteString(filename);
}

uint32_t KCRemoteFileNode::type() const {
  SmallMutexLock lock(iFieldLock);
  return iType;
}

void KCRemoteFileNode::setType(uint32_t type) {
  SmallMutexLock lock(iFieldLock);
  iType = type;
}

void KCRemoteFileNode::locked_setSize(std::optional<uint64_t> size) {
  locked_setFlag(kSize, size.has_value());
  iSize = size.value_or(0);
}

void KCRemoteFileNode::locked_setModificationDate(std::optional<NSDate> date) {
  locked_setFlag(kModificationDate, date.has_value());
  iModificationDate = date.value_or(NSDate());
}

void KCRemoteFileNode::locked_setPermissions(std::optional<uint16_t> mode) {
  locked_setFlag(kPermissions, mode.has_value());
  iPermissions = mode.value_or(0);
}

NSFileAttributes KCRemoteFileNode::attributes() const {
  SmallMutexLock lock(iFieldLock);
  NSFileAttributes attributes;
  if (locked_has(kSize)) attributes.fileSize = iSize;
  if (locked_has(kCreationDate)) attributes.creationDate = iCreationDate;
  if (locked_has(kModificationDate)) attributes.modificationDate = iModificationDate;
  if (locked_has(kPermissions)) attributes.posixPermissions = iPermissions;
  return attributes;
}

void KCRemoteFileNode::setAttributes(const NSFileAttributes& attributes) {
  SmallMutexLock lock(iFieldLock);
  locked_setSize(attributes.fileSize);
  locked_setModificationDate(attributes.modificationDate);
  locked_setPermissions(attributes.posixPermissions);
  locked_setFlag(kCreationDate, attributes.creationDate.has_value());
  iCreationDate = attributes.creationDate.value_or(NSDate());
}

std::optional<uint64_t> KCRemoteFileNode::size() const {
  SmallMutexLock lock(iFieldLock);
  return locked_has(kSize) ? std::optional(iSize) : std::nullopt;
}

void KCRemoteFileNode::setSize(std::optional<uint64_t> size) {
  SmallMutexLock lock(iFieldLock);
  locked_setSize(size);
}

std::optional<NSDate> KCRemoteFileNode::creationDate() const {
  SmallMutexLock lock(iFieldLock);
  return locked_has(kCreationDate) ? std::optional(iCreationDate) : std::nullopt;
}

std::optional<NSDate> KCRemoteFileNode::modificationDate() const {
  SmallMutexLock lock(iFieldLock);
  return locked_has(kModificationDate) ? std::optional(iModificationDate) : std::nullopt;
}

void KCRemoteFileNode::setModificationDate(std::optional<NSDate> date) {
  SmallMutexLock lock(iFieldLock);
  locked_setModificationDate(date);
}

std::optional<FilePermissions> KCRemoteFileNode::permissions() const {
  SmallMutexLock lock(iFieldLock);
  return locked_has(kPermissions) ? std::optional(FilePermissions(iPermissions)) : std::nullopt;
}

void KCRemoteFileNode::setPermissions(std::optional<FilePermissions> permissions) {
  SmallMutexLock lock(iFieldLock);
  locked_setPermissions(permissions ? std::optional(permissions->mode()) : std::nullopt);
}

std::optional<std::string> KCRemoteFileNode::targetPath() const {
  SmallMutexLock lock(iFieldLock);
  const Rare* rare = rareIfAny();
  return rare == nullptr ? std::nullopt : rare->targetPath;
}

void KCRemoteFileNode::setTargetPath(std::optional<std::string> target) {
  SmallMutexLock lock(iFieldLock);
  if (target || rareIfAny() != nullptr) rare().targetPath = std::move(target);
}

std::shared_ptr<KCRemoteFolderNode> KCRemoteFolderNode::folderNodeWithPath(
    std::string path, std::shared_ptr<const KCCredentials> credentials) {
  return std::make_shared<KCRemoteFolderNode>(std::move(path), std::move(credentials));
}

}  // namespace ombra
