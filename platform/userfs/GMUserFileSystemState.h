// The life of one mount.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSCondition.h"
#include "platform/userfs/FuseSession.h"
#include "platform/userfs/GMUserFileSystem.h"
#include "platform/userfs/MountPoint.h"
#include "platform/userfs/Volume.h"
#include "platform/userfs/WorkQueue.h"

namespace ombra {

// Shared by the object and the mounting thread, so that either may go first.
//
//   idle --mountAtPath--> mounting --the kernel asks--> mounted --unmount, or the loop ends--v
//                            `--a step fails----------------------------------------> announcing --> ended
//
// Each transition happens on the mounting thread, and each way to the end posts exactly one notification:
// did-unmount from mounted, mount-failed from mounting. No lock is held while one is posted or the delegate
// is called.
class GMUserFileSystem::State : public std::enable_shared_from_this<GMUserFileSystem::State> {
 public:
  enum class Phase { kIdle, kMounting, kMounted, kAnnouncing, kEnded };

  State(GMUserFileSystemDelegate* delegate, bool isThreadSafe);

  // False when this object has mounted before.
  bool begin() EXCLUDES(iCondition);
  // The whole life of the mount, on the mounting thread.
  void run(const std::string& path, const std::vector<std::string>& options);
  // The mounting thread could not be started.
  void failToStart(const std::string& path);
  void requestUnmount() EXCLUDES(iCondition);
  // Waits until the mount has ended; returns at once on the mounting thread.
  void waitUntilEnded() EXCLUDES(iCondition);
  void setDelegate(GMUserFileSystemDelegate* delegate) EXCLUDES(iCondition);

  void invalidateFolder(std::string path) EXCLUDES(iCondition);
  void invalidateItem(std::string path, bool data) EXCLUDES(iCondition);

 private:
  // Mounting; each step undoes nothing itself, what it has made is undone when it goes.
  NSErrorRef mount(const std::string& path, const std::vector<std::string>& options);
  NSErrorRef startSession(const MountOptions& options);
  NSErrorRef waitUntilInitialized() EXCLUDES(iCondition);

  void serveUntilEnd() EXCLUDES(iCondition);
  bool detach();
  void finishRequests();
  std::vector<GMUndelivered> drain();
  void takeDown();
  void announceEnd(std::string_view name, const std::string& path, const NSDictionary& details);
  static void post(std::string_view name, const std::string& path, const NSDictionary& details);
  void enter(Phase phase) EXCLUDES(iCondition);
  void changed() EXCLUDES(iCondition);

  std::shared_ptr<FuseSession> session() EXCLUDES(iCondition);
  std::shared_ptr<Volume> volume() EXCLUDES(iCondition);

  const bool iIsThreadSafe;
  // One lane each, since taking back pages may wait for a read that hangs, and must not hold up the names.
  WorkQueue iNameNotices;
  WorkQueue iPageNotices;

  NSCondition iCondition;
  Phase iPhase GUARDED_BY(iCondition) = Phase::kIdle;
  bool iUnmountRequested GUARDED_BY(iCondition) = false;
  pthread_t iMountingThread GUARDED_BY(iCondition) = {};
  GMUserFileSystemDelegate* iDelegate GUARDED_BY(iCondition);
  std::shared_ptr<Volume> iVolume GUARDED_BY(iCondition);
  std::shared_ptr<FuseSession> iSession GUARDED_BY(iCondition);

  // Of the mounting thread alone.
  std::unique_ptr<MountPoint> iMountPoint;
  std::optional<MountedVolume> iMounted;
};

}  // namespace ombra
