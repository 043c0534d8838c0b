// How much of the cache is kept, and what becomes of it at the end.
#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

constexpr size_t kMegabyte = 1 << 20;

class Cache : public FileSystemTest {
 protected:
  Cache() {
    for (const char* path : {"/1", "/2", "/3", "/4"}) server.addFile(path, std::string(kMegabyte, 'x'));
    connect();
  }
  // Opens, reads to the end, and lets go: a settled file without handles.
  void use(const std::string& path) {
    const GMUserData file = open(path, kO_RDONLY);
    fileSystem.waitForContent(file, kMegabyte);
    fileSystem.releaseFileAtPath(path, file);
    server.waitUntilAllReleased();
  }
  std::vector<std::string> cached() {
    std::vector<std::string> paths;
    for (const char* path : {"/1", "/2", "/3", "/4"}) {
      if (fileOnNode(path) != nullptr) paths.emplace_back(path);
    }
    return paths;
  }
};

TEST_F(Cache, KeepsEverythingWithinTheBudget) {
  fileSystem.setCacheBudget(8 * kMegabyte, 10);
  for (const char* path : {"/1", "/2", "/3", "/4"}) use(path);
  fileSystem.trimCache();
  EXPECT_THAT(cached(), SizeIs(4));
}

TEST_F(Cache, TheDefaultBudgetKeepsAFewFiles) {
  for (const char* path : {"/1", "/2", "/3", "/4"}) use(path);
  fileSystem.trimCache();
  EXPECT_THAT(cached(), SizeIs(4));
}

TEST_F(Cache, DropsTheOldestFilesBeyondTheBudget) {
  fileSystem.setCacheBudget(3 * kMegabyte, 10);
  for (const char* path : {"/1", "/2", "/3", "/4"}) use(path);
  use("/1");
  fileSystem.trimCache();
  EXPECT_THAT(cached(), UnorderedElementsAre("/1", "/4"));
}

TEST_F(Cache, CountsFilesAsWellAsBytes) {
  fileSystem.setCacheBudget(100 * kMegabyte, 2);
  for (const char* path : {"/1", "/2", "/3", "/4"}) use(path);
  fileSystem.trimCache();
  EXPECT_THAT(cached(), UnorderedElementsAre("/3", "/4"));
}

TEST_F(Cache, ADroppedFileIsFetchedAgain) {
  fileSystem.setCacheBudget(0, 0);
  use("/1");
  fileSystem.trimCache();
  ASSERT_THAT(cached(), IsEmpty());
  server.addFile("/1", "new");
  const GMUserData file = open("/1", kO_RDONLY);
  fileSystem.waitForContent(file, kMegabyte);
  EXPECT_EQ(read(file), "new");
}

TEST_F(Cache, AFileWithAHandleIsKept) {
  fileSystem.setCacheBudget(0, 0);
  const GMUserData file = open("/1", kO_RDONLY);
  const GMUserData second = open("/1", kO_RDONLY);
  fileSystem.waitForContent(file, kMegabyte);
  server.waitUntilAllReleased();
  fileSystem.releaseFileAtPath("/1", second);
  fileSystem.trimCache();
  EXPECT_EQ(fileOnNode("/1"), file);
  fileSystem.releaseFileAtPath("/1", file);
  fileSystem.trimCache();
  EXPECT_EQ(fileOnNode("/1"), nullptr);
}

TEST_F(Cache, AFileThatIsArrivingIsKept) {
  fileSystem.setCacheBudget(0, 0);
  const auto hold = server.hold("downloadFileAtPath", "/1", kMegabyte / 2);
  ASSERT_TRUE(fileSystem.openFileAtPath("/1", kO_RDONLY, nullptr, &error));
  ASSERT_TRUE(hold->waitUntilHeld());
  fileSystem.trimCache();
  EXPECT_NE(fileOnNode("/1"), nullptr);
  hold->release();
}

TEST_F(Cache, AFileThatArrivedAfterItsReleaseCountsWithAllOfIt) {
  fileSystem.setCacheBudget(kMegabyte / 2, 10);
  const auto hold = server.hold("downloadFileAtPath", "/1", 1);
  const GMUserData file = open("/1", kO_RDONLY);
  ASSERT_TRUE(hold->waitUntilHeld());
  gHardLimit = 0;  // the release does not wait for the download
  fileSystem.releaseFileAtPath("/1", file);
  gHardLimit = 60;
  fileSystem.trimCache();
  EXPECT_EQ(fileOnNode("/1"), file) << "it is still arriving";
  hold->release();
  fileSystem.waitForContent(file, kMegabyte);
  fileSystem.trimCache();
  EXPECT_EQ(fileOnNode("/1"), nullptr);
}

