// The open file over the library's own pool and its engine for local folders, in real time.

#include <filesystem>
#include <fstream>

#include "remote/local/LocalEngine.h"
#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

struct Engine {
  const char* name;
  bool inPlace;
  bool streaming;
};

class OverLocalFolder : public RemoteFileTest, public ::testing::WithParamInterface<Engine> {
 protected:
  void SetUp() override {
    RemoteFileTest::SetUp();
    clock.reset();
    gStreamingSupported = GetParam().streaming;
    iServerFolder = iFolder + "-server";
    std::filesystem::create_directory(iServerFolder);
    registerLocalEngine();
    auto credentials = std::make_shared<KCCredentials>();
    credentials->setProtocol(kProtocolFile);
    credentials->setOption("inPlace", GetParam().inPlace ? "1" : "0");
    iPool = KCConnectionPool::initWithCredentials(credentials);
    ASSERT_NE(iPool, nullptr);
  }

  void TearDown() override {
    RemoteFileTest::TearDown();
    if (iPool) iPool->shutDown();
    std::filesystem::remove_all(iServerFolder);
  }

  std::shared_ptr<OFSRemoteFile> fileNamed(const std::string& name) {
    auto made = makeFile(iServerFolder + "/" + name);
    made->setConnectionPool(iPool);
    return made;
  }

  std::string stored(const std::string& name) const {
    std::ifstream stream(iServerFolder + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  void store(const std::string& name, const std::string& content) const {
    std::ofstream(iServerFolder + "/" + name, std::ios::binary) << content;
  }

  std::string iServerFolder;
  std::shared_ptr<KCConnectionPool> iPool;
};

std::string patterned(size_t size) {
  std::string content(size, '\0');
  for (size_t i = 0; i < size; ++i) content[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return content;
}

TEST_P(OverLocalFolder, AFileIsReadWhole) {
  const std::string content = patterned(3 << 20);
  store("a", content);
  file = fileNamed("a");
  ASSERT_TRUE(file->openWithMode(kO_RDONLY, nullptr));
  const NSData data = file->data();
  EXPECT_EQ(std::string(data.begin(), data.end()), content);
}

TEST_P(OverLocalFolder, ANewFileWrittenFrontToBackIsStored) {
  const std::string content = patterned((1 << 20) + 13);
  file = fileNamed("a");
  ASSERT_TRUE(file->openWithMode(kO_RDWR | kO_CREAT, nullptr));
  for (size_t offset = 0; offset < content.size(); offset += 65536) {
    const std::string piece = content.substr(offset, 65536);
    ASSERT_EQ(write(*file, piece, static_cast<int64_t>(offset)), static_cast<int>(piece.size()));
  }
  EXPECT_TRUE(file->synchronize(nullptr));
  file->close();
  EXPECT_EQ(stored("a"), content);
  EXPECT_TRUE(file->isCovered());
}

TEST_P(OverLocalFolder, AHeaderPatchedAfterwardsIsStored) {
  std::string content = patterned(300000);
  file = fileNamed("a");
  ASSERT_TRUE(file->openWithMode(kO_RDWR | kO_CREAT, nullptr));
  ASSERT_EQ(write(*file, content, 0), 300000);
  ASSERT_EQ(write(*file, "HEADER", 0), 6);
  EXPECT_TRUE(file->synchronize(nullptr));
  content.replace(0, 6, "HEADER");
  EXPECT_EQ(stored("a"), content);
}

TEST_P(OverLocalFolder, AnExistingFileIsChangedInTheMiddleAndAtItsEnd) {
  std::string content = patterned(200000);
  store("a", content);
  file = fileNamed("a");
  ASSERT_TRUE(file->openWithMode(kO_RDWR, nullptr));
  ASSERT_EQ(write(*file, "MIDDLE", 100000), 6);
  ASSERT_EQ(write(*file, "END", 200000), 3);
  EXPECT_TRUE(file->synchronize(nullptr));
  content.replace(100000, 6, "MIDDLE");
  EXPECT_EQ(stored("a"), content + "END");
}

TEST_P(OverLocalFolder, AFileIsTruncated) {
  store("a", patterned(1000));
  file = fileNamed("a");
  ASSERT_TRUE(file->openWithMode(kO_RDWR, nullptr));
  ASSERT_TRUE(file->_truncateToOffset(10, nullptr));
  EXPECT_EQ(stored("a"), patterned(10));
  ASSERT_TRUE(file->_truncateToOffset(12, nullptr));
  EXPECT_EQ(stored("a"), patterned(10) + std::string(2, '\0'));
}

TEST_P(OverLocalFolder, PermissionsReachTheServer) {
  store("a", "x");
  file = fileNamed("a");
  ASSERT_TRUE(file->openWithMode(kO_RDWR, nullptr));
  NSFileAttributes change;
  change.posixPermissions = 0604;
  EXPECT_TRUE(file->setAttributes(change, nullptr));
  EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(iServerFolder + "/a").permissions()), 0604u);
}

TEST_P(OverLocalFolder, AMissingFileOpensWithFailedContent) {
  file = fileNamed("missing");
  ASSERT_TRUE(file->openWithMode(kO_RDONLY, nullptr));
  EXPECT_EQ(read(*file, 10, 0), "");
  EXPECT_EQ(file->contentState(), GMContentState::kFailed);
  EXPECT_FALSE(std::filesystem::exists(iServerFolder + "/missing"));
}

INSTANTIATE_TEST_SUITE_P(Engines, OverLocalFolder,
                         ::testing::Values(Engine{"InPlace", true, true}, Engine{"Streaming", false, true},
                                           Engine{"WholeFileUploads", false, false}),
                         [](const auto& parameter) { return parameter.param.name; });

}  // namespace
}  // namespace ombra
