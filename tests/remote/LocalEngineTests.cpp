// What the engine over system calls promises beyond the contract.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "remote/KCConnectionPool.h"
#include "remote/QuarnKitError.h"
#include "remote/TemporaryNames.h"
#include "remote/local/LocalEngine.h"
#include "remote/local/LocalErrors.h"
#include "tests/support/TemporaryFile.h"

namespace ombra {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

class LocalEngineTest : public testing::Test, public ConnectionDelegate {
 protected:
  void SetUp() override {
    registerLocalEngine();
    std::string pattern = (fs::canonical(fs::temp_directory_path()) / "ombra-local-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    iFolder = pattern;
    connect({});
  }

  void TearDown() override {
    iPool->releaseConnection(std::move(iConnection));
    fs::remove_all(iFolder);
  }

  void connect(const std::map<std::string, std::string>& options) {
    if (iConnection != nullptr) iPool->releaseConnection(std::move(iConnection));
    auto credentials = std::make_shared<KCCredentials>();
    credentials->setProtocol(kProtocolFile);
    credentials->setAddress("localhost");
    for (const auto& [key, value] : options) credentials->setOption(key, value);
    iPool = KCConnectionPool::initWithCredentials(credentials);
    iConnection = iPool->acquireConnection();
  }

  AbstractConnection& connection() { return *iConnection; }
  std::string at(const std::string& name) const { return iFolder + "/" + name; }
  void put(const std::string& name, const std::string& content) { std::ofstream(at(name)) << content; }
  std::string stored(const std::string& name) const {
    std::ostringstream content;
    content << std::ifstream(at(name)).rdbuf();
    return content.str();
  }
  std::vector<std::string> storedNames() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(iFolder)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  std::vector<std::string> listedNames() {
    std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
    EXPECT_TRUE(connection().contentsAtPath(iFolder, &nodes, nullptr));
    std::vector<std::string> names;
    for (const auto& node : nodes) names.push_back(node->filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  bool upload(const std::string& name, const std::string& content, NSErrorRef* error = nullptr) {
    const auto file = temporaryFile(content);
    return connection().uploadFileHandle(*file, name, at(name), 0, nullptr, error);
  }
  struct stat status(const std::string& name) const {
    struct stat result {};
    EXPECT_EQ(lstat(at(name).c_str(), &result), 0) << name;
    return result;
  }

  bool connection(AbstractConnection&, const TrustQuestion&) override { return true; }
  void connection(AbstractConnection&, uint64_t, double, bool) override {
    if (onProgress) onProgress();
  }
  size_t connection(AbstractConnection&, std::byte* buffer, size_t length) override {
    return onBytes ? onBytes(buffer, length) : 0;
  }

  std::function<void()> onProgress;
  std::function<size_t(std::byte*, size_t)> onBytes;
  std::string iFolder;
  std::shared_ptr<KCConnectionPool> iPool;
  std::shared_ptr<AbstractConnection> iConnection;
};

// A folder is not listed anew for each item that is made in it.
TEST_F(LocalEngineTest, WhatIsMadeIsThereUnderTheVeryNameThatItWasGiven) {
  std::vector<std::string> names{" a ", "Case", "a\u0308", "case", "dot.", "\u00e4"};
  for (const std::string& name : names) EXPECT_TRUE(upload(name, "x"));
  std::sort(names.begin(), names.end());
  EXPECT_EQ(listedNames(), names);
}

TEST_F(LocalEngineTest, OptionInPlaceDecidesWhetherOffsetsAreSupported) {
  EXPECT_TRUE(connection().supportsUploadByteOffset());
  connect({{"inPlace", "0"}});
  EXPECT_FALSE(connection().supportsUploadByteOffset());
  connect({{"inPlace", "1"}});
  EXPECT_TRUE(connection().supportsUploadByteOffset());
}

TEST_F(LocalEngineTest, OptionStreamingOffRefusesStreamsBeforeTakingData) {
  connect({{"streaming", "0"}});
  bool asked = false;
  onBytes = [&](std::byte*, size_t) -> size_t {
    asked = true;
    return 0;
  };
  NSErrorRef error;
  EXPECT_FALSE(connection().streamBytesWithFilename("f", at("f"), *this, &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNotSupported));
  EXPECT_FALSE(asked);
  EXPECT_TRUE(storedNames().empty());
}

TEST_F(LocalEngineTest, LoginFolderIsTheHomeOfTheUserAndTildeMeansIt) {
  ASSERT_TRUE(connection().connect(nullptr));
  const std::optional<std::string> home = connection().loginPath();
  ASSERT_TRUE(home.has_value());
  ASSERT_TRUE(connection().changeDir(iFolder, nullptr));
  ASSERT_TRUE(connection().changeDir("~", nullptr));
  EXPECT_EQ(connection().pwd(nullptr), home);
  NSErrorRef error;
  EXPECT_FALSE(connection().changeDir("~no such user/x", &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNoSuchItem));
}

TEST_F(LocalEngineTest, AFileOnItsWayHasATemporaryNameThatIsNotListed) {
  put("file", "old");
  std::vector<std::string> listedMeanwhile;
  std::vector<std::string> storedMeanwhile;
  std::string contentMeanwhile;
  onBytes = [&, given = false](std::byte* buffer, size_t) mutable -> size_t {
    if (given) {
      storedMeanwhile = storedNames();
      contentMeanwhile = stored("file");
      return 0;
    }
    given = true;
    std::memcpy(buffer, "new", 3);
    return 3;
  };
  EXPECT_TRUE(connection().streamBytesWithFilename("file", at("file"), *this, nullptr));
  ASSERT_EQ(storedMeanwhile.size(), 2u);
  EXPECT_TRUE(isTemporaryName(storedMeanwhile[0])) << storedMeanwhile[0];
  EXPECT_EQ(contentMeanwhile, "old");
  EXPECT_EQ(stored("file"), "new");
  EXPECT_THAT(storedNames(), ElementsAre("file"));
  // One that a killed process left behind is not shown either, and only such names are hidden.
  put(storedMeanwhile[0], "rest");
  put(".ombra-upload-mine", "a name like any other");
  EXPECT_THAT(listedNames(), ElementsAre(".ombra-upload-mine", "file"));
}

TEST_F(LocalEngineTest, AFailedUploadLeavesTheOldContentAndNoTemporaryFile) {
  put("file", "old");
  iConnection->setDelegate(this);
  onProgress = [this] { iConnection->setShouldCancel(true); };
  EXPECT_FALSE(upload("file", std::string(1000000, 'n')));
  iConnection->setDelegate(nullptr);
  EXPECT_EQ(stored("file"), "old");
  EXPECT_THAT(storedNames(), ElementsAre("file"));
}

TEST_F(LocalEngineTest, AFailedUploadLeavesWhatItWasToSendUnconfirmed) {
  const auto file = temporaryFile(std::string(1000000, 'n'));
  iConnection->setDelegate(this);
  onProgress = [this] { iConnection->setShouldCancel(true); };
  EXPECT_FALSE(connection().uploadFileHandle(*file, "f", at("f"), 0, nullptr, nullptr));
  iConnection->setDelegate(nullptr);
  EXPECT_EQ(file->unconfirmedExtents(0), (std::vector<FileExtent>{{0, 1000000}}));
}

// Written in place, where nothing of what had been confirmed is left.
TEST_F(LocalEngineTest, AFailedUploadIntoAFileWithOtherNamesLeavesAllOfItUnconfirmed) {
  const auto file = temporaryFile(std::string(1000000, 'n'));
  ASSERT_TRUE(connection().uploadFileHandle(*file, "f", at("f"), 0, nullptr, nullptr));
  fs::create_hard_link(at("f"), at("other"));
  iConnection->setDelegate(this);
  onProgress = [this] { iConnection->setShouldCancel(true); };
  EXPECT_FALSE(connection().uploadFileHandle(*file, "f", at("f"), 0, nullptr, nullptr));
  iConnection->setDelegate(nullptr);
  EXPECT_EQ(file->unconfirmedExtents(0), (std::vector<FileExtent>{{0, 1000000}}));
}

TEST_F(LocalEngineTest, AFailedUploadIntoAFileThatIsGoneLeavesAllOfItUnconfirmed) {
  const auto file = temporaryFile(std::string(1000000, 'n'));
  ASSERT_TRUE(connection().uploadFileHandle(*file, "f", at("f"), 0, nullptr, nullptr));
  fs::remove(at("f"));
  file->noteWritten({500000, 500004});
  iConnection->setDelegate(this);
  onProgress = [this] { iConnection->setShouldCancel(true); };
  EXPECT_FALSE(connection().uploadFileHandle(*file, "f", at("f"), 500000, nullptr, nullptr));
  iConnection->setDelegate(nullptr);
  EXPECT_EQ(file->unconfirmedExtents(0), (std::vector<FileExtent>{{0, 1000000}}));
}

// Where the program reads and writes next is not the engine's to change.
TEST_F(LocalEngineTest, AnUploadLeavesThePositionOfTheFileWhereItWas) {
  const auto file = temporaryFile(std::string(1000, 'n'));
  ASSERT_TRUE(file->writeAll("end", 3, 1000000));
  ASSERT_EQ(lseek(file->fileDescriptor(), 77, SEEK_SET), 77);
  ASSERT_TRUE(connection().uploadFileHandle(*file, "f", at("f"), 0, nullptr, nullptr));
  EXPECT_EQ(lseek(file->fileDescriptor(), 0, SEEK_CUR), 77);
  file->noteWritten({500, 600});
  ASSERT_TRUE(connection().uploadFileHandle(*file, "f", at("f"), 500, nullptr, nullptr));
  EXPECT_EQ(lseek(file->fileDescriptor(), 0, SEEK_CUR), 77);
}

// The program goes on where a change of attributes is told to be impossible, and only there.
TEST_F(LocalEngineTest, AFileSystemWithoutAnAttributeIsCode17) {
  EXPECT_TRUE(
      QuarnKitError::isCode(localAttributeError(EOPNOTSUPP, "/f"), kQuarnKitAttributeChangeNotSupported));
  EXPECT_TRUE(QuarnKitError::isCode(localAttributeError(EPERM, "/f"), kQuarnKitPermissionDenied));
  EXPECT_TRUE(QuarnKitError::isCode(localAttributeError(ENOENT, "/f"), kQuarnKitNoSuchItem));
  EXPECT_TRUE(QuarnKitError::isCode(localServerError(EOPNOTSUPP, "/f"), kQuarnKitNotSupported));
}

TEST_F(LocalEngineTest, WhatIsWrittenDuringAnUploadStaysUnconfirmed) {
  const auto file = temporaryFile(std::string(1000000, 'n'));
  iConnection->setDelegate(this);
  bool written = false;
  onProgress = [&] {
    if (!written) file->noteWritten({10, 20});
    written = true;
  };
  EXPECT_TRUE(connection().uploadFileHandle(*file, "f", at("f"), 0, nullptr, nullptr));
  iConnection->setDelegate(nullptr);
  EXPECT_EQ(file->unconfirmedExtents(0), (std::vector<FileExtent>{{10, 20}}));
}

TEST_F(LocalEngineTest, OtherNamesOfAFileKeepItsContent) {
  put("file", "old");
  fs::create_hard_link(at("file"), at("other"));
  EXPECT_TRUE(upload("file", "new"));
  EXPECT_EQ(stored("other"), "new");
  EXPECT_EQ(status("file").st_ino, status("other").st_ino);
}

TEST_F(LocalEngineTest, ALinkIsWrittenThroughAndNotReplaced) {
  put("target", "old");
  fs::create_symlink("target", at("link"));
  fs::create_symlink("made", at("dangling"));
  EXPECT_TRUE(upload("link", "new"));
  EXPECT_TRUE(upload("dangling", "made through a link"));
  EXPECT_TRUE(S_ISLNK(status("link").st_mode));
  EXPECT_EQ(stored("target"), "new");
  EXPECT_EQ(stored("made"), "made through a link");
}

TEST_F(LocalEngineTest, AReplacedFileKeepsModeAndOwner) {
  put("file", "old");
  ASSERT_EQ(chmod(at("file").c_str(), 0751), 0);
  if (geteuid() == 0) {
    ASSERT_EQ(chown(at("file").c_str(), 12345, 54321), 0);
    ASSERT_EQ(chmod(at("file").c_str(), 04751), 0);
  }
  const struct stat before = status("file");
  EXPECT_TRUE(upload("file", "new"));
  EXPECT_EQ(status("file").st_mode, before.st_mode);
  EXPECT_EQ(status("file").st_uid, before.st_uid);
  EXPECT_EQ(status("file").st_gid, before.st_gid);
}

TEST_F(LocalEngineTest, HolesStayHolesInBothDirections) {
  constexpr uint64_t kEnd = 64 * 1024 * 1024;
  const auto file = temporaryFile("head");
  ASSERT_TRUE(file->writeAll("tail", 4, kEnd - 4));
  ASSERT_TRUE(connection().uploadFileHandle(*file, "f", at("f"), 0, nullptr, nullptr));
  EXPECT_EQ(static_cast<uint64_t>(status("f").st_size), kEnd);
  EXPECT_LT(status("f").st_blocks * 512, 1024 * 1024);
  const auto back = temporaryFile();
  uint64_t bytes = 0;
  ASSERT_TRUE(connection().downloadFileAtPath(at("f"), *back, 0, &bytes, nullptr));
  EXPECT_EQ(bytes, kEnd);
  struct stat local {};
  ASSERT_EQ(fstat(back->fileDescriptor(), &local), 0);
  EXPECT_EQ(static_cast<uint64_t>(local.st_size), kEnd);
  EXPECT_LT(local.st_blocks * 512, 1024 * 1024);
  char text[5] = "";
  EXPECT_EQ(back->readAt(text, 4, kEnd - 4), 4);
  EXPECT_STREQ(text, "tail");
  EXPECT_EQ(back->readAt(text, 4, 0), 4);
  EXPECT_STREQ(text, "head");
}

TEST_F(LocalEngineTest, AFileThatIsAllHoleKeepsItsLength) {
  const auto file = temporaryFile();
  ASSERT_EQ(ftruncate(file->fileDescriptor(), 1000000), 0);
  ASSERT_TRUE(connection().uploadFileHandle(*file, "f", at("f"), 0, nullptr, nullptr));
  EXPECT_EQ(stored("f"), std::string(1000000, '\0'));
}

TEST_F(LocalEngineTest, AHoleOverOldDataReadsAsZeros) {
  put("f", std::string(300000, 'o'));
  const auto file = temporaryFile("head", NSFileHandle::Kind::kFile);
  ASSERT_TRUE(file->writeAll("tail", 4, 299996));
  ASSERT_TRUE(connection().uploadFileHandle(*file, "f", at("f"), 1, nullptr, nullptr));
  std::string expected(300000, '\0');
  expected.replace(0, 4, "oead");
  expected.replace(299996, 4, "tail");
  EXPECT_TRUE(stored("f") == expected);
}

TEST_F(LocalEngineTest, AMoveReplacesNothing) {
  put("a", "new");
  put("b", "old");
  NSErrorRef error;
  EXPECT_FALSE(connection().moveItemFromPath(at("a"), false, at("b"), &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitItemExists));
  EXPECT_EQ(stored("a"), "new");
  EXPECT_EQ(stored("b"), "old");
}

TEST_F(LocalEngineTest, APipeIsNeitherWaitedForNorRead) {
  ASSERT_EQ(mkfifo(at("pipe").c_str(), 0600), 0);
  EXPECT_THAT(listedNames(), ElementsAre("pipe"));
  const auto file = temporaryFile();
  NSErrorRef error;
  EXPECT_FALSE(connection().downloadFileAtPath(at("pipe"), *file, 0, nullptr, &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitRefused));
}

TEST_F(LocalEngineTest, NamesThatAreNotUTF8AreListedAsTheyAre) {
  put("caf\xE9", "x");
  EXPECT_THAT(listedNames(), ElementsAre("caf\xE9"));
  EXPECT_TRUE(connection().deleteItemAtPath(at("caf\xE9"), false, nullptr));
  EXPECT_TRUE(storedNames().empty());
}

TEST_F(LocalEngineTest, TheSystemsErrorLiesBeneath) {
  NSErrorRef error;
  EXPECT_FALSE(connection().createFolderAtPath(at(std::string(300, 'n')), &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNameInvalid));
  ASSERT_NE(error->underlyingError(), nullptr);
  EXPECT_EQ(error->underlyingError()->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(error->underlyingError()->code(), ENAMETOOLONG);
}

TEST_F(LocalEngineTest, OwnerIsChangedBeforeTheModeSoThatTheModeHolds) {
  put("f", "x");
  NSFileAttributes wanted;
  wanted.ownerAccountID = 12345;
  wanted.groupOwnerAccountID = 54321;
  wanted.posixPermissions = 06755;
  NSErrorRef error;
  const bool changed = connection().changeAttributes(wanted, at("f"), &error);
  EXPECT_EQ(changed, geteuid() == 0) << "only root may give files away";
  if (!changed) {
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitPermissionDenied));
    return;
  }
  EXPECT_EQ(status("f").st_mode & 07777, 06755u);
  EXPECT_EQ(status("f").st_uid, 12345u);
  EXPECT_EQ(status("f").st_gid, 54321u);
}

}  // namespace
}  // namespace ombra
