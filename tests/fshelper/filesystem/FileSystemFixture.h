// What the tests of the file system share: a server in memory, a clock that stands still, a record of the
// log.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fshelper/OFSTracing.h"
#include "fshelper/OmbraFileSystem.h"
#include "remote/KCCredentials.h"
#include "remote/QuarnKitError.h"
#include "tests/support/ManualClock.h"
#include "tests/support/ScriptedServer.h"

namespace ombra {

// Collects log texts for its lifetime. One at a time.
class RecordedLog {
 public:
  RecordedLog();
  ~RecordedLog();
  RecordedLog(const RecordedLog&) = delete;
  RecordedLog& operator=(const RecordedLog&) = delete;
  std::vector<std::string> lines() const;
  // Those that hold `text`.
  std::vector<std::string> linesWith(std::string_view text) const;
  void clear();
};

// Writes trace lines for its lifetime.
class TracingOn {
 public:
  TracingOn() { gTracingEnabled.store(true); }
  ~TracingOn() { gTracingEnabled.store(false); }
  TracingOn(const TracingOn&) = delete;
  TracingOn& operator=(const TracingOn&) = delete;
};

// No cache file can be made for its lifetime.
class NoTemporaryFolder {
 public:
  NoTemporaryFolder();
  ~NoTemporaryFolder();
  NoTemporaryFolder(const NoTemporaryFolder&) = delete;
  NoTemporaryFolder& operator=(const NoTemporaryFolder&) = delete;

 private:
  const std::string iFormer;
};

// A controller that knows where the volume is mounted, or not yet.
class KnownMountPath final : public OFSMountPathSource {
 public:
  std::optional<std::string> mountPath() const override { return path; }
  std::optional<std::string> path;
};

// Collects what the kernel is told.
class RecordedInvalidation final : public GMUserFileSystemInvalidation {
 public:
  void invalidateDirectoryAtPath(std::string_view path) override;
  void invalidateItemAtPath(std::string_view path, bool data) override;
  std::vector<std::string> take();

 private:
  std::mutex iMutex;
  std::vector<std::string> iTold;
};

// A file system over a scripted server whose login folder, and so the root, is "/".
class FileSystemTest : public ::testing::Test {
 protected:
  FileSystemTest();
  ~FileSystemTest() override;

  // Logs in, and forgets the calls of that.
  void connect();
  // With the root in `loginPath`.
  void connectAt(const std::string& loginPath);
  void makeStale(std::string_view folder);
  std::vector<std::string> list(std::string_view path);
  // The server's calls without those that only take and give connections.
  std::vector<std::string> serverCalls() const;
  std::string read(const GMUserData& file, size_t size = 100, int64_t offset = 0);
  GMUserData open(std::string_view path, int mode = kO_RDWR);
  int write(std::string_view path, const GMUserData& file, const std::string& text, int64_t offset = 0);
  std::shared_ptr<OFSRemoteFile> fileOnNode(std::string_view path);
  // Until what a write has started has ended; fails the test after 30 s.
  static void waitUntilSettled(const GMUserData& file);
  // The numbers of the last error and of what lies beneath; 0 for none.
  int64_t code() const { return error == nullptr ? 0 : error->code(); }
  int64_t underlyingCode() const;

  // Outlives the test: a worker that lets go of the last reference to an open file closes it by the clock.
  ManualClock& clock;
  ScriptedServer server;
  KnownMountPath mountPoint;
  OmbraFileSystem fileSystem;
  NSErrorRef error;
};

NSErrorRef refusal(QuarnKitErrorCode code = kQuarnKitRefused);
NSFileAttributes withMode(uint16_t mode);
NSFileAttributes withSize(uint64_t size);

}  // namespace ombra
