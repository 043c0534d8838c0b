#include "remote/AbstractConnection.h"

#include <utility>

#include "remote/KCTypes.h"

namespace ombra {

bool AbstractConnection::contentsAtPath(std::string_view path, uint64_t /*known*/, FolderContents* contents,
                                        NSErrorRef* error) {
  *contents = {};
  return contentsAtPath(path, &contents->nodes, error);
}

bool AbstractConnection::finishUploads(NSFileHandle& fileHandle, std::string_view /*toPath*/,
                                       NSErrorRef* error) {
  fileHandle.extents()->waitUntilSent();
  NSErrorRef failure = fileHandle.extents()->takeFailure();
  if (failure == nullptr) return true;
  storeError(error, std::move(failure));
  return false;
}

bool AbstractConnection::isS3(uint32_t protocol) { return protocol == kProtocolS3; }

}  // namespace ombra
