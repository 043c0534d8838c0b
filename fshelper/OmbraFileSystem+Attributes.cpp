// Attributes of items, made from their nodes, and of the volume.
#include "fshelper/OFSTracing.h"
#include "fshelper/OmbraFileSystem.h"
#include "fshelper/StAbstractConnection.h"
#include "remote/KCCredentials.h"
#include "remote/QuarnKitError.h"

namespace ombra {

namespace {

constexpr uint16_t kBucketListMode = 0555;
constexpr uint16_t kUnknownMode = 0775;
constexpr uint16_t kOwnerExecute = 0100;
constexpr uint64_t kDefaultVolumeSize = 0x780000000;  // 30 GiB, where the server cannot tell

std::optional<NSFileTypeValue> fileTypeOfNode(const KCRemoteFileNode& node) {
  switch (node.type()) {
    case kNodeTypeAlias:
      return NSFileTypeValue::NSFileTypeSymbolicLink;
    case kNodeTypeFolder:
      return NSFileTypeValue::NSFileTypeDirectory;
    case kNodeTypeFile:
      return NSFileTypeValue::NSFileTypeRegular;
    default:
      return std::nullopt;
  }
}

// The identity of an object as a number.
uint64_t identityOf(const void* pointer) { return reinterpret_cast<uintptr_t>(pointer); }

bool holdsOnlySize(const NSFileAttributes& attributes) {
  return attributes.fileSize.has_value() && attributes.count() < 2;
}

}  // namespace

std::optional<NSFileAttributes> OmbraFileSystem::attributesOfItemAtPath(OptionalPath path, const GMUserData&,
                                                                        NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem attributesOfItemAtPath:userData:error:]", "{}", ofs_describe(path));
  return MacFUSE_1_7_attributesOfItemAtPath(path, error);
}

std::optional<NSFileAttributes> OmbraFileSystem::MacFUSE_1_7_attributesOfItemAtPath(OptionalPath path,
                                                                                    NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem MacFUSE_1_7_attributesOfItemAtPath:error:]", "{}", ofs_describe(path));
  if (!path) {
    OFS_FAIL(error, kEFAULT);
    return std::nullopt;
  }
  const std::shared_ptr<KCRemoteFileNode> node = nodeForPath(*path);
  if (node == nullptr) {
    // Too common to be logged: programs ask for much that is not there.
    storeError(error, ofs_posixError(kENOENT));
    return std::nullopt;
  }
  if (!fileTypeOfNode(*node)) {
    OFS_FAIL(error, kENOENT);
    return std::nullopt;
  }
  return shownAttributesOfNode(*node);
}

NSFileAttributes OmbraFileSystem::shownAttributesOfNode(const KCRemoteFileNode& node) const {
  NSFileAttributes attributes;
  attributes.fileType = fileTypeOfNode(node);
  if (attributes.fileType == NSFileTypeValue::NSFileTypeRegular) attributes.fileSize = node.size();
  attributes.creationDate = node.creationDate();
  attributes.modificationDate = node.modificationDate().value_or(mountDate());
  attributes.posixPermissions = shownModeOfNode(node);
  OFS_TRACE_MESSAGE("mode=0{:o}", *attributes.posixPermissions);
  attributes.systemFileNumber = identityOf(&node);
  return attributes;
}

uint16_t OmbraFileSystem::shownModeOfNode(const KCRemoteFileNode& node) const {
  const std::shared_ptr<const KCCredentials> server = credentials();
  // The list of buckets: nothing can be made or removed there.
  if (server != nullptr && AbstractConnection::isS3(server->protocol()) && node.path() == "/")
    return kBucketListMode;
  const std::optional<FilePermissions> permissions = node.permissions();
  const uint16_t mode = permissions ? permissions->mode() : kUnknownMode;
  const bool isFolder = dynamic_cast<const KCRemoteFolderNode*>(&node) != nullptr;
  // A folder that its owner may not enter would hide what the server would show.
  return isFolder ? static_cast<uint16_t>(mode | kOwnerExecute) : mode;
}

std::optional<NSFileAttributes> OmbraFileSystem::attributesOfFileSystemForPath(OptionalPath path,
                                                                               NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem attributesOfFileSystemForPath:error:]", "{}", ofs_describe(path));
  if (!path) {
    OFS_FAIL(error, kEFAULT);
    return std::nullopt;
  }
  const std::shared_ptr<KCRemoteFolderNode> root = rootNode();
  if (root != nullptr) {
    const auto known = ofs_property<NSFileAttributes>(*root, kOFSFileSystemAttributes);
    if (known) {
      OFS_TRACE_MESSAGE("unchanged");
      return known;
    }
  }
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection connection(pool.get(), this);
  std::optional<NSFileAttributes> attributes =
      connection->fileSystemAttributesAtPath(remotePathForPath("/"), nullptr);
  if (!attributes) {
    OFS_TRACE_MESSAGE("using default");
    attributes.emplace();
    attributes->systemSize = kDefaultVolumeSize;
    attributes->systemFreeSize = kDefaultVolumeSize;
  }
  // A default is kept like an answer, until something changes on the volume.
  if (root != nullptr) root->setUserProperty(*attributes, kOFSFileSystemAttributes);
  return attributes;
}

