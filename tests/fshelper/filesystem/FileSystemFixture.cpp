#include "tests/fshelper/filesystem/FileSystemFixture.h"

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <thread>

#include "fshelper/OFSRemoteFile.h"
#include "fshelper/OFSRemoteFileLocalCalls.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NeverDestroyed.h"

namespace ombra {

namespace {

std::mutex gLogMutex;
std::vector<std::string> gLogLines;

void recordLine(std::string_view text) {
  const std::lock_guard lock(gLogMutex);
  gLogLines.emplace_back(text);
}

// Knows of the workers of all open files.
class CountedWorkers final : public OFSRemoteFileLocalCalls {
 public:
  bool detachNewThread(std::function<void()> body) override {
    change(1);
    const bool isStarted = OFSRemoteFileLocalCalls::detachNewThread([this, body = std::move(body)]() mutable {
      body();
      // The file that it holds may end with it, and closes then.
      body = nullptr;
      change(-1);
    });
    if (!isStarted) change(-1);
    return isStarted;
  }
  void waitUntilNone() {
    std::unique_lock lock(iMutex);
    EXPECT_TRUE(iEnd.wait_for(lock, std::chrono::seconds(30), [this] { return iCount == 0; }));
  }

 private:
  void change(int by) {
    const std::lock_guard lock(iMutex);
    iCount += by;
    iEnd.notify_all();
  }

  std::mutex iMutex;
  std::condition_variable iEnd;
  int iCount = 0;
};

CountedWorkers& workers() {
  static NeverDestroyed<CountedWorkers> sWorkers;
  return *sWorkers;
}

// Folders of the user that are this test program's own.
class OwnFolders final : public ::testing::Environment {
 public:
  void SetUp() override {
    OFSRemoteFileLocalCalls::setCurrent(&workers());
    char pattern[] = "/tmp/ombra-filesystem-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    iPath = pattern;
    for (const auto& [variable, folder] : {std::pair{"OMBRAFS_TMPDIR", "/tmp"},
                                           {"XDG_STATE_HOME", "/state"},
                                           {"XDG_CONFIG_HOME", "/config"},
                                           {"XDG_DATA_HOME", "/data"}}) {
      std::filesystem::create_directory(iPath + folder);
      std::filesystem::permissions(iPath + folder, std::filesystem::perms::owner_all);
      setenv(variable, (iPath + folder).c_str(), 1);
    }
  }
  void TearDown() override { std::filesystem::remove_all(iPath); }

