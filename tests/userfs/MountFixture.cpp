#include "tests/userfs/MountFixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "platform/userfs/KernelMount.h"
#include "platform/userfs/MountPoint.h"
#include "platform/userfs/PathMap.h"

namespace ombra {

FolderForMounts::~FolderForMounts() {
  // A mount that a failed test left must not be removed from within.
  for (const MountedVolume& volume : mountedVolumes()) {
    if (isAtOrBelow(volume.path, path())) KernelMount::detach(volume);
  }
}

MountNotifications::MountNotifications() {
  for (const auto name :
       {kGMUserFileSystemDidMount, kGMUserFileSystemDidUnmount, kGMUserFileSystemMountFailed}) {
    NSNotificationCenter::defaultCenter().addObserver(this, name, [this](const NSNotification& notification) {
      ConditionLock lock(iCondition);
      iPosted.push_back(notification);
      iCondition.broadcast();
    });
  }
}

MountNotifications::~MountNotifications() { NSNotificationCenter::defaultCenter().removeObserver(this); }

NSNotification MountNotifications::waitFor(std::string_view name) { return waitForEither(name, name); }

NSNotification MountNotifications::waitForEither(std::string_view name, std::string_view other) {
  ConditionLock lock(iCondition);
  while (true) {
    for (const NSNotification& posted : iPosted) {
      if (posted.name == name || posted.name == other) return posted;
    }
    iCondition.wait();
  }
}

std::vector<std::string> MountNotifications::names() {
  ConditionLock lock(iCondition);
  std::vector<std::string> names;
  for (const NSNotification& posted : iPosted) names.push_back(posted.name);
  return names;
}

std::optional<std::string> reasonNotToMount() {
  if (access("/dev/fuse", R_OK | W_OK) != 0) return "/dev/fuse cannot be opened";
  if (geteuid() != 0 && access("/usr/bin/fusermount3", X_OK) != 0) return "fusermount3 is not installed";
  return std::nullopt;
}

void MountTest::SetUp() {
  if (const auto reason = reasonNotToMount()) {
    const char* ci = std::getenv("CI");
    if (ci != nullptr && std::string_view(ci) == "true") FAIL() << *reason;
    GTEST_SKIP() << *reason;
  }
  GMUserFileSystem::setVolumesFolder(iVolumes.path());
  GMUserFileSystem::setUnmountPatience(20, 10);
}

void MountTest::TearDown() {
  iFileSystem.reset();
  GMUserFileSystem::setVolumesFolder("/Volumes");
}

void MountTest::mount(std::vector<std::string> options) { mountDelegate(&iFiles, std::move(options)); }

void MountTest::mountDelegate(GMUserFileSystemDelegate* delegate, std::vector<std::string> options) {
  iFileSystem = std::make_unique<GMUserFileSystem>(delegate, true);
  iFileSystem->mountAtPath(mountPath(), std::move(options), true, true);
  const auto result = iNotifications.waitForEither(kGMUserFileSystemDidMount, kGMUserFileSystemMountFailed);
  ASSERT_EQ(result.name, kGMUserFileSystemDidMount)
      << result.userInfo->objectForKey(kGMUserFileSystemErrorKey)->asError()->description();
}

NSNotification MountTest::unmount() {
  iFileSystem->unmount();
  return iNotifications.waitFor(kGMUserFileSystemDidUnmount);
}

bool MountTest::isMounted() const { return mountedVolumeAtPath(mountPath()).has_value(); }

File::File(const std::string& path, int flags, unsigned mode)
    : iDescriptor(open(path.c_str(), flags | O_CLOEXEC, mode)), iError(iDescriptor < 0 ? errno : 0) {}

File::~File() { close(); }

int File::close() {
  if (iDescriptor < 0) return 0;
  const int result = ::close(iDescriptor);
  iDescriptor = -1;
  return result == 0 ? 0 : errno;
}

std::optional<std::string> contentOfFile(const std::string& path) {
  const File file(path, O_RDONLY);
  if (!file.isOpen()) return std::nullopt;
  std::string content;
  std::vector<char> buffer(1 << 17);
  for (ssize_t got = 0; (got = read(file.get(), buffer.data(), buffer.size())) != 0;) {
    if (got < 0) return std::nullopt;
    content.append(buffer.data(), static_cast<size_t>(got));
  }
  return content;
}

std::vector<std::string> namesIn(const std::string& path) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path.c_str()), &closedir);
  if (folder == nullptr) return names;
  while (const dirent* entry = readdir(folder.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

int errnoOf(const std::function<int()>& call) { return call() >= 0 ? 0 : errno; }

}  // namespace ombra