TEST_F(Cache, AFileWithoutANodeIsLetGoOnceItHasArrived) {
  const auto hold = server.hold("downloadFileAtPath", "/1", 1);
  const auto file = OFSRemoteFile::remoteFileForPath("/1");
  file->setConnectionPool(server.pool());
  OFSNodeFileTable table;
  table.add(file, fileSystem.nodeForPath("/1"));
  table.beginUse(*file);
  ASSERT_TRUE(file->openWithMode(kO_RDONLY, nullptr));
  ASSERT_TRUE(hold->waitUntilHeld());
  table.endUse(*file);
  table.detach(*file);
  table.lookAgain();
  EXPECT_EQ(table.count(), 1u);
  hold->release();
  file->waitForContent(kMegabyte);
  table.lookAgain();
  EXPECT_EQ(table.count(), 0u);
  EXPECT_EQ(table.bytes(), 0u);
}

class Unsent : public Cache {
 protected:
  Unsent() {
    server.setSupportsUploadByteOffset(false);
    mountPoint.path = "/Volumes/Srv";
    recovered = std::string(getenv("XDG_STATE_HOME")) + "/ombrafs/recovered";
    std::filesystem::remove_all(recovered);
  }
  GMUserData create(const std::string& path) {
    GMUserData file;
    EXPECT_TRUE(fileSystem.createFileAtPath(path, {}, &file, &error));
    return file;
  }
  void refuseUploads() {
    for (const char* operation : {"uploadFileHandle", "uploadFileAtPath", "streamBytesWithFilename"}) {
      server.failAlways(operation, kAnyPath, refusal(kQuarnKitOutOfSpace));
    }
  }
  // A file whose last write the server has refused, and goes on refusing.
  GMUserData writeUnsent(const std::string& path, const std::string& text) {
    const GMUserData file = create(path);
    refuseUploads();
    fileSystem.writeFileAtPath(path, file, text.data(), text.size(), 0, nullptr);
    // What the write has started ends refused, and does not go on when the server accepts uploads again.
    waitUntilSettled(file);
    server.waitUntilAllReleased();
    return file;
  }
  static std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  std::string recovered;
  RecordedLog log;
};

TEST_F(Unsent, IsNeverTrimmed) {
  fileSystem.setCacheBudget(0, 0);
  const GMUserData file = writeUnsent("/new.txt", "precious");
  try {
    fileSystem.releaseFileAtPath("/new.txt", file);
  } catch (const KCException&) {
  }
  fileSystem.trimCache();
  EXPECT_EQ(fileOnNode("/new.txt"), file);
}

TEST_F(Unsent, IsSentAtTheEnd) {
  const GMUserData file = writeUnsent("/new.txt", "precious");
  server.stopFailing();
  EXPECT_THAT(fileSystem.drainAll(), IsEmpty());
  EXPECT_EQ(server.content("/new.txt"), "precious");
  EXPECT_FALSE(std::filesystem::exists(recovered));
}

TEST_F(Unsent, IsSentAtTheEndAlsoWhenItsNodeHasLeftTheTree) {
  GMUserData file = writeUnsent("/new.txt", "precious");
  server.removeItem("/new.txt");
  makeStale("/");
  list("/");
  ASSERT_EQ(fileSystem._nodeForPath("/new.txt"), nullptr);
  try {
    fileSystem.releaseFileAtPath("/new.txt", file);
  } catch (const KCException&) {
  }
  file.reset();
  server.stopFailing();
  EXPECT_THAT(fileSystem.drainAll(), IsEmpty());
  EXPECT_EQ(server.content("/new.txt"), "precious");
}

TEST_F(Unsent, IsSavedAndNamedWhenTheServerRefuses) {
  server.addFolder("/docs");
  makeStale("/");
  const GMUserData file = writeUnsent("/docs/new.txt", "precious");
  const std::vector<GMUndelivered> undelivered = fileSystem.drainAll();
  ASSERT_THAT(undelivered, SizeIs(1));
  EXPECT_EQ(undelivered[0].path, "/docs/new.txt");
  EXPECT_EQ(undelivered[0].savedAs, recovered + "/Srv/docs/new.txt");
  ASSERT_NE(undelivered[0].error, nullptr);
  EXPECT_EQ(undelivered[0].error->code(), kEIO);
  EXPECT_EQ(contentOf(undelivered[0].savedAs), "precious");
  EXPECT_THAT(log.linesWith("/docs/new.txt could not be stored on the server"), SizeIs(1));
  EXPECT_THAT(log.linesWith("a copy is at " + undelivered[0].savedAs), SizeIs(1));
}

