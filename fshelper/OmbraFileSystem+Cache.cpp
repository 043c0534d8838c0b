// Cache files: how much of them is kept, and what becomes of them at the end.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <system_error>
#include <thread>

#include "fshelper/OFSDeadline.h"
#include "fshelper/OFSRemoteFileSupport.h"
#include "fshelper/OFSTracing.h"
#include "fshelper/OmbraFileSystem.h"
#include "fshelper/StAbstractConnection.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSLog.h"
#include "remote/RetryPauses.h"

namespace ombra {

namespace {

constexpr size_t kDrainThreads = 4;
constexpr size_t kNamesForACopy = 1000;  // tried at most
constexpr double kSecondsOnTrial = 20;   // a login that answers at all
constexpr unsigned kRecoveredFolderMode = 0700;

}  // namespace

void OmbraFileSystem::setCacheBudget(std::optional<uint64_t> bytes, std::optional<size_t> files) {
  iBudget.set(bytes, files);
}

OFSCacheBudget::Limits OmbraFileSystem::cacheBudget() const { return iBudget.limits(iFiles.bytes()); }

bool OmbraFileSystem::isWithin(const OFSCacheBudget::Limits& budget) const {
  return iFiles.bytes() <= budget.bytes && iFiles.count() <= budget.files;
}

void OmbraFileSystem::trimCache() {
  OFS_TRACE("-[OmbraFileSystem trimCache]", "");
  iFiles.lookAgain();
  const OFSCacheBudget::Limits budget = cacheBudget();
  if (isWithin(budget)) return;
  // Somewhat further down than needed, so that not every release has files to let go of.
  const OFSCacheBudget::Limits target{budget.bytes - budget.bytes / 8, budget.files - budget.files / 8};
  for (auto entry = iFiles.firstUnusedAfter(0); entry; entry = iFiles.firstUnusedAfter(entry->lastUse)) {
    // Asked without a lock; a use in between shows in the entry's last use.
    if (!entry->file->isCovered()) continue;
    dropFromNode(*entry);
    if (isWithin(target)) return;
  }
}

bool OmbraFileSystem::dropFromNode(const OFSNodeFileTable::Entry& entry) {
  const std::shared_ptr<KCRemoteFileNode> node = entry.node.lock();
  if (node == nullptr) return iFiles.removeIfUnused(*entry.file, entry.lastUse);
  // Uses begin under the node's lock, so none begins between the two steps.
  RecursiveMutexLock lock(node->objectLock());
  if (!iFiles.removeIfUnused(*entry.file, entry.lastUse)) return false;
  if (ofs_remoteFile(*node) == entry.file) node->setUserProperty({}, kOFSRemoteFile);
  return true;
}

void OmbraFileSystem::forgetFailedContentAtPath(OptionalPath path) {
  OFS_TRACE("-[OmbraFileSystem forgetFailedContentAtPath:]", "{}", ofs_describe(path));
  const std::shared_ptr<KCRemoteFileNode> node = path ? _nodeForPath(*path) : nullptr;
  const std::shared_ptr<OFSRemoteFile> file = node == nullptr ? nullptr : ofs_remoteFile(*node);
  if (file == nullptr || !file->downloadFailed() || !file->isCovered()) return;
  {
    RecursiveMutexLock lock(node->objectLock());
    if (ofs_remoteFile(*node) != file) return;
    node->setUserProperty({}, kOFSRemoteFile);
  }
  iFiles.detach(*file);
}

// Below the state folder as below the volume's root. Empty when there is no such place.
std::string OmbraFileSystem::recoveredFolderForPath(std::string_view path) const {
  const OFSMountPathSource* source = controller();
  const std::string volume =
      lastPathComponent(source == nullptr ? "volume" : source->mountPath().value_or("volume"));
  std::string folder =
      stringByAppendingPathComponent(NSFileManager::kc_chewableItemsFolderCreate(true), "recovered");
  folder = stringByAppendingPathComponent(folder, volume);
  for (const std::string& component : pathComponents(stringByDeletingLastPathComponent(path))) {
    // Servers do not name entries so; a link of that name out of the folder must not be possible all the
    // same.
    if (component == "..") return {};
    if (component != "/") folder = stringByAppendingPathComponent(folder, component);
  }
  NSErrorRef error;
  return NSFileManager::createDirectoryAtPath(folder, true, kRecoveredFolderMode, &error) ? folder
                                                                                          : std::string();
}

// Never over an earlier copy, nor over one that is being saved at the same time. Where the copy is; empty
// when none could be saved.
std::string OmbraFileSystem::saveAside(OFSRemoteFile& file, std::string_view path) const {
  const std::string folder = recoveredFolderForPath(path);
  if (folder.empty()) return {};
  NSErrorRef error;
  auto taken = NSFileManager::contentsOfDirectoryAtPath(folder, &error).value_or(std::vector<std::string>());
  for (size_t attempt = 0; attempt < kNamesForACopy; ++attempt) {
    std::string name = kc_stringUniqueToArray(lastPathComponent(path), taken, std::nullopt);
    const std::string copy = stringByAppendingPathComponent(folder, name);
    if (file.saveContentAs(copy)) return copy;
    if (errno != EEXIST) return {};
    taken.push_back(std::move(name));
  }
  return {};
}

void OmbraFileSystem::supersedeLeftBehind(const std::string& remotePath, const OFSRemoteFile* successor) {
  for (const auto& file : iFiles.detachedAtPath(remotePath)) {
    if (file.get() != successor) file->supersede();
  }
}

// Whether the tree knows another file in its place. Also asked of files that nobody has detached: a node may
// have left the tree together with a folder above it while the file was being made.
bool OmbraFileSystem::isOutdated(const OFSNodeFileTable::Entry& entry) const {
  if (entry.isOutdated) return true;
  const std::shared_ptr<KCRemoteFileNode> node = _nodeForPath(pathForRemotePath(entry.file->remotePath()));
  return node != nullptr && ofs_remoteFile(*node) != entry.file;
}

// What hangs on no node any more is sent only where nothing has taken its place: neither a later file of this
// volume's, nor one that somebody else has made, which the known listing need not show yet. Why it must not
// be sent; null when it may.
NSErrorRef OmbraFileSystem::obstacleTo(const OFSNodeFileTable::Entry& entry) {
  // The program was told, and has seen since what the server has instead.
  if (entry.refusal != nullptr) return entry.refusal;
  if (entry.isOutdated) return ofs_supersededError();
  // What is still on its way is found on the server, at the latest by a listing for another file, and would
  // be taken for somebody else's.
  if (entry.file->isCoveredOnceIdle()) return nullptr;
  if (isOutdated(entry)) return ofs_supersededError();
  if (!entry.isDetached) return nullptr;
  const std::string folder = stringByDeletingLastPathComponent(pathForRemotePath(entry.file->remotePath()));
  const std::shared_ptr<KCRemoteFileNode> parent = nodeForPath(folder);
  if (parent != nullptr) parent->setExpired(true);
  NSErrorRef error;
  if (!contentsOfDirectoryAtPath(folder, &error)) return error != nullptr ? error : ofs_posixError(kENOENT);
  return isOutdated(entry) ? ofs_supersededError() : nullptr;
}

// That the server is away is found out once, after all the attempts that a call makes: not by each file anew,
// which would keep the unmount for minutes in which nothing is saved either.
class OmbraFileSystem::Outage {
 public:
  NSErrorRef reason() const EXCLUDES(iLock) {
    const MutexLock lock(iLock);
    return iReason;
  }
  void learn(const NSErrorRef& error) EXCLUDES(iLock) {
    if (error == nullptr || !isOutage(error->underlyingError())) return;
    const MutexLock lock(iLock);
    iReason = error;
  }

