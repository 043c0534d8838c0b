// The first connection: logs in and settles which remote folder is the volume's root.
#include "fshelper/OFSTracing.h"
#include "fshelper/OmbraFileSystem.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSUserDefaults.h"
#include "remote/KCCredentials.h"

namespace ombra {

namespace {

constexpr double kFirstAcquisitionTimeout = 30.0;  // seconds

// The folder that the server put the login in, after a login if there was none yet.
std::optional<std::string> loginPath(AbstractConnection& connection, NSErrorRef* error) {
  std::optional<std::string> path = connection.loginPath();
  if (path) return path;
  NSErrorRef connectError;
  if (connection.connect(&connectError)) return connection.loginPath();
  OFS_TRACE_MESSAGE("connect error {}", connectError == nullptr ? "(null)" : connectError->description());
  storeError(error, connectError);
  return std::nullopt;
}

std::string absoluteInitialPath(const AbstractConnection& connection, std::string path,
                                const std::string& login) {
  // A path of a WebDAV server is always meant from its root.
  if (connection.isWebDAV() && !path.starts_with('/')) path.insert(0, "/");
  if (path.starts_with('/') || path.starts_with('~')) return path;
  std::vector<std::string> components = pathComponents(login);
  for (std::string& component : pathComponents(path)) components.push_back(std::move(component));
  return pathWithComponents(components);
}

// Enters the folder, or the one above it, since the initial path may name a file; why, is kept for those who
// want that folder and no other. Absent when neither can be entered.
std::optional<std::string> enterFolder(AbstractConnection& connection, const std::string& path,
                                       OmbraFileSystem& fileSystem, NSErrorRef* error) {
  NSErrorRef refusal;
  const bool isEntered = connection.changeDir(path, &refusal);
  if (refusal != nullptr) storeError(error, refusal);
  if (!isEntered) {
    if (!connection.changeDir(stringByDeletingLastPathComponent(path), error)) return std::nullopt;
    fileSystem.setStartFolderError(std::move(refusal));
  }
  return connection.pwd(error);
}

void settleRoot(AbstractConnection& connection, KCConnectionPool& pool, OmbraFileSystem& fileSystem,
                NSErrorRef* error) {
  std::optional<std::string> start = loginPath(connection, error);
  if (!start) return;
  const std::shared_ptr<KCCredentials> credentials = pool.credentials();
  const std::optional<std::string> initialPath =
      credentials == nullptr ? std::nullopt : credentials->initialPath();
  const bool mountAtRemoteRoot = NSUserDefaults::standardUserDefaults().boolForKey("MountAtRemoteRoot");
  if (initialPath) {
    start = enterFolder(connection, absoluteInitialPath(connection, *initialPath, *start), fileSystem, error);
    if (!start) return;
  }
  fileSystem.setRootNode(
      KCRemoteFolderNode::folderNodeWithPath(mountAtRemoteRoot ? "/" : *start, credentials));
  fileSystem.setInitialPath(mountAtRemoteRoot ? *start : "/");
}

}  // namespace

std::shared_ptr<AbstractConnection> ofs_acquireConnectionForFileSystem(KCConnectionPool& pool,
                                                                       OmbraFileSystem& fileSystem,
                                                                       NSErrorRef* error) {
  OFS_TRACE("-[KCConnectionPool(OFSAdditions) ofs_acquireConnectionForFileSystem:error:]", "");
  if (fileSystem.isConnected()) return pool.acquireConnection();
  std::shared_ptr<AbstractConnection> connection =
      pool.acquireConnectionWithTimeout(kFirstAcquisitionTimeout, nullptr);
  if (connection != nullptr) {
    connection->setDelegate(&fileSystem);
    settleRoot(*connection, pool, fileSystem, error);
    if (fileSystem.rootNode() != nullptr) fileSystem.setConnected(true);
    if (!fileSystem.isConnected()) pool.releaseConnection(std::move(connection));
  }
  OFS_TRACE_MESSAGE("isConnected={:d}", fileSystem.isConnected());
  return fileSystem.isConnected() ? connection : nullptr;
}

}  // namespace ombra
