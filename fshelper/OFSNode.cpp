#include "fshelper/OFSNode.h"

#include "fshelper/OFSRemoteFile.h"
#include "fshelper/OFSTracing.h"
#include "remote/QuarnKitError.h"

namespace ombra {

std::shared_ptr<OFSNodeSet> ofs_contentsSet(const KCNode& folder) {
  return ofs_property<std::shared_ptr<OFSNodeSet>>(folder, kOFSContents).value_or(nullptr);
}

std::shared_ptr<OFSRemoteFile> ofs_remoteFile(const KCNode& node) {
  return ofs_property<std::shared_ptr<OFSRemoteFile>>(node, kOFSRemoteFile).value_or(nullptr);
}

void ofs_setAttributes(KCRemoteFileNode& node, const std::optional<NSFileAttributes>& attributes) {
  if (!attributes) return;
  node.setSize(attributes->fileSize);
  node.setModificationDate(attributes->modificationDate);
  std::optional<FilePermissions> permissions;
  if (attributes->posixPermissions) permissions = FilePermissions(*attributes->posixPermissions);
  node.setPermissions(permissions);
}

void ofs_touch(KCNode* node) {
  auto* remote = dynamic_cast<KCRemoteFileNode*>(node);
  if (remote != nullptr) remote->setModificationDate(NSDate::date());
}

NSErrorRef ofs_posixError(InterfaceErrno code, const NSErrorRef& underlying) {
  NSDictionary userInfo;
  if (underlying != nullptr) userInfo.setObject(underlying, NSUnderlyingErrorKey);
  return QuarnKitError::errorWithDomain(NSPOSIXErrorDomain, code, std::move(userInfo));
}

void ofs_fail(const char* file, int line, NSErrorRef* slot, InterfaceErrno code,
              const NSErrorRef& underlying) {
  NSErrorRef error = ofs_posixError(code, underlying);
  ofs_reportError(file, line, error);
  storeError(slot, std::move(error));
}

}  // namespace ombra