void OmbraFileSystem::fileSystemAttributesNeedUpdate(bool needUpdate) {
  OFS_TRACE("-[OmbraFileSystem fileSystemAttributesNeedUpdate:]", "{:d}", needUpdate);
  const std::shared_ptr<KCRemoteFolderNode> root = rootNode();
  if (needUpdate && root != nullptr) root->setUserProperty({}, kOFSFileSystemAttributes);
}

bool OmbraFileSystem::MacFUSE_1_7_setAttributes(const NSFileAttributes& attributes, OptionalPath ofItemAtPath,
                                                NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem MacFUSE_1_7_setAttributes:ofItemAtPath:error:]", "{}, attributes={}",
            ofs_describe(ofItemAtPath), attributes.description());
  if (!ofItemAtPath) {
    OFS_FAIL(error, kEINVAL);
    return false;
  }
  return setAttributes(attributes, ofItemAtPath, nullptr, error);
}

bool OmbraFileSystem::setAttributes(const NSFileAttributes& attributes, OptionalPath ofItemAtPath,
                                    const GMUserData& userData, NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem setAttributes:ofItemAtPath:userData:error:]", "{}, attributes={}",
            ofs_describe(ofItemAtPath), attributes.description());
  const std::shared_ptr<KCRemoteFileNode> node = ofItemAtPath ? nodeForPath(*ofItemAtPath) : nullptr;
  if (node == nullptr) {
    OFS_FAIL(error, kENOENT);
    return false;
  }
  const std::string remotePath = remotePathForPath(*ofItemAtPath);
  const bool isSet = node->type() == kNodeTypeFolder
                         ? setFolderPermissions(attributes.posixPermissions, remotePath, error)
                         : setFileAttributes(attributes, node, remotePath, userData, error);
  if (isSet) fileSystemAttributesNeedUpdate(true);
  return isSet;
}

// Of a folder only the mode counts; all else is accepted and ignored, deliberately.
bool OmbraFileSystem::setFolderPermissions(std::optional<uint16_t> permissions, const std::string& remotePath,
                                           NSErrorRef* error) {
  if (!permissions) return true;
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection connection(pool.get(), this);
  if (connection->isWebDAV()) return true;
  NSFileAttributes mode;
  mode.posixPermissions = permissions;
  return changeOnServer(connection, mode, remotePath, error);
}

// True also where the server has no way to make the change.
bool OmbraFileSystem::changeOnServer(StAbstractConnection& connection, const NSFileAttributes& attributes,
                                     const std::string& remotePath, NSErrorRef* error) {
  NSErrorRef underlying;
  if (connection->changeAttributes(attributes, remotePath, &underlying)) return true;
  if (underlying != nullptr && underlying->code() == kQuarnKitAttributeChangeNotSupported) return true;
  OFS_FAIL(error, kEIO, underlying);
  return false;
}

bool OmbraFileSystem::setFileAttributes(const NSFileAttributes& attributes,
                                        const std::shared_ptr<KCRemoteFileNode>& node,
                                        const std::string& remotePath, const GMUserData& userData,
                                        NSErrorRef* error) {
  if (userData != nullptr) {
    auto* file = dynamic_cast<OFSRemoteFile*>(userData.get());
    return file != nullptr && applyToFile(attributes, *file, *node, error);
  }
  // Opened for this and not closed again: the object stays prepared on its node.
  const OFSNodeFilePin pin = pinnedRemoteFileForNode(node, remotePath);
  return pin->openWithMode(kO_RDWR, error) && applyToFile(attributes, *pin.file(), *node, error);
}

bool OmbraFileSystem::applyToFile(const NSFileAttributes& attributes, OFSRemoteFile& file,
                                  KCRemoteFileNode& node, NSErrorRef* error) {
  if (attributes.fileSize && file.isOpen() &&
      !file._truncateToOffset(static_cast<int64_t>(*attributes.fileSize), error)) {
    return false;
  }
  if (!holdsOnlySize(attributes) && !file.setAttributes(attributes, error)) return false;
  ofs_setAttributes(node, file.attributes());
  return true;
}

}  // namespace ombra