 private:
  std::string iPath;
};

ManualClock& newClock() {
  static NeverDestroyed<std::vector<std::unique_ptr<ManualClock>>> sClocks;
  return *sClocks->emplace_back(std::make_unique<ManualClock>());
}

const ::testing::Environment* const gOwnFolders = ::testing::AddGlobalTestEnvironment(new OwnFolders);

}  // namespace

RecordedLog::RecordedLog() {
  clear();
  setLogSink(&recordLine);
}

RecordedLog::~RecordedLog() { setLogSink(nullptr); }

std::vector<std::string> RecordedLog::lines() const {
  const std::lock_guard lock(gLogMutex);
  return gLogLines;
}

std::vector<std::string> RecordedLog::linesWith(std::string_view text) const {
  std::vector<std::string> found = lines();
  std::erase_if(found, [text](const std::string& line) { return line.find(text) == std::string::npos; });
  return found;
}

void RecordedLog::clear() {
  const std::lock_guard lock(gLogMutex);
  gLogLines.clear();
}

NoTemporaryFolder::NoTemporaryFolder() : iFormer(getenv("OMBRAFS_TMPDIR")) {
  setenv("OMBRAFS_TMPDIR", "/proc/nowhere", 1);
}

NoTemporaryFolder::~NoTemporaryFolder() { setenv("OMBRAFS_TMPDIR", iFormer.c_str(), 1); }

void RecordedInvalidation::invalidateDirectoryAtPath(std::string_view path) {
  const std::lock_guard lock(iMutex);
  iTold.push_back("folder " + std::string(path));
}

void RecordedInvalidation::invalidateItemAtPath(std::string_view path, bool data) {
  const std::lock_guard lock(iMutex);
  iTold.push_back((data ? "data " : "item ") + std::string(path));
}

std::vector<std::string> RecordedInvalidation::take() {
  const std::lock_guard lock(iMutex);
  return std::exchange(iTold, {});
}

FileSystemTest::FileSystemTest() : clock(newClock()) {
  fileSystem.setController(&mountPoint);
  fileSystem.setConnectionPool(server.pool());
}

// Workers that still hold a connection would give it back to a server that is gone, and what they log on
// their way to their end would be taken for the next test's.
FileSystemTest::~FileSystemTest() {
  server.waitUntilAllReleased();
  workers().waitUntilNone();
}

void FileSystemTest::connect() {
  ASSERT_TRUE(fileSystem.preflight(&error));
  server.clearCalls();
}

void FileSystemTest::connectAt(const std::string& loginPath) {
  server.addFolder(loginPath);
  server.setLoginPath(loginPath);
  connect();
}

void FileSystemTest::makeStale(std::string_view folder) {
  const std::shared_ptr<KCRemoteFileNode> node = fileSystem.nodeForPath(folder);
  ASSERT_NE(node, nullptr);
  node->setExpired(true);
}

std::vector<std::string> FileSystemTest::list(std::string_view path) {
  const auto names = fileSystem.contentsOfDirectoryAtPath(path, &error);
  EXPECT_TRUE(names.has_value()) << path;
  return names.value_or(std::vector<std::string>());
}

std::vector<std::string> FileSystemTest::serverCalls() const {
  return server.callTexts({"acquireConnection", "setDelegate", "releaseConnection"});
}

std::string FileSystemTest::read(const GMUserData& file, size_t size, int64_t offset) {
  std::string bytes(size, '\0');
  const int count = fileSystem.readFileAtPath("/", file, bytes.data(), size, offset, &error);
  EXPECT_GE(count, 0);
  bytes.resize(static_cast<size_t>(std::max(count, 0)));
  return bytes;
}

GMUserData FileSystemTest::open(std::string_view path, int mode) {
  GMUserData file;
  EXPECT_TRUE(fileSystem.openFileAtPath(path, mode, &file, &error)) << path;
  return file;
}

int FileSystemTest::write(std::string_view path, const GMUserData& file, const std::string& text,
                          int64_t offset) {
  return fileSystem.writeFileAtPath(path, file, text.data(), text.size(), offset, &error);
}

std::shared_ptr<OFSRemoteFile> FileSystemTest::fileOnNode(std::string_view path) {
  const std::shared_ptr<KCRemoteFileNode> node = fileSystem._nodeForPath(path);
  return node == nullptr ? nullptr : ofs_remoteFile(*node);
}

void FileSystemTest::waitUntilSettled(const GMUserData& file) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::dynamic_pointer_cast<OFSRemoteFile>(file)->state() != kOFSSettled) {
    ASSERT_LT(std::chrono::steady_clock::now(), limit) << "the transfer does not end";
    std::this_thread::yield();
  }
}

int64_t FileSystemTest::underlyingCode() const {
  const NSErrorRef underlying = error == nullptr ? nullptr : error->underlyingError();
  return underlying == nullptr ? 0 : underlying->code();
}

NSErrorRef refusal(QuarnKitErrorCode code) { return QuarnKitError::errorWithCode(code); }

NSFileAttributes withMode(uint16_t mode) {
  NSFileAttributes attributes;
  attributes.posixPermissions = mode;
  return attributes;
}

NSFileAttributes withSize(uint64_t size) {
  NSFileAttributes attributes;
  attributes.fileSize = size;
  return attributes;
}

}  // namespace ombra
