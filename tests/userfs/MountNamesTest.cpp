// Folders, links, moves and removal through a mount.
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tests/userfs/MountFixture.h"

namespace ombra {
namespace {

using Names = std::vector<std::string>;

class MountNamesTest : public MountTest {
 protected:
  int renameWith(const std::string& from, const std::string& to, unsigned flags) {
    return errnoOf([&] { return renameat2(AT_FDCWD, at(from).c_str(), AT_FDCWD, at(to).c_str(), flags); });
  }
  int renameItem(const std::string& from, const std::string& to) { return renameWith(from, to, 0); }
  int make(const std::string& path, mode_t mode = 0755) {
    return errnoOf([&] { return mkdir(at(path).c_str(), mode); });
  }
  mode_t modeOf(const std::string& path) {
    struct stat attributes {};
    EXPECT_EQ(lstat(at(path).c_str(), &attributes), 0);
    return attributes.st_mode & 07777;
  }
  size_t lengthOf(const std::string& path) {
    struct stat attributes {};
    EXPECT_EQ(lstat(at(path).c_str(), &attributes), 0);
    return static_cast<size_t>(attributes.st_size);
  }
  int removeIt(const std::string& path) {
    return errnoOf([&] { return unlink(at(path).c_str()); });
  }
  int removeFolder(const std::string& path) {
    return errnoOf([&] { return rmdir(at(path).c_str()); });
  }
  bool exists(const std::string& path) {
    struct stat attributes {};
    return lstat(at(path).c_str(), &attributes) == 0;
  }
  std::string targetOf(const std::string& path) {
    char buffer[4096];
    const ssize_t length = readlink(at(path).c_str(), buffer, sizeof buffer);
    return length < 0 ? "" : std::string(buffer, static_cast<size_t>(length));
  }
};

TEST_F(MountNamesTest, AFolderShowsTheDelegatesNamesAndTheDots) {
  iFiles.addFolder("/folder");
  iFiles.addFile("/folder/b", "");
  iFiles.addFile("/folder/a", "");
  mount();
  EXPECT_EQ(namesIn(at("/folder")), (Names{"a", "b"}));
  DIR* folder = opendir(at("/folder").c_str());
  size_t dots = 0;
  while (const dirent* entry = readdir(folder)) dots += entry->d_name[0] == '.' ? 1 : 0;
  closedir(folder);
  EXPECT_EQ(dots, 2u);
}

TEST_F(MountNamesTest, AFolderOfTwentyThousandEntriesIsListedInFull) {
  constexpr size_t kCount = 20000;
  for (size_t i = 0; i < kCount; ++i) iFiles.addFile("/an entry with the number " + std::to_string(i), "");
  mount();
  EXPECT_EQ(namesIn(mountPath()).size(), kCount);
}

TEST_F(MountNamesTest, EntriesCarryTypeAndNumberOfTheDelegate) {
  iFiles.addFolder("/folder");
  iFiles.addLink("/link", "folder");
  mount();
  DIR* folder = opendir(mountPath().c_str());
  while (const dirent* entry = readdir(folder)) {
    const std::string name = entry->d_name;
    if (name == "folder") {
      EXPECT_EQ(entry->d_type, DT_DIR);
    }
    if (name == "link") {
      EXPECT_EQ(entry->d_type, DT_LNK);
    }
    if (name[0] != '.') {
      EXPECT_EQ(entry->d_ino, iFiles.itemAt("/" + name)->number);
    }
  }
  closedir(folder);
}

TEST_F(MountNamesTest, AWarmWalkDoesNotReachTheDelegate) {
  for (int i = 0; i < 500; ++i) iFiles.addFile("/file " + std::to_string(i), "");
  mount();
  const auto walk = [this] {
    for (const std::string& name : namesIn(mountPath())) EXPECT_TRUE(exists("/" + name));
  };
  walk();
  iFiles.forgetCalls();
  walk();
  EXPECT_LE(iFiles.calls().size(), 5u);
}

TEST_F(MountNamesTest, RewindingReadsTheFolderAnew) {
  iFiles.addFile("/a", "");
  mount();
  DIR* folder = opendir(mountPath().c_str());
  while (readdir(folder) != nullptr) {
  }
  const File made(at("/b"), O_CREAT | O_WRONLY);
  rewinddir(folder);
  bool isSeen = false;
  while (const dirent* entry = readdir(folder)) isSeen |= std::string(entry->d_name) == "b";
  closedir(folder);
  EXPECT_TRUE(isSeen);
}

TEST_F(MountNamesTest, NamesThatNoPathCanHoldAreNotShown) {
  class Strange : public DurableMemoryFileSystem {
   public:
    std::optional<std::vector<std::string>> namesAsListedAtPath(OptionalPath, NSErrorRef*) override {
      return std::vector<std::string>{"..", ".", "", "a/b", std::string("nul\0x", 5), "good"};
    }
  } files;
  mountDelegate(&files);
  EXPECT_EQ(namesIn(mountPath()), (Names{"good"}));
  iFileSystem.reset();
}

TEST_F(MountNamesTest, AListingThatFailsWithoutAnErrorIsAnInputOutputError) {
  iFiles.failWith("list", 0);
  mount();
  DIR* folder = opendir(mountPath().c_str());
  ASSERT_NE(folder, nullptr);
  errno = 0;
  EXPECT_EQ(readdir(folder), nullptr);
  EXPECT_EQ(errno, EIO);
  closedir(folder);
}

TEST_F(MountNamesTest, AMissingItemIsAskedForEachTime) {
  mount();
  EXPECT_FALSE(exists("/later"));
  iFiles.addFile("/later", "");
  EXPECT_TRUE(exists("/later"));
}

TEST_F(MountNamesTest, FoldersAreMadeAndRemoved) {
  mount();
  EXPECT_EQ(make("/new"), 0);
  EXPECT_EQ(iFiles.itemAt("/new")->type, NSFileTypeValue::NSFileTypeDirectory);
  EXPECT_EQ(make("/new"), EEXIST);
  EXPECT_EQ(removeFolder("/new"), 0);
  EXPECT_FALSE(iFiles.itemAt("/new"));
}

TEST_F(MountNamesTest, ErrorsArriveWithTheNumbersOfThisSystem) {
  iFiles.addFolder("/full");
  iFiles.addFile("/full/a", "");
  mount();
  EXPECT_EQ(removeFolder("/full"), 39);
  iFiles.failWith("createDirectory", kEACCES);
  EXPECT_EQ(make("/refused"), 13);
  iFiles.failWith("createDirectory", 0);
  EXPECT_EQ(make("/refused"), 5);
}

TEST_F(MountNamesTest, TrashAtTheTopIsRefusedAndNothingIsAskedOfTheDelegate) {
  iFiles.addFolder("/folder");
  iFiles.addFile("/a", "");
  mount();
  EXPECT_EQ(make("/.Trash-1000"), EPERM);
  EXPECT_EQ(make("/.Trash"), EPERM);
  EXPECT_EQ(File(at("/.Trashes"), O_CREAT | O_WRONLY).error(), EPERM);
  EXPECT_EQ(renameItem("/a", "/.Trash-0"), EPERM);
  EXPECT_EQ(iFiles.countOf("create") + iFiles.countOf("move"), 0u);
  EXPECT_EQ(make("/folder/.Trash-1000"), 0);
}

TEST_F(MountNamesTest, AFolderThatCannotBeListedDoesNotLookEmpty) {
  iFiles.addFolder("/folder");
  mount();
  iFiles.failWith("list", kENOENT);
  DIR* folder = opendir(at("/folder").c_str());
  ASSERT_NE(folder, nullptr);
  errno = 0;
  EXPECT_EQ(readdir(folder), nullptr);
  EXPECT_EQ(errno, EIO);
  closedir(folder);
}

TEST_F(MountNamesTest, LinksAreMadeAndRead) {
  mount();
  ASSERT_EQ(symlink("../b", at("/link").c_str()), 0);
  EXPECT_EQ(iFiles.contentOf("/link"), "../b");
  EXPECT_EQ(targetOf("/link"), "../b");
}

TEST_F(MountNamesTest, JailedLinksWithAnAbsoluteTargetLeadBelowTheMountPoint) {
  iFiles.addFile("/dir-file", "inside");
  iFiles.addLink("/absolute", "/dir-file");
  iFiles.addLink("/root", "/");
  iFiles.addLink("/relative", "dir-file");
  mount({"jail_symlinks"});
  EXPECT_EQ(targetOf("/absolute"), mountPath() + "/dir-file");
  EXPECT_EQ(targetOf("/root"), mountPath());
  EXPECT_EQ(targetOf("/relative"), "dir-file");
  EXPECT_EQ(contentOfFile(at("/absolute")), "inside");
}

TEST_F(MountNamesTest, WithoutTheJailAnAbsoluteTargetStaysAsItIs) {
  iFiles.addLink("/absolute", "/dir/file");
  mount({});
  EXPECT_EQ(targetOf("/absolute"), "/dir/file");
}

// One that says 0 is taken for a link without a target.
TEST_F(MountNamesTest, ALinkIsAsLongAsItsText) {
  iFiles.addLink("/absolute", "/dir/file");
  mount({"jail_symlinks"});
  ASSERT_EQ(symlink("../b", at("/link").c_str()), 0);
  EXPECT_EQ(lengthOf("/link"), 4u);
  EXPECT_EQ(lengthOf("/absolute"), targetOf("/absolute").size());
}

TEST_F(MountNamesTest, AFolderForItsOwnerAloneIsClosedToTheOthers) {
  mount();
  EXPECT_EQ(make("/private", 0700), 0);
  EXPECT_EQ(iFiles.itemAt("/private")->permissions, 0700);
  EXPECT_EQ(modeOf("/private"), 0700u);
}

TEST_F(MountNamesTest, WhatTheServerChoseForAFolderIsNotWidened) {
  mount();
  const mode_t mask = umask(0);
  EXPECT_EQ(make("/folder", 0777), 0);
  umask(mask);
  EXPECT_EQ(modeOf("/folder"), 0755u);
  EXPECT_EQ(iFiles.countOf("changeWithoutContent"), 0u);
}

TEST_F(MountNamesTest, AFolderThatCannotBeClosedIsMadeAllTheSame) {
  iFiles.failWith("changeWithoutContent", kEIO);
  mount();
  EXPECT_EQ(make("/private", 0700), 0);
  EXPECT_EQ(modeOf("/private"), 0755u);
}

TEST_F(MountNamesTest, HardLinksAndSpecialFilesAreRefused) {
  iFiles.addFile("/a", "");
  mount();
  EXPECT_EQ(errnoOf([&] { return link(at("/a").c_str(), at("/b").c_str()); }), EPERM);
  EXPECT_EQ(errnoOf([&] { return mknod(at("/fifo").c_str(), S_IFIFO | 0600, 0); }), EPERM);
}

TEST_F(MountNamesTest, MknodOfARegularFileCreatesIt) {
  mount();
  EXPECT_EQ(errnoOf([&] { return mknod(at("/plain").c_str(), S_IFREG | 0640, 0); }), 0);
  EXPECT_EQ(iFiles.itemAt("/plain")->permissions, 0640);
  iFiles.waitForCalls("release /plain", 1);
}

TEST_F(MountNamesTest, AMoveIsSettledBeforeAndToldAfter) {
  iFiles.addFile("/a", "content");
  mount();
  ASSERT_EQ(renameItem("/a", "/b"), 0);
  EXPECT_EQ(contentOfFile(at("/b")), "content");
  Names order;
  for (const std::string& call : iFiles.calls()) {
    if (call == "settle /a" || call == "move /a /b" || call == "moved /a /b") order.push_back(call);
  }
  EXPECT_EQ(order, (Names{"settle /a", "move /a /b", "moved /a /b"}));
}

TEST_F(MountNamesTest, AMoveThatCannotBeSettledIsNotMade) {
  iFiles.addFile("/a", "content");
  iFiles.failWith("settle", kEIO);
  mount();
  EXPECT_EQ(renameItem("/a", "/b"), EIO);
  EXPECT_EQ(iFiles.countOf("move "), 0u);
}

TEST_F(MountNamesTest, OpenFilesBelowAMovedFolderGoOn) {
  iFiles.addFolder("/folder");
  iFiles.addFile("/folder/a", "content");
  mount();
  const File file(at("/folder/a"), O_RDWR);
  ASSERT_EQ(renameItem("/folder", "/renamed"), 0);
  ASSERT_EQ(pwrite(file.get(), "C", 1, 0), 1);
  EXPECT_EQ(iFiles.contentOf("/renamed/a"), "Content");
  EXPECT_EQ(iFiles.countOf("write /renamed/a"), 1u);
}

TEST_F(MountNamesTest, AMoveOntoAFileReplacesIt) {
  iFiles.addFile("/a", "new");
  iFiles.addFile("/b", "old");
  mount();
  EXPECT_EQ(renameItem("/a", "/b"), 0);
  EXPECT_EQ(contentOfFile(at("/b")), "new");
}

TEST_F(MountNamesTest, AReplacedFileThatIsOpenGoesOnServingItsHandle) {
  iFiles.addFile("/a", "new");
  iFiles.addFile("/b", "old content");
  mount();
  const File file(at("/b"), O_RDONLY);
  ASSERT_EQ(renameItem("/a", "/b"), 0);
  EXPECT_EQ(iFiles.countOf("abandon"), 1u);
  struct stat attributes {};
  ASSERT_EQ(fstat(file.get(), &attributes), 0);
  EXPECT_EQ(attributes.st_size, 11);
  char buffer[16];
  EXPECT_EQ(pread(file.get(), buffer, sizeof buffer, 0), 11);
}

TEST_F(MountNamesTest, AMoveThatFailsTakesTheAbandoningBack) {
  iFiles.addFile("/a", "new");
  iFiles.addFile("/b", "old");
  mount();
  const File file(at("/b"), O_RDONLY);
  iFiles.failWith("move", kEACCES);
  EXPECT_EQ(renameItem("/a", "/b"), EACCES);
  EXPECT_EQ(iFiles.countOf("reclaim"), 1u);
}

TEST_F(MountNamesTest, ReasonsToRefuseAMoveAreTold) {
  iFiles.addFolder("/folder");
  iFiles.addFolder("/full");
  iFiles.addFile("/full/x", "");
  iFiles.addFile("/file", "");
  mount();
  EXPECT_EQ(renameItem("/folder", "/full"), ENOTEMPTY);
  EXPECT_EQ(renameItem("/folder", "/file"), ENOTDIR);
  EXPECT_EQ(renameItem("/file", "/folder"), EISDIR);
  EXPECT_EQ(iFiles.countOf("move "), 0u);
}

TEST_F(MountNamesTest, NoReplaceIsHonouredAndExchangeRefused) {
  iFiles.addFile("/a", "");
  iFiles.addFile("/b", "");
  mount();
  EXPECT_EQ(renameWith("/a", "/b", RENAME_NOREPLACE), EEXIST);
  EXPECT_EQ(renameWith("/a", "/b", RENAME_EXCHANGE), EINVAL);
  EXPECT_EQ(renameWith("/a", "/c", RENAME_NOREPLACE), 0);
}

constexpr const char* kComposed = "/caf\xc3\xa9";
constexpr const char* kDecomposed = "/cafe\xcc\x81";

TEST_F(MountNamesTest, AnotherUnicodeFormOfAPathReachesTheListedName) {
  iFiles.addFile(kComposed, "coffee");
  mount();
  EXPECT_EQ(contentOfFile(at(kDecomposed)), "coffee");
  EXPECT_EQ(iFiles.countOf(std::string("open ") + kComposed), 1u);
}

TEST_F(MountNamesTest, PathsOfPlainLettersAreNotLookedUp) {
  iFiles.addFile("/plain", "x");
  mount();
  contentOfFile(at("/plain"));
  EXPECT_EQ(iFiles.countOf("listedPath"), 0u);
}

TEST_F(MountNamesTest, RenamingANameToItsOwnOtherFormSucceedsAndMovesNothing) {
  iFiles.addFile(kComposed, "coffee");
  mount();
  EXPECT_EQ(renameItem(kComposed, kDecomposed), 0);
  EXPECT_EQ(iFiles.countOf("move ") + iFiles.countOf("remove"), 0u);
  EXPECT_EQ(iFiles.contentOf(kComposed), "coffee");
}

TEST_F(MountNamesTest, ARemovedFileThatIsOpenIsGoneOnTheServerAndGoesOnServingItsHandle) {
  iFiles.addFile("/a", "content", 0600);
  mount();
  const File file(at("/a"), O_RDWR);
  ASSERT_EQ(removeIt("/a"), 0);
  EXPECT_FALSE(iFiles.itemAt("/a"));
  EXPECT_FALSE(exists("/a"));
  char buffer[8] = {};
  EXPECT_EQ(pread(file.get(), buffer, sizeof buffer, 0), 7);
  EXPECT_EQ(pwrite(file.get(), "appended", 8, 7), 8);
  struct stat attributes {};
  ASSERT_EQ(fstat(file.get(), &attributes), 0);
  EXPECT_EQ(attributes.st_size, 15);
  EXPECT_EQ(attributes.st_mode & 07777, 0600u);
  EXPECT_EQ(attributes.st_nlink, 0u);
}

TEST_F(MountNamesTest, AbandoningComesBeforeTheRemoval) {
  iFiles.addFile("/a", "content");
  mount();
  const File file(at("/a"), O_RDWR);
  ASSERT_EQ(removeIt("/a"), 0);
  Names order;
  for (const std::string& call : iFiles.calls()) {
    if (call.compare(0, 7, "abandon") == 0 || call == "remove /a") order.push_back(call);
  }
  EXPECT_EQ(order, (Names{"abandon (none)", "remove /a"}));
}

TEST_F(MountNamesTest, AFileMadeAndRemovedAtOnceAnswersToItsHandle) {
  mount();
  const File file(at("/scratch"), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_TRUE(file.isOpen());
  ASSERT_EQ(removeIt("/scratch"), 0);
  struct stat attributes {};
  ASSERT_EQ(fstat(file.get(), &attributes), 0);
  EXPECT_EQ(fchmod(file.get(), 0640), 0);
  ASSERT_EQ(pwrite(file.get(), "abc", 3, 0), 3);
  ASSERT_EQ(fstat(file.get(), &attributes), 0);
  EXPECT_EQ(attributes.st_size, 3);
  EXPECT_EQ(attributes.st_mode & 07777, 0640u);
  EXPECT_EQ(ftruncate(file.get(), 1), 0);
  ASSERT_EQ(fstat(file.get(), &attributes), 0);
  EXPECT_EQ(attributes.st_size, 1);
}

TEST_F(MountNamesTest, ARemovedFileIsReleasedAndWrittenWithoutAPath) {
  iFiles.addFile("/a", "content");
  mount();
  {
    const File file(at("/a"), O_RDWR);
    ASSERT_EQ(removeIt("/a"), 0);
    // Another file takes the path; it must not be taken for the removed one.
    const File other(at("/a"), O_RDWR | O_CREAT);
    ASSERT_EQ(pwrite(file.get(), "X", 1, 0), 1);
    struct stat attributes {};
    ASSERT_EQ(stat(at("/a").c_str(), &attributes), 0);
    EXPECT_EQ(attributes.st_size, 0);
  }
  iFiles.waitForCalls("release (none)", 1);
  EXPECT_EQ(iFiles.countOf("write (none)"), 1u);
  EXPECT_EQ(iFiles.contentOf("/a"), "");
}

TEST_F(MountNamesTest, ARemovalThatFailsTakesTheAbandoningBack) {
  iFiles.addFile("/a", "content");
  mount();
  const File file(at("/a"), O_RDWR);
  iFiles.failWith("remove", kEACCES);
  EXPECT_EQ(removeIt("/a"), EACCES);
  EXPECT_EQ(iFiles.countOf("reclaim"), 1u);
  EXPECT_TRUE(exists("/a"));
}

TEST_F(MountNamesTest, InvalidatingAFolderShowsWhatTheServerChanged) {
  iFiles.addFolder("/folder");
  iFiles.addFile("/folder/old", "");
  mount();
  EXPECT_EQ(namesIn(at("/folder")), (Names{"old"}));
  EXPECT_TRUE(exists("/folder/old"));
  iFiles.erase("/folder/old");
  iFiles.addFile("/folder/new", "");
  iFileSystem->invalidateDirectoryAtPath("/folder");
  while (exists("/folder/old")) std::this_thread::yield();
  EXPECT_EQ(namesIn(at("/folder")), (Names{"new"}));
}

// The kernel has entries of these without ever having looked them up.
TEST_F(MountNamesTest, InvalidatingAFolderShowsThatWhatWasMadeInItIsGone) {
  mount();
  EXPECT_EQ(make("/folder"), 0);
  EXPECT_EQ(symlink("nowhere", at("/link").c_str()), 0);
  for (const char* path : {"/folder", "/link"}) {
    EXPECT_TRUE(exists(path));
    iFiles.erase(path);
  }
  iFileSystem->invalidateDirectoryAtPath("/");
  while (exists("/folder") || exists("/link")) std::this_thread::yield();
}

TEST_F(MountNamesTest, InvalidatingAFolderShowsThatWhatWasMovedIntoItIsGone) {
  iFiles.addFolder("/folder");
  iFiles.addFile("/file", "");
  mount();
  EXPECT_EQ(namesIn(at("/folder")), Names{});
  EXPECT_EQ(renameItem("/file", "/folder/file"), 0);
  EXPECT_TRUE(exists("/folder/file"));
  iFiles.erase("/folder/file");
  iFileSystem->invalidateDirectoryAtPath("/folder");
  while (exists("/folder/file")) std::this_thread::yield();
}

TEST_F(MountNamesTest, InvalidatingAFolderLeavesAShellInsideItInPlace) {
  iFiles.addFolder("/folder");
  iFiles.addFolder("/folder/inside");
  mount();
  const File inside(at("/folder/inside"), O_RDONLY | O_DIRECTORY);
  EXPECT_EQ(namesIn(at("/folder")), (Names{"inside"}));
  iFiles.addFile("/folder/new", "");
  iFileSystem->invalidateDirectoryAtPath("/folder");
  while (namesIn(at("/folder")).size() < 2) std::this_thread::yield();
  char buffer[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(inside.get());
  const ssize_t length = readlink(link.c_str(), buffer, sizeof buffer);
  EXPECT_EQ(std::string(buffer, static_cast<size_t>(length)), at("/folder/inside"));
}

}  // namespace
}  // namespace ombra
