// Mounts a file system that a delegate answers for.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/userfs/GMUserFileSystemDelegate.h"

namespace ombra {

// Local notifications; object: none. User info: "mountPath", and kGMUserFileSystemErrorKey → the error of a
// failure.
inline constexpr std::string_view kGMUserFileSystemDidMount = "kGMUserFileSystemDidMount";
inline constexpr std::string_view kGMUserFileSystemDidUnmount = "kGMUserFileSystemDidUnmount";
inline constexpr std::string_view kGMUserFileSystemMountFailed = "kGMUserFileSystemMountFailed";
inline constexpr std::string_view kGMUserFileSystemErrorKey = "error";
inline constexpr std::string_view kGMUserFileSystemMountPathKey = "mountPath";
// Of kGMUserFileSystemDidUnmount: array of texts "path\tsaved copy\treason", what could not be stored. In
// both paths a backslash stands before a further backslash, and before "t" where they hold a tab.
inline constexpr std::string_view kGMUserFileSystemUndeliveredKey = "undelivered";
// The domain of errors of mounting itself; codes in GMUserFileSystemErrorCode.
inline constexpr std::string_view kGMUserFileSystemErrorDomain = "GMUserFileSystemErrorDomain";

enum GMUserFileSystemErrorCode : int {
  kGMNoFuseDevice = 1,       // /dev/fuse is missing or may not be opened
  kGMMountPointMissing = 2,  // "/Volumes" is missing or not writable
  kGMMountPointInUse = 3,    // something is mounted there, or the folder has contents
  kGMMountPointInvalid = 4,  // not a plain folder directly below "/Volumes"
  kGMMountRefused = 5,       // the system or fusermount3 refused; its words in the description
};

// One mount. Not copied; create, mount once, unmount, destroy.
class GMUserFileSystem final : public GMUserFileSystemInvalidation {
 public:
  // `delegate` must outlive the mount; it is not called after did-unmount. When it also is a
  // GMUserFileSystemDurability, that is used. A call that never comes back is left behind in it by `unmount`:
  // who sees that in the log keeps the delegate until the process ends.
  GMUserFileSystem(GMUserFileSystemDelegate* delegate, bool isThreadSafe);
  ~GMUserFileSystem() override;

  // Mounts at `path` (a new folder, or an empty one, directly below the volumes folder) with options such as
  // "volname=…". Results come as notifications, posted on the mounting thread: did-mount once the kernel can
  // ask, mount-failed, did-unmount after the loop has ended and everything is drained. With
  // `shouldForeground` the calls of the loop stay on the mounting thread, which is a new one with
  // `detachNewThread`.
  void mountAtPath(std::string path, std::vector<std::string> withOptions, bool shouldForeground,
                   bool detachNewThread);
  // Ends the mount: waits for what is in flight, drains, posts did-unmount, all on the mounting thread. Does
  // nothing, and posts nothing, when nothing is mounted. Any thread; returns at once.
  void unmount();

  // No further calls to the delegate after this; the mount answers EIO.
  void setDelegate(GMUserFileSystemDelegate* delegate);

  void invalidateDirectoryAtPath(std::string_view path) override;
  void invalidateItemAtPath(std::string_view path, bool data) override;

  // The folder that holds all mount points; "/Volumes" unless a test has set another.
  static const std::string& volumesFolder();
  static void setVolumesFolder(std::string path);
  // How long `unmount` waits for requests in flight before it ends downloads; once no byte has moved for
  // twice that, it tells the delegate to give up its connections. And how long it waits after that; then it
  // goes on without them. 20 and 10 unless a test has set others.
  static void setUnmountPatience(double secondsInFlight, double secondsAfterGivingUp);
  // Removes mount points below the volumes folder that a killed helper left behind ("not connected").
  static void clearStaleMountPoints();

 private:
  class State;
  std::shared_ptr<State> iState;
};

}  // namespace ombra