 private:
  mutable Mutex iLock;
  NSErrorRef iReason GUARDED_BY(iLock);
};

bool OmbraFileSystem::sendAtTheEnd(const OFSNodeFileTable::Entry& entry, NSErrorRef* error) {
  NSErrorRef obstacle = obstacleTo(entry);
  if (obstacle == nullptr) return entry.file->synchronize(error);
  // Also the release of a handle that it may still have must not send it.
  entry.file->abandon();
  *error = std::move(obstacle);
  return false;
}

// Absent when the server has all of the file.
std::optional<GMUndelivered> OmbraFileSystem::deliver(const OFSNodeFileTable::Entry& entry, Outage& outage) {
  const std::shared_ptr<OFSRemoteFile>& file = entry.file;
  GMUndelivered undelivered;
  undelivered.error = outage.reason();
  if (undelivered.error == nullptr) {
    if (sendAtTheEnd(entry, &undelivered.error)) return std::nullopt;
    outage.learn(undelivered.error);
  }
  undelivered.path = pathForRemotePath(file->remotePath());
  undelivered.savedAs = saveAside(*file, undelivered.path);
  const std::string why =
      undelivered.error == nullptr ? "the server did not say why" : undelivered.error->localizedDescription();
  NSLog("{} could not be stored on the server ({}); {}", undelivered.path, why,
        undelivered.savedAs.empty() ? "no copy could be saved either: free some space below the state folder"
                                    : "a copy is at " + undelivered.savedAs);
  // The release of a handle that it may still have would only wait for the same failure once more.
  if (!undelivered.savedAs.empty()) file->abandon();
  return undelivered;
}

// Null where the server is not to be looked for.
std::shared_ptr<KCConnectionPool> OmbraFileSystem::putOnTrial() {
  const PoolMaker maker = poolMaker();
  std::shared_ptr<KCConnectionPool> pool = maker ? maker() : nullptr;
  MutexLock lock(iPropertyLock);
  // Given up for good while the pool was made.
  if (!iPoolMaker) return nullptr;
  iPoolOnTrial = pool;
  return pool;
}

// Repeated attempts to log in would cost minutes, in which nothing is saved.
bool OmbraFileSystem::answers(KCConnectionPool& pool) {
  const OFSDeadline deadline(kSecondsOnTrial, [&pool] { pool.shutDown(); });
  StAbstractConnection connection(&pool, this);
  std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
  NSErrorRef error;
  if (connection->contentsAtPath(rootPath(), &nodes, &error)) return true;
  NSLog("The server cannot be reached any more ({}); what is unsent is saved on this machine.",
        error == nullptr ? "no reason was given" : error->localizedDescription());
  return false;
}

// The pool that was given up stores nothing any more, but the server may be well: perhaps only one call hung.
// One look tells; where it fails, nobody waits for each file to find out the same.
void OmbraFileSystem::reopenConnections(const std::vector<OFSNodeFileTable::Entry>& unsent) {
  const std::shared_ptr<KCConnectionPool> pool = putOnTrial();
  if (pool == nullptr) return;
  if (answers(*pool)) {
    setConnectionPool(pool);
    for (const auto& entry : unsent) entry.file->setConnectionPool(pool);
  }
  MutexLock lock(iPropertyLock);
  iPoolOnTrial.reset();
}

std::vector<GMUndelivered> OmbraFileSystem::drainAll() {
  OFS_TRACE("-[OmbraFileSystem drainAll]", "");
  endDownloads();
  std::vector<OFSNodeFileTable::Entry> unsent;
  for (const auto& entry : iFiles.entries()) {
    if (!entry.file->isCovered()) unsent.push_back(entry);
  }
  if (!unsent.empty() && iGivenUp.exchange(false)) reopenConnections(unsent);
  return deliverAll(unsent);
}

// As `deliver`; whatever goes wrong on the way, the file is named among those that were not stored.
std::optional<GMUndelivered> OmbraFileSystem::deliverWithoutRaising(const OFSNodeFileTable::Entry& entry,
                                                                    Outage& outage) {
  try {
    return deliver(entry, outage);
  } catch (const std::exception& exception) {
    NSLog("storing {} failed: {}", entry.file->remotePath(), exception.what());
    return GMUndelivered{
        pathForRemotePath(entry.file->remotePath()), "",
        NSError::errorWithDomain(NSPOSIXErrorDomain, kEIO,
                                 {{std::string(NSLocalizedDescriptionKey), exception.what()}})};
  }
}

// Several at a time, so that one slow file does not keep the others waiting.
std::vector<GMUndelivered> OmbraFileSystem::deliverAll(const std::vector<OFSNodeFileTable::Entry>& files) {
  std::vector<std::optional<GMUndelivered>> results(files.size());
  std::atomic<size_t> next{0};
  Outage outage;
  const auto work = [this, &files, &results, &next, &outage] {
    for (size_t index = next++; index < files.size(); index = next++) {
      results[index] = deliverWithoutRaising(files[index], outage);
    }
  };
  {
    std::vector<std::jthread> workers;
    try {
      for (size_t count = 1; count < std::min(kDrainThreads, files.size()); ++count)
        workers.emplace_back(work);
    } catch (const std::system_error& error) {
      // Fewer threads only take longer: this one works as well.
      NSLog("no further thread for what is to be stored: {}", error.what());
    }
    work();
  }
  std::vector<GMUndelivered> undelivered;
  for (auto& result : results) {
    if (result) undelivered.push_back(std::move(*result));
  }
  return undelivered;
}

}  // namespace ombra
