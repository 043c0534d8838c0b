// Opening, reading, writing and closing files through a mount.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "tests/userfs/MountFixture.h"

namespace ombra {
namespace {

class MountFilesTest : public MountTest {
 protected:
  off_t sizeOf(const std::string& path) {
    struct stat attributes {};
    return stat(at(path).c_str(), &attributes) == 0 ? attributes.st_size : -1;
  }
};

std::string pattern(size_t size) {
  std::string text(size, '\0');
  for (size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + (i * 31 + i / 4096) % 26);
  return text;
}

TEST_F(MountFilesTest, ALargeFileIsReadAsItIs) {
  const std::string content = pattern(5 * 1024 * 1024 + 77);
  iFiles.addFile("/a", content);
  mount();
  EXPECT_EQ(contentOfFile(at("/a")), content);
}

TEST_F(MountFilesTest, ALargeFileIsReadInLargePieces) {
  iFiles.addFile("/a", pattern(8 * 1024 * 1024));
  mount();
  contentOfFile(at("/a"));
  // 128 KiB is what the system allows without the right to raise its read-ahead.
  EXPECT_LE(iFiles.countOf("read /a"), 8u * 8u + 8u);
  RecordProperty("requests", static_cast<int>(iFiles.countOf("read /a")));
}

TEST_F(MountFilesTest, WritesArriveInLargePieces) {
  mount();
  const std::string content = pattern(4 * 1024 * 1024);
  alignas(4096) static char sBuffer[4 * 1024 * 1024];
  std::copy(content.begin(), content.end(), sBuffer);
  const File file(at("/a"), O_CREAT | O_WRONLY);
  ASSERT_EQ(write(file.get(), sBuffer, sizeof sBuffer), static_cast<ssize_t>(sizeof sBuffer));
  EXPECT_EQ(iFiles.contentOf("/a"), content);
  EXPECT_EQ(iFiles.countOf("write /a 1048576"), 4u);
}

TEST_F(MountFilesTest, ANewFileIsCreatedByTheDelegateWithItsMode) {
  mount();
  const File file(at("/a"), O_CREAT | O_EXCL | O_RDWR, 0640);
  EXPECT_TRUE(file.isOpen());
  EXPECT_EQ(iFiles.countOf("create /a 0640"), 1u);
}

TEST_F(MountFilesTest, OpenFlagsArriveAsTheInterfaceNumbersThem) {
  iFiles.addFile("/a", "content");
  mount();
  File(at("/a"), O_RDONLY);
  File(at("/a"), O_WRONLY | O_APPEND);
  File(at("/a"), O_RDWR | O_TRUNC | O_NOFOLLOW);
  std::vector<std::string> opens;
  for (const std::string& call : iFiles.calls()) {
    if (call.compare(0, 5, "open ") == 0) opens.push_back(call);
  }
  EXPECT_EQ(opens, (std::vector<std::string>{"open /a 0x0", "open /a 0x9", "open /a 0x402"}));
}

TEST_F(MountFilesTest, AFailedContentIsForgottenBeforeEachOpenAndTheFirstOneSeedsTheCache) {
  iFiles.addFile("/a", "content");
  mount();
  File(at("/a"), O_RDONLY);
  File(at("/a"), O_RDONLY);
  std::vector<std::string> order;
  for (const std::string& call : iFiles.calls()) {
    for (const char* kind : {"forget /a", "open /a", "seed /a"}) {
      if (call.compare(0, std::string(kind).size(), kind) == 0) order.emplace_back(kind);
    }
  }
  EXPECT_EQ(order, (std::vector<std::string>{"forget /a", "open /a", "seed /a", "forget /a", "open /a"}));
}

TEST_F(MountFilesTest, TruncatingAFileThatNobodyPreparedGoesWithItsOpen) {
  iFiles.addFile("/a", "content");
  mount();
  const File file(at("/a"), O_WRONLY | O_TRUNC);
  EXPECT_EQ(iFiles.contentOf("/a"), "");
  EXPECT_EQ(iFiles.countOf("truncate"), 0u);
  EXPECT_EQ(sizeOf("/a"), 0);
}

TEST_F(MountFilesTest, TruncatingAPreparedFileAtItsOpenTruncatesTheHandle) {
  iFiles.addFile("/a", "content");
  mount();
  const File first(at("/a"), O_RDONLY);
  const File second(at("/a"), O_WRONLY | O_TRUNC);
  EXPECT_EQ(iFiles.contentOf("/a"), "");
  EXPECT_EQ(iFiles.countOf("truncate /a 0 open"), 1u);
}

TEST_F(MountFilesTest, TruncatingAClosedFileToNothingFetchesNothingAndIsStoredWhenItReturns) {
  iFiles.addFile("/a", "content");
  mount();
  EXPECT_EQ(truncate(at("/a").c_str(), 0), 0);
  EXPECT_EQ(iFiles.contentOf("/a"), "");
  EXPECT_EQ(iFiles.countOf("open /a 0x401"), 1u);
  EXPECT_GE(iFiles.countOf("synchronize /a"), 1u);
  iFiles.waitForCalls("release /a", 1);
}

TEST_F(MountFilesTest, TruncatingAClosedFileToALengthOpensItForThatAndIsStoredWhenItReturns) {
  iFiles.addFile("/a", "content");
  mount();
  EXPECT_EQ(truncate(at("/a").c_str(), 3), 0);
  EXPECT_EQ(iFiles.contentOf("/a"), "con");
  EXPECT_EQ(iFiles.countOf("truncate /a 3 open"), 1u);
  EXPECT_GE(iFiles.countOf("synchronize /a"), 1u);
  iFiles.waitForCalls("release /a", 1);
  std::vector<std::string> order;
  for (const std::string& call : iFiles.calls()) {
    for (const char* kind : {"forget /a", "open /a 0x2", "seed /a", "truncate /a"}) {
      if (call.starts_with(kind)) order.emplace_back(kind);
    }
  }
  EXPECT_EQ(order, (std::vector<std::string>{"forget /a", "open /a 0x2", "seed /a", "truncate /a"}));
}

TEST_F(MountFilesTest, AnOpenWhoseTruncationFailsIsGivenBack) {
  iFiles.addFile("/a", "content");
  mount();
  const File first(at("/a"), O_RDONLY);
  iFiles.failWith("truncate", kEACCES);
  EXPECT_EQ(File(at("/a"), O_WRONLY | O_TRUNC).error(), EACCES);
  EXPECT_EQ(iFiles.countOf("release /a"), 1u);
}

TEST_F(MountFilesTest, AnOpenWhoseTruncationFailsAndWhoseReleaseRaisesFailsForTheTruncation) {
  iFiles.addFile("/a", "content");
  mount();
  const File first(at("/a"), O_RDONLY);
  iFiles.failWith("truncate", kEACCES);
  iFiles.raiseIn("release");
  EXPECT_EQ(File(at("/a"), O_WRONLY | O_TRUNC).error(), EACCES);
}

TEST_F(MountFilesTest, AnOpenFileThatWasDroppedFromTheCacheMeanwhileIsSeededLikeANewOne) {
  class Trimming : public DurableMemoryFileSystem {
   public:
    // Answered before the cache is trimmed; the open then makes another.
    GMUserData openFileAtPathIfAny(OptionalPath) override {
      return std::make_shared<MemoryOpenFile>(std::make_shared<MemoryItem>());
    }
  } files;
  files.addFile("/a", "content");
  mountDelegate(&files);
  { const File file(at("/a"), O_RDONLY); }
  EXPECT_EQ(files.countOf("seed /a"), 1u);
  iFileSystem.reset();
}

TEST_F(MountFilesTest, TruncatingAnOpenFileGoesThroughItsHandle) {
  iFiles.addFile("/a", "content");
  mount();
  const File file(at("/a"), O_RDWR);
  EXPECT_EQ(ftruncate(file.get(), 2), 0);
  EXPECT_EQ(truncate(at("/a").c_str(), 5), 0);
  EXPECT_EQ(iFiles.contentOf("/a"), std::string("co\0\0\0", 5));
  EXPECT_EQ(iFiles.countOf("truncate /a 2 open") + iFiles.countOf("truncate /a 5 open"), 2u);
}

TEST_F(MountFilesTest, ATruncationThatFailedBehindASuccessIsToldAllTheSame) {
  iFiles.addFile("/a", "content");
  mount();
  const File file(at("/a"), O_RDWR);
  iFiles.failWith("truncate", kEIO);
  EXPECT_EQ(errnoOf([&] { return ftruncate(file.get(), 2); }), EIO);
}

TEST_F(MountFilesTest, AnErrorBesideATruncationThatTookPlaceIsNone) {
  class Complaining : public DurableMemoryFileSystem {
   public:
    bool truncateFileAtPath(OptionalPath path, const GMUserData& userData, int64_t offset,
                            NSErrorRef* error) override {
      MemoryFileSystem::truncateFileAtPath(path, userData, offset, nullptr);
      return fail(kEIO, error), true;
    }
  } files;
  files.addFile("/a", "content");
  mountDelegate(&files);
  {
    const File file(at("/a"), O_RDWR);
    EXPECT_EQ(errnoOf([&] { return ftruncate(file.get(), 2); }), 0);
  }
  iFileSystem.reset();
}

TEST_F(MountFilesTest, SecondOpensWaitForTheFirstOfTheirPath) {
  iFiles.addFile("/a", "content");
  iFiles.addFile("/b", "other");
  iFiles.hold("open", "/a");
  mount();
  std::vector<std::thread> openers;
  for (int i = 0; i < 4; ++i) openers.emplace_back([this] { EXPECT_EQ(contentOfFile(at("/a")), "content"); });
  iFiles.waitUntilHeld(1);
  // Another path is not held up, and by the time it is done no second open of /a has got through.
  EXPECT_EQ(contentOfFile(at("/b")), "other");
  EXPECT_EQ(iFiles.countOf("open /a"), 1u);
  iFiles.letGo("open", "/a");
  for (std::thread& opener : openers) opener.join();
  EXPECT_EQ(iFiles.countOf("open /a"), 4u);
}

TEST_F(MountFilesTest, AnOpenWaitsForTheOpenHiddenInATruncation) {
  iFiles.addFile("/a", "content");
  iFiles.hold("truncate", "/a");
  mount();
  std::thread truncating([this] { EXPECT_EQ(truncate(at("/a").c_str(), 3), 0); });
  iFiles.waitUntilHeld(1);
  std::thread opener([this] { EXPECT_TRUE(File(at("/a"), O_RDONLY).isOpen()); });
  EXPECT_EQ(sizeOf("/"), 0);
  EXPECT_EQ(iFiles.countOf("open /a"), 1u) << "the one of the truncation";
  iFiles.letGo("truncate", "/a");
  truncating.join();
  opener.join();
  EXPECT_EQ(iFiles.countOf("open /a"), 2u);
}

TEST_F(MountFilesTest, PagesStayFromOpenToOpenWhileTheOpenFileIsTheSame) {
  iFiles.addFile("/a", "content");
  mount();
  EXPECT_EQ(contentOfFile(at("/a")), "content");
  const size_t reads = iFiles.countOf("read /a");
  EXPECT_EQ(contentOfFile(at("/a")), "content");
  EXPECT_EQ(iFiles.countOf("read /a"), reads);
}

TEST_F(MountFilesTest, PagesGoWhenTheOpenFileIsAnother) {
  iFiles.addFile("/a", "content");
  mount();
  EXPECT_EQ(contentOfFile(at("/a")), "content");
  iFiles.erase("/a");
  iFiles.addFile("/a", "CONTENT");
  EXPECT_EQ(contentOfFile(at("/a")), "CONTENT");
}

TEST_F(MountFilesTest, PagesGoWhenTheyAreInvalidated) {
  class Changing : public DurableMemoryFileSystem {
   public:
    void change(const std::string& path, const std::string& content) {
      ConditionLock lock(iCondition);
      find(path)->content = content;
    }
  } files;
  files.addFile("/a", "content");
  mountDelegate(&files);
  EXPECT_EQ(contentOfFile(at("/a")), "content");
  files.change("/a", "CONTENT");
  EXPECT_EQ(contentOfFile(at("/a")), "content") << "answered from the kernel's pages";
  iFileSystem->invalidateItemAtPath("/a", true);
  while (contentOfFile(at("/a")) != "CONTENT") std::this_thread::yield();
  iFileSystem.reset();
}

TEST_F(MountFilesTest, ClosingAWrittenFileWaitsForTheServerAndTellsItsFailure) {
  mount();
  File file(at("/a"), O_CREAT | O_WRONLY);
  ASSERT_EQ(write(file.get(), "x", 1), 1);
  iFiles.failWith("synchronize", kEIO);
  EXPECT_EQ(file.close(), EIO);
}

TEST_F(MountFilesTest, ClosingAFileThatWasOnlyReadAsksForNothing) {
  iFiles.addFile("/a", "content");
  mount();
  EXPECT_EQ(contentOfFile(at("/a")), "content");
  iFiles.waitForCalls("release /a", 1);
  EXPECT_EQ(iFiles.countOf("synchronize"), 0u);
}

TEST_F(MountFilesTest, AChildThatClosesItsCopyDoesNotWaitForTheServer) {
  mount();
  File file(at("/a"), O_CREAT | O_WRONLY);
  ASSERT_EQ(write(file.get(), "x", 1), 1);
  const pid_t child = fork();
  if (child == 0) _exit(close(file.get()) == 0 ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(iFiles.countOf("synchronize"), 0u);
  EXPECT_EQ(file.close(), 0);
  EXPECT_GE(iFiles.countOf("synchronize"), 1u);
}

TEST_F(MountFilesTest, AnotherThreadOfTheProcessMayCloseAndIsToldTheFailure) {
  mount();
  File file(at("/a"), O_CREAT | O_WRONLY);
  ASSERT_EQ(write(file.get(), "x", 1), 1);
  iFiles.failWith("synchronize", kEIO);
  int result = 0;
  std::thread([&] { result = file.close(); }).join();
  EXPECT_EQ(result, EIO);
}

TEST_F(MountFilesTest, SynchronisingAsksTheDelegateEachTime) {
  iFiles.addFile("/a", "content");
  mount();
  const File file(at("/a"), O_RDONLY);
  EXPECT_EQ(fsync(file.get()), 0);
  EXPECT_EQ(fdatasync(file.get()), 0);
  EXPECT_EQ(iFiles.countOf("synchronize /a"), 2u);
  iFiles.failWith("synchronize", kEACCES);
  EXPECT_EQ(errnoOf([&] { return fsync(file.get()); }), EACCES);
}

TEST_F(MountFilesTest, SynchronisingBringsTheFileToTheServersDiskAndClosingDoesNot) {
  mount();
  File file(at("/a"), O_CREAT | O_WRONLY);
  ASSERT_EQ(write(file.get(), "x", 1), 1);
  EXPECT_EQ(fsync(file.get()), 0);
  EXPECT_EQ(iFiles.countOf("flushFile /a"), 1u);
  const auto calls = iFiles.calls();
  EXPECT_LT(std::find(calls.begin(), calls.end(), "synchronize /a"),
            std::find(calls.begin(), calls.end(), "flushFile /a"));
  iFiles.failWith("flushFile", kEIO);
  EXPECT_EQ(errnoOf([&] { return fsync(file.get()); }), EIO);
  EXPECT_EQ(file.close(), 0);
}

// In a process of its own: a page fault holds the lock of the address space, which the threads that answer it
// need.
int writeThroughMapping(const std::string& path) {
  const int file = open(path.c_str(), O_RDWR);
  void* map = mmap(nullptr, 7, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (map == MAP_FAILED || close(file) != 0) return 1;
  static_cast<char*>(map)[0] = 'C';
  return munmap(map, 7) == 0 ? 0 : 1;
}

TEST_F(MountFilesTest, WritesThroughAMappingAfterTheCloseAreStoredBeforeTheRelease) {
  iFiles.addFile("/a", "content");
  mount();
  const std::string path = at("/a");
  const pid_t child = fork();
  if (child == 0) _exit(writeThroughMapping(path));
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  iFiles.waitForCalls("release /a", 1);
  EXPECT_EQ(iFiles.contentOf("/a"), "Content");
  const auto calls = iFiles.calls();
  EXPECT_LT(std::find(calls.begin(), calls.end(), "synchronize /a"),
            std::find(calls.begin(), calls.end(), "release /a"));
}

TEST_F(MountFilesTest, AReleaseThatTakesLongHoldsUpNothing) {
  iFiles.addFile("/a", "content");
  iFiles.hold("release", "/a");
  mount();
  constexpr size_t kFiles = 40;
  for (size_t i = 0; i < kFiles; ++i) EXPECT_EQ(contentOfFile(at("/a")), "content");
  iFiles.waitUntilHeld(kFiles);
  EXPECT_EQ(namesIn(mountPath()).size(), 1u);
  iFiles.letGo("release", "/a");
}

TEST_F(MountFilesTest, AReleaseThatRaisesIsLoggedAndTheCacheIsTrimmedAfterIt) {
  iFiles.addFile("/a", "content");
  iFiles.raiseIn("release");
  mount();
  EXPECT_EQ(contentOfFile(at("/a")), "content");
  iFiles.waitForCalls("trim", 1);
  EXPECT_EQ(contentOfFile(at("/a")), "content");
}

TEST_F(MountFilesTest, SpaceCannotBeSetAside) {
  mount();
  const File file(at("/a"), O_CREAT | O_RDWR);
  EXPECT_EQ(errnoOf([&] { return fallocate(file.get(), 0, 0, 4096); }), EOPNOTSUPP);
  EXPECT_EQ(posix_fallocate(file.get(), 0, 4096), 0);
  EXPECT_EQ(sizeOf("/a"), 4096);
}

TEST_F(MountFilesTest, AFailedReadAndWriteHaveTheDelegatesReason) {
  iFiles.addFile("/a", "content");
  mount();
  const File file(at("/a"), O_RDWR);
  iFiles.failWith("read", kEACCES);
  iFiles.failWith("write", kEPERM);
  char byte = 0;
  EXPECT_EQ(errnoOf([&] { return static_cast<int>(read(file.get(), &byte, 1)); }), EACCES);
  EXPECT_EQ(errnoOf([&] { return static_cast<int>(write(file.get(), "x", 1)); }), EPERM);
}

TEST_F(MountFilesTest, AFileMadeByAnotherSinceTheLookIsNotEmptied) {
  class Racing : public DurableMemoryFileSystem {
   public:
    std::optional<NSFileAttributes> attributesOfItemAtPath(OptionalPath path, const GMUserData& userData,
                                                           NSErrorRef* error) override {
      auto answer = DurableMemoryFileSystem::attributesOfItemAtPath(path, userData, error);
      if (*path == "/a" && !answer) addFile("/a", "of another");
      return answer;
    }
  } files;
  mountDelegate(&files);
  {
    const File file(at("/a"), O_CREAT | O_RDWR);
    EXPECT_TRUE(file.isOpen());
    EXPECT_EQ(files.contentOf("/a"), "of another");
    EXPECT_EQ(files.countOf("create"), 0u);
  }
  iFileSystem.reset();
}

TEST_F(MountFilesTest, ADelegateWithoutTheOptionalOperationsWorks) {
  MemoryFileSystem files;
  files.addFile("/a", "content");
  files.addFolder("/folder");
  mountDelegate(&files);
  {
    EXPECT_EQ(contentOfFile(at("/a")), "content");
    File file(at("/b"), O_CREAT | O_RDWR);
    ASSERT_EQ(write(file.get(), "new", 3), 3);
    EXPECT_EQ(fsync(file.get()), 0);
    EXPECT_EQ(rename(at("/b").c_str(), at("/folder/c").c_str()), 0);
    EXPECT_EQ(ftruncate(file.get(), 1), 0);
    EXPECT_EQ(chmod(at("/folder/c").c_str(), 0600), 0);
    EXPECT_EQ(chmod(at("/a").c_str(), 0600), 0);
    EXPECT_EQ(truncate(at("/a").c_str(), 0), 0);
    EXPECT_EQ(namesIn(mountPath()), (std::vector<std::string>{"a", "folder"}));
    EXPECT_EQ(unlink(at("/folder/c").c_str()), 0);
    EXPECT_EQ(file.close(), 0);
  }
  EXPECT_EQ(files.contentOf("/a"), "");
  unmount();
  iFileSystem.reset();
}

TEST_F(MountFilesTest, AFileSystemThatIsNotThreadSafeIsAskedByOneThread) {
  class Counting : public DurableMemoryFileSystem {
   public:
    int readFileAtPath(OptionalPath path, const GMUserData& userData, void* buffer, size_t size,
                       int64_t offset, NSErrorRef* error) override {
      if (++inside > 1) isMet = true;
      const int result = DurableMemoryFileSystem::readFileAtPath(path, userData, buffer, size, offset, error);
      --inside;
      return result;
    }
    std::atomic<int> inside{0};
    std::atomic<bool> isMet{false};
  } files;
  for (int i = 0; i < 8; ++i) files.addFile("/" + std::to_string(i), pattern(300000));
  iFileSystem = std::make_unique<GMUserFileSystem>(&files, false);
  iFileSystem->mountAtPath(mountPath(), {}, true, true);
  iNotifications.waitFor(kGMUserFileSystemDidMount);
  std::vector<std::thread> readers;
  for (int i = 0; i < 8; ++i) readers.emplace_back([this, i] { contentOfFile(at("/" + std::to_string(i))); });
  for (std::thread& reader : readers) reader.join();
  EXPECT_FALSE(files.isMet);
  iFileSystem.reset();
}

}  // namespace
}  // namespace ombra
