// A mount of a file system in memory, and the notifications about it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSNotificationCenter.h"
#include "platform/userfs/GMUserFileSystem.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/userfs/MemoryFileSystem.h"

namespace ombra {

// A folder to mount in, removed with what is in it.
class FolderForMounts : public TemporaryFolder {
 public:
  ~FolderForMounts();
};

// Keeps the notifications about mounts in the order they were posted.
class MountNotifications {
 public:
  MountNotifications();
  ~MountNotifications();
  // Blocks until one of that name has come; the first of them.
  NSNotification waitFor(std::string_view name);
  // Blocks until one of either has come.
  NSNotification waitForEither(std::string_view name, std::string_view other);
  std::vector<std::string> names();

 private:
  NSCondition iCondition;
  std::vector<NSNotification> iPosted GUARDED_BY(iCondition);
};

// Where a test cannot mount: failing where all tests must run, and the reason to skip elsewhere.
std::optional<std::string> reasonNotToMount();

class MountTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Mounts at "Test" and waits until it is there.
  void mount(std::vector<std::string> options = {"native_xattr"});
  void mountDelegate(GMUserFileSystemDelegate* delegate, std::vector<std::string> options = {"native_xattr"});
  // Unmounts and waits for the end; how did-unmount reads.
  NSNotification unmount();
  // The path of an item of the volume.
  std::string at(const std::string& path) const { return mountPath() + path; }
  std::string mountPath() const { return iVolumes.path() + "/Test"; }
  bool isMounted() const;

  FolderForMounts iVolumes;
  MountNotifications iNotifications;
  DurableMemoryFileSystem iFiles;
  std::unique_ptr<GMUserFileSystem> iFileSystem;
};

// A descriptor that closes itself.
class File {
 public:
  File(const std::string& path, int flags, unsigned mode = 0644);
  ~File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  int get() const { return iDescriptor; }
  bool isOpen() const { return iDescriptor >= 0; }
  int error() const { return iError; }  // of opening
  // 0 or the errno of close(2).
  int close();

 private:
  int iDescriptor;
  int iError;
};

// The whole content, absent when it cannot be opened or read.
std::optional<std::string> contentOfFile(const std::string& path);
// The names in a folder, sorted, without "." and "..".
std::vector<std::string> namesIn(const std::string& path);
// 0 or the errno that the call ended with.
int errnoOf(const std::function<int()>& call);

}  // namespace ombra
