// The file system: answers the framework's requests from a tree of remote nodes and by asking the server.
#pragma once

#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fshelper/OFSComparisonNode.h"
#include "fshelper/OFSNode.h"
#include "fshelper/OFSNodeChanges.h"
#include "fshelper/OFSNodeFileTable.h"
#include "fshelper/OFSRemoteFile.h"
#include "fshelper/OFSTransferReport.h"
#include "fshelper/OmbraFileSystem+CacheBudget.h"
#include "platform/foundation/Mutex.h"
#include "platform/userfs/GMUserFileSystemDelegate.h"
#include "remote/AbstractConnection.h"
#include "remote/KCConnectionPool.h"
#include "remote/KCNode.h"

namespace ombra {

class StAbstractConnection;

// What the file system asks its controller.
class OFSMountPathSource {
 public:
  virtual ~OFSMountPathSource() = default;
  // Where the volume is mounted; absent until it is.
  virtual std::optional<std::string> mountPath() const = 0;
};

// One per process. Made, given its controller and its pool, `preflight`ed, and handed to the framework, which
// then calls it from many threads at once.
//
// Locks, in the order in which they may be taken: iTreeLock (repairs of the tree after moves and removals),
// then folders' object locks (one at a time; below iTreeLock a move takes the old parent, then the new one,
// and what leaves a folder is visited with its lock held), then a node's own lock, then leaf locks. The
// server is called with none of them held.
class OmbraFileSystem : public GMUserFileSystemDelegate,
                        public GMUserFileSystemDurability,
                        public ConnectionDelegate,
                        public TranscriptDelegate {
 public:
  OmbraFileSystem();
  ~OmbraFileSystem() override;
  OmbraFileSystem(const OmbraFileSystem&) = delete;
  OmbraFileSystem& operator=(const OmbraFileSystem&) = delete;

  // Not owned; may be null.
  OFSMountPathSource* controller() const { return iController.load(); }
  void setController(OFSMountPathSource* controller) { iController.store(controller); }
  std::shared_ptr<KCConnectionPool> connectionPool() const EXCLUDES(iPropertyLock);
  // Makes this object the pool's transcript delegate, then keeps the pool. Null is kept as null.
  void setConnectionPool(std::shared_ptr<KCConnectionPool> pool) EXCLUDES(iPropertyLock);
  // Makes a pool for the same server, for what is to be sent after the connections were given up; none: what
  // is unsent then is saved on this machine.
  using PoolMaker = std::function<std::shared_ptr<KCConnectionPool>()>;
  PoolMaker poolMaker() const EXCLUDES(iPropertyLock);
  void setPoolMaker(PoolMaker maker) EXCLUDES(iPropertyLock);
  // What the last failed listing of `willMount` failed of, also when a later one succeeded.
  NSErrorRef mountError() const EXCLUDES(iPropertyLock);
  // Why the volume does not show the folder that its credentials name: it could not be entered, so that the
  // one above it is shown, or may not be listed. Null where all is well.
  NSErrorRef startFolderError() const EXCLUDES(iPropertyLock);
  void setStartFolderError(NSErrorRef error) EXCLUDES(iPropertyLock);
  NSDate mountDate() const { return iMountDate; }
  // Seconds that a listing stays fresh.
  double refreshInterval() const { return iRefreshInterval.load(); }
  void setRefreshInterval(double seconds) { iRefreshInterval.store(seconds); }
  // The local path that the front end opens first; empty until connected, then absolute.
  std::string initialPath() const EXCLUDES(iPropertyLock);
  void setInitialPath(std::string path) EXCLUDES(iPropertyLock);
  bool isConnected() const { return iConnected.load(); }
  void setConnected(bool connected) { iConnected.store(connected); }
  // The remote folder that is the volume's root; null until connected.
  std::shared_ptr<KCRemoteFolderNode> rootNode() const EXCLUDES(iPropertyLock);
  void setRootNode(std::shared_ptr<KCRemoteFolderNode> node) EXCLUDES(iPropertyLock);
  // Receives word of changes that the kernel has to be told; not owned, may be null.
  void setInvalidation(GMUserFileSystemInvalidation* invalidation) { iInvalidation.store(invalidation); }
  // What the cache files without handles may hold together, in bytes and in number; absent = the default,
  // which also leaves half of the temporary folder's disk to others. For `trimCache`.
  void setCacheBudget(std::optional<uint64_t> bytes, std::optional<size_t> files);

  // What is being transferred, what waits for the server, and what went wrong. Never waits for a transfer.
  OFSTransferReport transferReport() const;

  // Logs in and settles the root. False when it cannot be, with what is known of why.
  bool preflight(NSErrorRef* error);
  // Opens the transcript, appending a byte-order mark and a header; null when it cannot be.
  std::FILE* openTranscriptLogAtPath(const std::string& path);

  // The node of a local path; lists the parent once when it is not known. Null when there is none.
  std::shared_ptr<KCRemoteFileNode> nodeForPath(std::string_view path);
  // The same without asking the server.
  std::shared_ptr<KCRemoteFileNode> _nodeForPath(std::string_view path) const;
  std::shared_ptr<OFSComparisonNode> _comparisonNodeWithDisplayName(std::string_view name) const;
  // Visits a node that leaves the tree, and those below it. Has no effect.
  void _forgetNode(const std::shared_ptr<KCNode>& node) const;
  // The one open-file object of a node, made on first use.
  std::shared_ptr<OFSRemoteFile> _remoteFileForNode(const std::shared_ptr<KCRemoteFileNode>& node,
                                                    const std::string& path);
  std::string pathForRemotePath(std::string_view remotePath) const;
  std::string remotePathForPath(std::string_view path) const;
  // For an absolute path of this machine: what it shares with the mount point is dropped.
  std::string remotePathForFullPath(std::string_view fullPath) const;
  // With true, the volume's attributes are asked for again.
  void fileSystemAttributesNeedUpdate(bool needUpdate);

  // GMUserFileSystemDelegate
  void willMount() override;
  std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(OptionalPath path,
                                                                    NSErrorRef* error) override;
  std::optional<NSFileAttributes> attributesOfItemAtPath(OptionalPath path, const GMUserData& userData,
                                                         NSErrorRef* error) override;
  std::optional<NSFileAttributes> attributesOfFileSystemForPath(OptionalPath path,
                                                                NSErrorRef* error) override;
  bool setAttributes(const NSFileAttributes& attributes, OptionalPath ofItemAtPath,
                     const GMUserData& userData, NSErrorRef* error) override;
  bool createDirectoryAtPath(OptionalPath path, const NSFileAttributes& attributes,
                             NSErrorRef* error) override;
  bool createFileAtPath(OptionalPath path, const NSFileAttributes& attributes, GMUserData* userData,
                        NSErrorRef* error) override;
  bool createSymbolicLinkAtPath(OptionalPath path, OptionalPath withDestinationPath,
                                NSErrorRef* error) override;
  std::optional<std::string> destinationOfSymbolicLinkAtPath(OptionalPath path, NSErrorRef* error) override;
  bool moveItemAtPath(OptionalPath path, OptionalPath toPath, NSErrorRef* error) override;
  bool removeItemAtPath(OptionalPath path, NSErrorRef* error) override;
  bool openFileAtPath(OptionalPath path, int mode, GMUserData* userData, NSErrorRef* error) override;
  int readFileAtPath(OptionalPath path, const GMUserData& userData, void* buffer, size_t size, int64_t offset,
                     NSErrorRef* error) override;
  int writeFileAtPath(OptionalPath path, const GMUserData& userData, const void* buffer, size_t size,
                      int64_t offset, NSErrorRef* error) override;
  bool truncateFileAtPath(OptionalPath path, const GMUserData& userData, int64_t offset,
                          NSErrorRef* error) override;
  void releaseFileAtPath(OptionalPath path, const GMUserData& userData) override;
  std::optional<std::vector<std::string>> extendedAttributesOfItemAtPath(OptionalPath path,
                                                                         NSErrorRef* error) override;
  std::optional<NSData> valueOfExtendedAttribute(std::string_view name, OptionalPath ofItemAtPath,
                                                 int64_t position, NSErrorRef* error) override;
  bool setExtendedAttribute(std::string_view name, OptionalPath ofItemAtPath, const NSData& value,
                            int64_t position, int options, NSErrorRef* error) override;

  // The framework's older forms.
  std::optional<NSFileAttributes> MacFUSE_1_7_attributesOfItemAtPath(OptionalPath path, NSErrorRef* error);
  bool MacFUSE_1_7_setAttributes(const NSFileAttributes& attributes, OptionalPath ofItemAtPath,
                                 NSErrorRef* error);

  // GMUserFileSystemDurability
  bool flushFileAtPath(OptionalPath path, const GMUserData& userData, NSErrorRef* error) override;
  bool releasesAtOnce(const GMUserData& userData) override;
  bool synchronizeFileAtPath(OptionalPath path, const GMUserData& userData, NSErrorRef* error) override;
  bool isCreationInDoubt(const GMUserData& userData) override;
  GMContentState contentStateOfFile(const GMUserData& userData) override;
  void waitForContent(const GMUserData& userData, uint64_t seen) override;
  bool changeAttributesWithoutContent(const NSFileAttributes& attributes, OptionalPath ofItemAtPath,
                                      NSErrorRef* error) override;
  void seedCacheAttributesAtPath(OptionalPath path, const GMUserData& userData) override;
  void abandonFile(const GMUserData& userData) override;
  void reclaimFile(const GMUserData& userData) override;
  std::optional<NSFileAttributes> attributesOfAbandonedFile(const GMUserData& userData) override;
  bool truncateAbandonedFile(const GMUserData& userData, int64_t offset, NSErrorRef* error) override;
  GMUserData openFileAtPathIfAny(OptionalPath path) override;
  bool settleBeforeMoveAtPath(OptionalPath path, NSErrorRef* error) override;
  void movedItemAtPath(OptionalPath path, OptionalPath toPath) override;
  void moveFailedAtPath(OptionalPath path) override;
  std::optional<std::vector<std::string>> namesAsListedAtPath(OptionalPath path, NSErrorRef* error) override;
  std::string listedPathForPath(std::string_view path) override;
  std::optional<std::string> knownDestinationOfSymbolicLinkAtPath(OptionalPath path) override;
  void forgetFailedContentAtPath(OptionalPath path) override;
  void trimCache() override;
  std::vector<GMUndelivered> drainAll() override;
  void endDownloads() override;
  uint64_t bytesMoved() override;
  void giveUpConnections() override;
  // The same when nobody wants to wait for the server any more: what is unsent is saved on this machine.
  void giveUpServer();

  // ConnectionDelegate
  using ConnectionDelegate::connection;
  bool connection(AbstractConnection& connection, const TrustQuestion& isWorthyTrust) override;

  // TranscriptDelegate
  void connectionUUID(const KCUUID& uuid, std::string_view appendTranscript, bool isOutgoing) override;
  void connectionUUIDFlushTranscript(const KCUUID& uuid) override;

 private:
  // kNone: the caller wants the tree to be up to date, and of a fresh listing no names.
  enum class NameForm : uint8_t { kDecomposed, kAsListed, kNone };
  class Merge;

  std::shared_ptr<const KCCredentials> credentials() const;
  // The root node's path; "/" until there is one.
  std::string rootPath() const;
  std::shared_ptr<KCRemoteFileNode> parentNodeForPath(std::string_view path);

  std::optional<std::vector<std::string>> listFolder(OptionalPath path, NSErrorRef* error, NameForm form);
  // Whether a listing is too old to be used, or there is none: then it is the caller who fetches it.
  bool claimIfStale(const std::shared_ptr<KCRemoteFileNode>& node) const;
  std::optional<std::vector<std::string>> cachedNames(const KCRemoteFileNode& node, NameForm form) const;
  std::optional<std::vector<std::string>> fetchFolder(StAbstractConnection& connection, std::string_view path,
                                                      const std::shared_ptr<KCRemoteFileNode>& node,
                                                      NSErrorRef* error, NameForm form);
  void settleFlag(KCRemoteFileNode& folder, Merge& merge, bool isWhole);
  void invalidateDirectory(std::string_view path) const;
  // After `newItem` (a local path) was made in `parent`: the next use of the parent's listing fetches it.
  void markStale(KCRemoteFileNode& parent, std::string_view newItem);
  void markStaleAtPath(const std::shared_ptr<KCRemoteFileNode>& parent, std::string_view newItem);

  NSFileAttributes shownAttributesOfNode(const KCRemoteFileNode& node) const;
  uint16_t shownModeOfNode(const KCRemoteFileNode& node) const;
  bool setFolderPermissions(std::optional<uint16_t> permissions, const std::string& remotePath,
                            NSErrorRef* error);
  bool setFileAttributes(const NSFileAttributes& attributes, const std::shared_ptr<KCRemoteFileNode>& node,
                         const std::string& remotePath, const GMUserData& userData, NSErrorRef* error);
  bool applyToFile(const NSFileAttributes& attributes, OFSRemoteFile& file, KCRemoteFileNode& node,
                   NSErrorRef* error);
  bool changeOnServer(StAbstractConnection& connection, const NSFileAttributes& attributes,
                      const std::string& remotePath, NSErrorRef* error);
  bool flushOnServer(const std::string& remotePath, NSErrorRef* error);
  bool sendAttributes(const NSFileAttributes& attributes, const std::string& remotePath, NSErrorRef* error);
  void showAttributes(const NSFileAttributes& attributes, KCRemoteFileNode& node);
  std::shared_ptr<KCRemoteFileNode> nodeForExtendedAttribute(std::string_view name, OptionalPath path,
                                                             NSErrorRef* error);

  std::string linkTextForDestination(std::string_view destination) const;
  std::optional<std::string> resolvedDestination(StAbstractConnection& connection, KCRemoteFileNode& node,
                                                 const std::string& target) const;

  bool hasEntries(std::string_view path);
  bool clearDestination(const KCRemoteFileNode& source, std::string_view toPath);
  bool moveOnServer(StAbstractConnection& connection, const KCRemoteFileNode& source,
                    const std::string& fromPath, const std::string& toPath, NSErrorRef* error);
  std::string remotePathForName(std::string_view folder, const std::string& name) const;
  void repairTreeAfterRemoval(const std::shared_ptr<KCRemoteFileNode>& node) EXCLUDES(iTreeLock);
  void repairTreeAfterMove(const std::shared_ptr<KCRemoteFileNode>& source, std::string_view name,
                           const std::shared_ptr<KCRemoteFileNode>& toParent, const std::string& remotePath)
      EXCLUDES(iTreeLock);
  void repairTreeAfterRename(KCNode& parent, std::string_view name, const std::string& remotePath)
      REQUIRES(iTreeLock);
  void repairTreeBetweenFolders(KCNode& oldParent, std::string_view name,
                                const std::shared_ptr<KCNode>& newParent, const std::string& remotePath)
      REQUIRES(iTreeLock);
  // The node of that name, out of the parent's child set; null, after a failed condition check, when there is
  // none. Called with the parent's lock held.
  std::shared_ptr<KCRemoteFileNode> takeMovedNode(KCNode& parent, std::string_view name) REQUIRES(iTreeLock);

  void updateNode(OptionalPath path, OFSRemoteFile& file);
  // The node's open-file object, in use until the pin goes.
  OFSNodeFilePin pinnedRemoteFileForNode(const std::shared_ptr<KCRemoteFileNode>& node,
                                         const std::string& path);
  // Of what former items of the path have left unsent nothing is sent any more, since a file of that path is
  // about to be written or made. `successor` may be null.
  void supersedeLeftBehind(const std::string& remotePath, const OFSRemoteFile* successor);
  // A file that nobody has open and whose content the server has refused: from now on the tree shows what the
  // server has, and what was written is saved on this machine at the end.
  void setRefusedAside(const std::shared_ptr<OFSRemoteFile>& file);
  // Looks again at the folder, and where that has vanished at those above it.
  void lookForVanished(std::string folder);
  // The path was emptied or made anew, which replaces what was refused there.
  void dropRefusedAtPath(const std::string& remotePath);
  // Makes `file` the node's open-file object.
  OFSNodeFilePin hangOnNode(const std::shared_ptr<OFSRemoteFile>& file,
                            const std::shared_ptr<KCRemoteFileNode>& node);
  void letWritesGo(const std::string& remotePath) EXCLUDES(iPropertyLock);
  OFSCacheBudget::Limits cacheBudget() const;
  bool isWithin(const OFSCacheBudget::Limits& budget) const;
  bool dropFromNode(const OFSNodeFileTable::Entry& entry);
  std::string recoveredFolderForPath(std::string_view path) const;
  std::string saveAside(OFSRemoteFile& file, std::string_view path) const;
  bool isOutdated(const OFSNodeFileTable::Entry& entry) const;
  NSErrorRef obstacleTo(const OFSNodeFileTable::Entry& entry);
  bool sendAtTheEnd(const OFSNodeFileTable::Entry& entry, NSErrorRef* error);
  void reopenConnections(const std::vector<OFSNodeFileTable::Entry>& unsent) EXCLUDES(iPropertyLock);
  std::shared_ptr<KCConnectionPool> putOnTrial() EXCLUDES(iPropertyLock);
  bool answers(KCConnectionPool& pool);
  class Outage;
  std::optional<GMUndelivered> deliver(const OFSNodeFileTable::Entry& entry, Outage& outage);
  std::optional<GMUndelivered> deliverWithoutRaising(const OFSNodeFileTable::Entry& entry, Outage& outage);
  std::vector<GMUndelivered> deliverAll(const std::vector<OFSNodeFileTable::Entry>& files);

  const NSDate iMountDate;
  std::atomic<OFSMountPathSource*> iController{nullptr};
  std::atomic<double> iRefreshInterval{60.0};
  std::atomic<bool> iConnected{false};
  std::atomic<bool> iGivenUp{false};
  std::atomic<std::FILE*> iTranscriptLog{nullptr};
  std::atomic<GMUserFileSystemInvalidation*> iInvalidation{nullptr};
  OFSNodeFileTable iFiles;
  OFSCacheBudget iBudget;
  const std::shared_ptr<OFSTransferTotals> iTotals = std::make_shared<OFSTransferTotals>();
  OFSNodeChanges iChanges;

  mutable Mutex iPropertyLock;
  NSErrorRef iMountError GUARDED_BY(iPropertyLock);
  NSErrorRef iStartFolderError GUARDED_BY(iPropertyLock);
  std::string iInitialPath GUARDED_BY(iPropertyLock);
  std::shared_ptr<KCConnectionPool> iConnectionPool GUARDED_BY(iPropertyLock);
  PoolMaker iPoolMaker GUARDED_BY(iPropertyLock);
  // While a server is looked for again: what to shut down for the look to end.
  std::shared_ptr<KCConnectionPool> iPoolOnTrial GUARDED_BY(iPropertyLock);
  // The files whose writes are held up, by the remote path of what is being moved.
  std::multimap<std::string, std::vector<std::shared_ptr<OFSRemoteFile>>> iMoves GUARDED_BY(iPropertyLock);
  std::shared_ptr<KCRemoteFolderNode> iRootNode GUARDED_BY(iPropertyLock);
  std::vector<std::FILE*> iTranscriptLogs GUARDED_BY(iPropertyLock);

  // Held while the tree is repaired: a repair holds two folders at once, and two repairs in opposite
  // directions would otherwise wait for each other.
  Mutex iTreeLock;
};

// A logged-in connection for `fileSystem`: once that is connected, any one of the pool; before, one that logs
// in and settles the root of the file system. Null, perhaps without an error, when there is none. The caller
// releases it.
std::shared_ptr<AbstractConnection> ofs_acquireConnectionForFileSystem(KCConnectionPool& pool,
                                                                       OmbraFileSystem& fileSystem,
                                                                       NSErrorRef* error);

}  // namespace ombra