TEST_F(Unsent, IsNeverSavedOverAnEarlierCopy) {
  std::filesystem::create_directories(recovered + "/Srv");
  std::ofstream(recovered + "/Srv/new.txt") << "earlier";
  const GMUserData file = writeUnsent("/new.txt", "precious");
  const std::vector<GMUndelivered> undelivered = fileSystem.drainAll();
  ASSERT_THAT(undelivered, SizeIs(1));
  EXPECT_EQ(contentOf(recovered + "/Srv/new.txt"), "earlier");
  EXPECT_EQ(undelivered[0].savedAs, recovered + "/Srv/new.txt 2");
  EXPECT_EQ(contentOf(undelivered[0].savedAs), "precious");
}

TEST_F(Unsent, IsNamedAlsoWhenNoCopyCanBeSaved) {
  std::filesystem::create_directories(recovered);
  std::ofstream(recovered + "/Srv") << "in the way";
  const GMUserData file = writeUnsent("/new.txt", "precious");
  const std::vector<GMUndelivered> undelivered = fileSystem.drainAll();
  ASSERT_THAT(undelivered, SizeIs(1));
  EXPECT_EQ(undelivered[0].savedAs, "");
  EXPECT_THAT(log.linesWith("no copy could be saved either"), SizeIs(1));
}

TEST_F(Unsent, EachOfManyIsSaved) {
  std::vector<GMUserData> files;
  for (int index = 0; index < 9; ++index) files.push_back(create("/new" + std::to_string(index)));
  refuseUploads();
  for (int index = 0; index < 9; ++index) {
    const std::string text = "text " + std::to_string(index);
    fileSystem.writeFileAtPath("/new" + std::to_string(index), files[static_cast<size_t>(index)], text.data(),
                               text.size(), 0, nullptr);
  }
  const std::vector<GMUndelivered> undelivered = fileSystem.drainAll();
  EXPECT_THAT(undelivered, SizeIs(9));
  for (const GMUndelivered& one : undelivered) {
    EXPECT_EQ(contentOf(one.savedAs), "text " + one.path.substr(4));
  }
}

// A controller that fails where it is asked for the volume's name.
class FailingMountPoint final : public OFSMountPathSource {
 public:
  std::optional<std::string> mountPath() const override { throw std::runtime_error("no volume"); }
};

TEST_F(Unsent, IsNamedAlsoWhenItsDeliveryRaises) {
  const GMUserData one = create("/one.txt");
  const GMUserData two = create("/two.txt");
  refuseUploads();
  write("/one.txt", one, "precious");
  write("/two.txt", two, "as well");
  const FailingMountPoint failing;
  fileSystem.setController(const_cast<FailingMountPoint*>(&failing));
  const std::vector<GMUndelivered> undelivered = fileSystem.drainAll();
  fileSystem.setController(&mountPoint);
  std::vector<std::string> paths;
  for (const GMUndelivered& each : undelivered) {
    paths.push_back(each.path);
    EXPECT_EQ(each.savedAs, "");
    ASSERT_NE(each.error, nullptr);
    EXPECT_EQ(each.error->code(), kEIO);
    EXPECT_EQ(each.error->localizedDescription(), "no volume");
  }
  EXPECT_THAT(paths, UnorderedElementsAre("/one.txt", "/two.txt"));
  EXPECT_THAT(log.linesWith(" failed: no volume"), SizeIs(2));
}

TEST_F(Cache, TheEndStopsDownloads) {
  const auto hold = server.hold("downloadFileAtPath", "/1", kMegabyte / 2);
  const GMUserData file = open("/1", kO_RDONLY);
  ASSERT_TRUE(hold->waitUntilHeld());
  EXPECT_THAT(fileSystem.drainAll(), IsEmpty());
  fileSystem.waitForContent(file, kMegabyte);
  EXPECT_EQ(fileSystem.contentStateOfFile(file), GMContentState::kFailed);
}

}  // namespace
}  // namespace ombra
