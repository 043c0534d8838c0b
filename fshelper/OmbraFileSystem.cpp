// The object itself: its properties, the check before mounting, and the preparation of the mount.
#include "fshelper/OmbraFileSystem.h"

#include "fshelper/OFSTracing.h"
#include "platform/foundation/KCStringAdditions.h"
#include "remote/KCCredentials.h"
#include "remote/QuarnKitError.h"

namespace ombra {

OmbraFileSystem::OmbraFileSystem() : iMountDate(NSDate::date()) { OFS_TRACE("-[OmbraFileSystem init]", ""); }

OmbraFileSystem::~OmbraFileSystem() {
  OFS_TRACE("-[OmbraFileSystem dealloc]", "");
  // The pool's sessions may have a last word to write: they go before the stream does.
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  if (pool != nullptr) pool->setTranscriptDelegate(nullptr);
  iTranscriptLog.store(nullptr);
  for (std::FILE* log : iTranscriptLogs) std::fclose(log);
}

std::shared_ptr<KCConnectionPool> OmbraFileSystem::connectionPool() const {
  MutexLock lock(iPropertyLock);
  return iConnectionPool;
}

void OmbraFileSystem::setConnectionPool(std::shared_ptr<KCConnectionPool> pool) {
  OFS_TRACE("-[OmbraFileSystem setConnectionPool:]", "{}", fmt::ptr(pool.get()));
  if (pool != nullptr) pool->setTranscriptDelegate(this);
  MutexLock lock(iPropertyLock);
  iConnectionPool.swap(pool);
}

OmbraFileSystem::PoolMaker OmbraFileSystem::poolMaker() const {
  MutexLock lock(iPropertyLock);
  return iPoolMaker;
}

void OmbraFileSystem::setPoolMaker(PoolMaker maker) {
  MutexLock lock(iPropertyLock);
  iPoolMaker = std::move(maker);
}

NSErrorRef OmbraFileSystem::mountError() const {
  MutexLock lock(iPropertyLock);
  return iMountError;
}

NSErrorRef OmbraFileSystem::startFolderError() const {
  MutexLock lock(iPropertyLock);
  return iStartFolderError;
}

void OmbraFileSystem::setStartFolderError(NSErrorRef error) {
  MutexLock lock(iPropertyLock);
  iStartFolderError = std::move(error);
}

std::string OmbraFileSystem::initialPath() const {
  MutexLock lock(iPropertyLock);
  return iInitialPath;
}

void OmbraFileSystem::setInitialPath(std::string path) {
  MutexLock lock(iPropertyLock);
  iInitialPath = std::move(path);
}

std::shared_ptr<KCRemoteFolderNode> OmbraFileSystem::rootNode() const {
  MutexLock lock(iPropertyLock);
  return iRootNode;
}

void OmbraFileSystem::setRootNode(std::shared_ptr<KCRemoteFolderNode> node) {
  MutexLock lock(iPropertyLock);
  iRootNode.swap(node);
}

std::string OmbraFileSystem::rootPath() const {
  const std::shared_ptr<KCRemoteFolderNode> root = rootNode();
  return root == nullptr ? "/" : root->path();
}

std::shared_ptr<const KCCredentials> OmbraFileSystem::credentials() const {
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  return pool == nullptr ? nullptr : pool->credentials();
}

bool OmbraFileSystem::preflight(NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem preflight:]", "");
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  if (pool == nullptr) return false;
  std::shared_ptr<AbstractConnection> connection = ofs_acquireConnectionForFileSystem(*pool, *this, error);
  if (connection == nullptr) return false;
  pool->releaseConnection(std::move(connection));
  return true;
}

// Where the start folder can be reached but the folders above it may not be listed, the root moves down
// towards it, to the first folder that can be listed.
void OmbraFileSystem::willMount() {
  OFS_TRACE("-[OmbraFileSystem willMount]", "");
  NSErrorRef error;
  bool isListed = contentsOfDirectoryAtPath("/", &error).has_value();
  while (!isListed) {
    const NSErrorRef underlying = error == nullptr ? nullptr : error->underlyingError();
    if (!QuarnKitError::isCode(underlying, kQuarnKitListingNotPermitted)) break;
    std::vector<std::string> components = pathComponents(initialPath());
    OFS_CONDITION(!components.empty() && components.front() == "/",
                  "initial path is expected to be absolute");
    if (components.size() < 2) break;
    OFS_TRACE_MESSAGE("rootPath={}, initialPath={}", rootPath(), initialPath());
    setRootNode(KCRemoteFolderNode::folderNodeWithPath(
        stringByAppendingPathComponent(rootPath(), components[1]), credentials()));
    components.erase(components.begin() + 1);
    components.front() = "/";
    setInitialPath(pathWithComponents(components));
    isListed = contentsOfDirectoryAtPath("/", &error).has_value();
  }
  if (isListed) OFS_TRACE_MESSAGE("rootPath={}, initialPath={}", rootPath(), initialPath());
  const NSErrorRef refusal = isListed || error == nullptr ? nullptr : error->underlyingError();
  if (QuarnKitError::isCode(refusal, kQuarnKitListingNotPermitted) && startFolderError() == nullptr)
    setStartFolderError(refusal);
  // Also the error of a listing that failed before another one succeeded: intended.
  MutexLock lock(iPropertyLock);
  iMountError = std::move(error);
}

// Whether a server may be trusted was decided before this process was started.
bool OmbraFileSystem::connection(AbstractConnection&, const TrustQuestion&) {
  OFS_TRACE("-[OmbraFileSystem connection:isWorthyTrust:]", "");
  return true;
}

}  // namespace ombra
