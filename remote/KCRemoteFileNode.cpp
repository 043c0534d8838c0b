#include "platform/foundation/KCStringAdditions.h"
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
  MutexLock lock(iFieldLock);
  return iType;
}

void KCRemoteFileNode::setType(uint32_t type) {
  MutexLock lock(iFieldLock);
  iType = type;
}

NSFileAttributes KCRemoteFileNode::attributes() const {
  MutexLock lock(iFieldLock);
  NSFileAttributes attributes;
  attributes.fileSize = iSize;
  attributes.creationDate = iCreationDate;
  attributes.modificationDate = iModificationDate;
  if (iPermissions) attributes.posixPermissions = iPermissions->mode();
  return attributes;
}

void KCRemoteFileNode::setAttributes(const NSFileAttributes& attributes) {
  MutexLock lock(iFieldLock);
  iSize = attributes.fileSize;
  iCreationDate = attributes.creationDate;
  iModificationDate = attributes.modificationDate;
  iPermissions.reset();
  if (attributes.posixPermissions) iPermissions = FilePermissions(*attributes.posixPermissions);
}

std::optional<uint64_t> KCRemoteFileNode::size() const {
  MutexLock lock(iFieldLock);
  return iSize;
}

void KCRemoteFileNode::setSize(std::optional<uint64_t> size) {
  MutexLock lock(iFieldLock);
  iSize = size;
}

std::optional<NSDate> KCRemoteFileNode::creationDate() const {
  MutexLock lock(iFieldLock);
  return iCreationDate;
}

std::optional<NSDate> KCRemoteFileNode::modificationDate() const {
  MutexLock lock(iFieldLock);
  return iModificationDate;
}

void KCRemoteFileNode::setModificationDate(std::optional<NSDate> date) {
  MutexLock lock(iFieldLock);
  iModificationDate = date;
}

std::optional<FilePermissions> KCRemoteFileNode::permissions() const {
  MutexLock lock(iFieldLock);
  return iPermissions;
}

void KCRemoteFileNode::setPermissions(std::optional<FilePermissions> permissions) {
  MutexLock lock(iFieldLock);
  iPermissions = permissions;
}

std::optional<std::string> KCRemoteFileNode::targetPath() const {
  MutexLock lock(iFieldLock);
  if (iTargetPath == nullptr) return std::nullopt;
  return *iTargetPath;
}

void KCRemoteFileNode::setTargetPath(std::optional<std::string> target) {
  MutexLock lock(iFieldLock);
  iTargetPath = target ? std::make_unique<std::string>(std::move(*target)) : nullptr;
}

std::shared_ptr<KCRemoteFolderNode> KCRemoteFolderNode::folderNodeWithPath(
    std::string path, std::shared_ptr<const KCCredentials> credentials) {
  return std::make_shared<KCRemoteFolderNode>(std::move(path), std::move(credentials));
}

}  // namespace ombra
