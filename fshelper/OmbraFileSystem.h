// The file system: answers the framework's requests from a tree of remote nodes and by asking the server.
#pragma once

#include <atomic>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fshelper/OFSRemoteFile.h"
#include "platform/userfs/GMUserFileSystemDelegate.h"
#include "remote/AbstractConnection.h"
#include "remote/KCConnectionPool.h"
#include "remote/KCNode.h"

namespace ombra {

// What the file system asks its controller.
class OFSMountPathSource {
 public:
  virtual ~OFSMountPathSource() = default;
  // Where the volume is mounted; absent until it is.
  virtual std::optional<std::string> mountPath() const = 0;
};

class OmbraFileSystem : public GMUserFileSystemDelegate,
                              public GMUserFileSystemDurability,
                              public ConnectionDelegate,
                              public TranscriptDelegate {
 public:
  OmbraFileSystem();
  ~OmbraFileSystem() override;

  OFSMountPathSource* controller() const;
  void setController(OFSMountPathSource* controller);
  std::shared_ptr<KCConnectionPool> connectionPool() const;
  void setConnectionPool(std::shared_ptr<KCConnectionPool> pool);
  NSErrorRef mountError() const;
  NSDate mountDate() const;
  double refreshInterval() const;
  void setRefreshInterval(double seconds);
  std::string initialPath() const;
  void setInitialPath(std::string path);
  bool isConnected() const;
  std::shared_ptr<KCRemoteFolderNode> rootNode() const;
  void setRootNode(std::shared_ptr<KCRemoteFolderNode> node);
  // Receives word of changes that the kernel has to be told; not owned, may be null.
  void setInvalidation(GMUserFileSystemInvalidation* invalidation);

  bool preflight(NSErrorRef* error);
  // Opens the transcript; null when it cannot be.
  std::FILE* openTranscriptLogAtPath(const std::string& path);

  std::shared_ptr<KCNode> nodeForPath(std::string_view path);
  std::string pathForRemotePath(std::string_view remotePath) const;
  std::string remotePathForPath(std::string_view path) const;
  std::string remotePathForFullPath(std::string_view fullPath) const;
};

}  // namespace ombra
