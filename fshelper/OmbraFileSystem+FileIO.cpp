// The bytes of files: each request goes to the item's open-file object.
#include "fshelper/OFSTracing.h"
#include "fshelper/OmbraFileSystem.h"

namespace ombra {

namespace {

OFSRemoteFile* openedFile(const GMUserData& userData) { return dynamic_cast<OFSRemoteFile*>(userData.get()); }

}  // namespace

bool OmbraFileSystem::openFileAtPath(OptionalPath path, int mode, GMUserData* userData, NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem openFileAtPath:mode:userData:error:]", "{}", ofs_describe(path));
  if (!path) {
    OFS_FAIL(error, kEINVAL);
    return false;
  }
  const std::shared_ptr<KCRemoteFileNode> node = nodeForPath(*path);
  if (node == nullptr) {
    OFS_FAIL(error, kENOENT);
    return false;
  }
  const std::string remotePath = remotePathForPath(*path);
  OFSNodeFilePin pin = pinnedRemoteFileForNode(node, remotePath);
  if ((mode & (kO_WRONLY | kO_RDWR | kO_TRUNC)) != 0) supersedeLeftBehind(remotePath, pin.file().get());
  if (!pin->openWithMode(static_cast<uint16_t>(mode), error)) return false;
  if ((mode & kO_TRUNC) != 0) dropRefusedAtPath(remotePath);
  if (userData != nullptr) *userData = pin.keep();
  return true;
}

int OmbraFileSystem::readFileAtPath(OptionalPath path, const GMUserData& userData, void* buffer, size_t size,
                                    int64_t offset, NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem readFileAtPath:userData:buffer:size:offset:error:]", "{}", ofs_describe(path));
  OFSRemoteFile* file = openedFile(userData);
  return file == nullptr ? 0 : file->_readToBuffer(buffer, size, offset, error);
}

int OmbraFileSystem::writeFileAtPath(OptionalPath path, const GMUserData& userData, const void* buffer,
                                     size_t size, int64_t offset, NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem writeFileAtPath:userData:buffer:size:offset:error:]", "{}",
            ofs_describe(path));
  OFSRemoteFile* file = openedFile(userData);
  if (file == nullptr) return 0;
  const std::string remotePath = file->remotePath();
  const int written = file->_writeFromBuffer(buffer, size, offset, error);
  if (written > 0) {
    // The write may have waited for a move.
    const std::string now = file->remotePath();
    const std::string moved = now == remotePath ? std::string() : pathForRemotePath(now);
    updateNode(path && !moved.empty() ? OptionalPath(moved) : path, *file);
    fileSystemAttributesNeedUpdate(true);
  }
  return written;
}

// Size, date and mode of a file that changed here, for the attribute requests that follow.
void OmbraFileSystem::updateNode(OptionalPath path, OFSRemoteFile& file) {
  const std::shared_ptr<KCRemoteFileNode> node = path ? nodeForPath(*path) : nullptr;
  if (node != nullptr) ofs_setAttributes(*node, file.attributes());
}

// A truncation that fails still answers success, and one that opens the file leaves it open: both deliberate.
bool OmbraFileSystem::truncateFileAtPath(OptionalPath path, const GMUserData& userData, int64_t offset,
                                         NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem truncateFileAtPath:userData:offset:error:]", "{}", ofs_describe(path));
  const std::shared_ptr<KCRemoteFileNode> node = path ? nodeForPath(*path) : nullptr;
  if (node == nullptr) {
    OFS_FAIL(error, kENOENT);
    return false;
  }
  OFSRemoteFile* handle = openedFile(userData);
  if (handle != nullptr) {
    if (handle->_truncateToOffset(offset, error)) updateNode(path, *handle);
    return true;
  }
  const OFSNodeFilePin pin = pinnedRemoteFileForNode(node, remotePathForPath(*path));
  if (!pin->openWithMode(kO_RDWR, error)) return false;
  if (pin->_truncateToOffset(offset, error)) updateNode(path, *pin.file());
  return true;
}

void OmbraFileSystem::releaseFileAtPath(OptionalPath path, const GMUserData& userData) {
  OFS_TRACE("-[OmbraFileSystem releaseFileAtPath:userData:]", "{}", ofs_describe(path));
  const std::shared_ptr<OFSRemoteFile> file = std::dynamic_pointer_cast<OFSRemoteFile>(userData);
  if (file == nullptr) return;
  {
    // Ended also when the last upload raises; what it raises leaves this operation.
    struct EndOfUse {
      OFSNodeFileTable& table;
      OFSRemoteFile& file;
      ~EndOfUse() { table.endUse(file); }
    } endOfUse{iFiles, *file};
    file->close();
  }
  setRefusedAside(file);
}

}  // namespace ombra
