// A mounted volume whose litter stays on this machine.
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <thread>

#include "platform/userfs/FuseModule.h"
#include "tests/userfs/MountFixture.h"
#include "tests/userfs/RedirectFixture.h"

namespace ombra {
namespace {

using Names = std::vector<std::string>;

class RedirectMount : public MountTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(whyModuleIsNotLoaded(), "");
    MountTest::SetUp();
  }
  void mountRedirected(std::vector<std::string> more = {}) {
    std::vector<std::string> options{"native_xattr", "volname=Ada's files", "modules=redirect",
                                     "redirect_sha1", "redirect_folder=" + litter()};
    options.insert(options.end(), more.begin(), more.end());
    mount(std::move(options));
  }
  std::string litter() const { return iLitter / "store, of one \\ volume"; }
  void write(const std::string& path, const std::string& content, int flags = O_CREAT | O_TRUNC) {
    const File file(at(path), O_WRONLY | flags);
    ASSERT_TRUE(file.isOpen()) << path << ": " << file.error();
    ASSERT_EQ(::write(file.get(), content.data(), content.size()), static_cast<ssize_t>(content.size()));
  }
  std::string read(const std::string& path) { return contentOfFile(at(path)).value_or("(none)"); }
  std::string onServer(const std::string& path) { return iFiles.contentOf(path).value_or("(none)"); }
  int move(const std::string& from, const std::string& to, unsigned flags = 0) {
    return errnoOf([&] { return renameat2(AT_FDCWD, at(from).c_str(), AT_FDCWD, at(to).c_str(), flags); });
  }
  // How often the server was asked for anything but attributes.
  Names callsAbout(const std::string& path) {
    Names found;
    for (const std::string& call : iFiles.calls()) {
      if (call.find(path) != std::string::npos && call.find("attributes") == std::string::npos)
        found.push_back(call);
    }
    return found;
  }

  TemporaryFolder iLitter;
};

TEST_F(RedirectMount, LitterIsWrittenAndReadWithoutTheServer) {
  iFiles.addFolder("/a");
  mountRedirected();
  for (const char* path : {"/.DS_Store", "/a/._b", "/a/Thumbs.db", "/a/desktop.ini", "/.directory"}) {
    write(path, "litter");
    EXPECT_EQ(read(path), "litter");
    EXPECT_EQ(onServer(path), "(none)");
    EXPECT_EQ(callsAbout(path), Names{}) << path;
  }
}

TEST_F(RedirectMount, EverythingElseGoesToTheServer) {
  mountRedirected();
  write("/real", "content");
  EXPECT_EQ(errnoOf([&] { return mkdir(at("/folder").c_str(), 0755); }), 0);
  EXPECT_EQ(onServer("/real"), "content");
  EXPECT_TRUE(iFiles.itemAt("/folder"));
  EXPECT_EQ(read("/real"), "content");
}

TEST_F(RedirectMount, WithoutTheModuleLitterGoesToTheServer) {
  mount();
  write("/.DS_Store", "litter");
  EXPECT_EQ(onServer("/.DS_Store"), "litter");
}

TEST_F(RedirectMount, TheNamesHereAreHashesOfThePathsThere) {
  mountRedirected();
  write("/.DS_Store", "litter");
  // printf /.DS_Store | sha1sum
  EXPECT_EQ(contentOfFile(litter() + "/2eaf811e78c039402383e125deb093600a999e32/item"), "litter");
}

TEST_F(RedirectMount, LitterIsListedAmongWhatTheServerHas) {
  iFiles.addFolder("/a");
  iFiles.addFile("/a/file", "x");
  iFiles.addFile("/a/.DS_Store", "from another machine");
  mountRedirected();
  write("/a/._file", "y");
  write("/a/.DS_Store", "ours");
  EXPECT_EQ(namesIn(at("/a")), (Names{".DS_Store", "._file", "file"}));
}

TEST_F(RedirectMount, AFolderLargerThanOneReplyIsListedInFullWithItsLitter) {
  Names expected;
  for (int index = 0; index < 500; ++index) {
    expected.push_back("a file with a rather long name " + std::to_string(1000 + index));
    iFiles.addFile("/" + expected.back(), "");
  }
  mountRedirected();
  for (int index = 0; index < 200; ++index) {
    expected.push_back("._litter with a rather long name " + std::to_string(1000 + index));
    write("/" + expected.back(), "");
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(namesIn(mountPath()), expected);
  EXPECT_EQ(namesIn(mountPath()), expected);
}

TEST_F(RedirectMount, AnOpenFolderShowsNewLitterWhenItIsReadFromTheStart) {
  iFiles.addFolder("/a");
  mountRedirected();
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(at("/a").c_str()), &closedir);
  const auto count = [&] {
    size_t entries = 0;
    for (rewinddir(folder.get()); readdir(folder.get()) != nullptr;) ++entries;
    return entries;
  };
  EXPECT_EQ(count(), 2u);
  write("/a/.DS_Store", "");
  EXPECT_EQ(count(), 3u);
}

TEST_F(RedirectMount, LitterOfTheServerIsReadAndRemovedThere) {
  iFiles.addFile("/.DS_Store", "from another machine");
  mountRedirected();
  EXPECT_EQ(read("/.DS_Store"), "from another machine");
  EXPECT_EQ(namesIn(mountPath()), (Names{".DS_Store"}));
  EXPECT_EQ(errnoOf([&] { return unlink(at("/.DS_Store").c_str()); }), 0);
  EXPECT_FALSE(iFiles.itemAt("/.DS_Store"));
}

TEST_F(RedirectMount, WhatIsWrittenToLitterOfTheServerStaysHereAndCoversIt) {
  iFiles.addFile("/Thumbs.db", "0123456789");
  mountRedirected();
  write("/Thumbs.db", "ab", 0);
  EXPECT_EQ(read("/Thumbs.db"), "ab23456789");
  EXPECT_EQ(onServer("/Thumbs.db"), "0123456789");
  // Both go: the other must not come back from under it.
  EXPECT_EQ(errnoOf([&] { return unlink(at("/Thumbs.db").c_str()); }), 0);
  EXPECT_EQ(read("/Thumbs.db"), "(none)");
  EXPECT_FALSE(iFiles.itemAt("/Thumbs.db"));
}

TEST_F(RedirectMount, OverwritingLitterOfTheServerFetchesNothing) {
  iFiles.addFile("/Thumbs.db", "0123456789");
  mountRedirected();
  write("/Thumbs.db", "ab");
  EXPECT_EQ(errnoOf([&] { return truncate(at("/Thumbs.db").c_str(), 1); }), 0);
  EXPECT_EQ(read("/Thumbs.db"), "a");
  EXPECT_EQ(onServer("/Thumbs.db"), "0123456789");
  EXPECT_EQ(callsAbout("/Thumbs.db"), Names{});
}

TEST_F(RedirectMount, LitterHasModeDatesAndAttributesLikeAnyFile) {
  mountRedirected();
  write("/.DS_Store", "x");
  struct stat status {};
  ASSERT_EQ(chmod(at("/.DS_Store").c_str(), 0600), 0);
  const timespec times[2] = {{1000000000, 0}, {1000000001, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, at("/.DS_Store").c_str(), times, 0), 0);
  ASSERT_EQ(stat(at("/.DS_Store").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0600u);
  EXPECT_EQ(status.st_mtime, 1000000001);
  EXPECT_EQ(status.st_size, 1);
  EXPECT_EQ(errnoOf([&] { return chown(at("/.DS_Store").c_str(), 12345, 12345); }), EPERM);
  EXPECT_EQ(errnoOf([&] { return setxattr(at("/.DS_Store").c_str(), "security.x", "y", 1, 0); }), EOPNOTSUPP);
  EXPECT_EQ(callsAbout(".DS_Store"), Names{});
}

TEST_F(RedirectMount, AFileThatIsOpenOutlivesItsRemoval) {
  mountRedirected();
  const File file(at("/._a"), O_RDWR | O_CREAT);
  EXPECT_EQ(unlink(at("/._a").c_str()), 0);
  EXPECT_EQ(pwrite(file.get(), "text", 4, 0), 4);
  char buffer[8] = {};
  EXPECT_EQ(pread(file.get(), buffer, sizeof(buffer), 0), 4);
  EXPECT_STREQ(buffer, "text");
}

TEST_F(RedirectMount, FoldersAndLinksOfLitterStayHere) {
  mountRedirected();
  EXPECT_EQ(errnoOf([&] { return mkdir(at("/.fseventsd").c_str(), 0755); }), 0);
  EXPECT_EQ(errnoOf([&] { return mkdir(at("/.fseventsd").c_str(), 0755); }), EEXIST);
  write("/.fseventsd/a", "x");
  EXPECT_EQ(symlink("a", at("/.fseventsd/link").c_str()), 0);
  EXPECT_EQ(read("/.fseventsd/link"), "x");
  EXPECT_EQ(namesIn(at("/.fseventsd")), (Names{"a", "link"}));
  EXPECT_EQ(errnoOf([&] { return rmdir(at("/.fseventsd").c_str()); }), ENOTEMPTY);
  EXPECT_EQ(errnoOf([&] { return link(at("/.fseventsd/a").c_str(), at("/b").c_str()); }), EPERM);
  EXPECT_EQ(std::filesystem::remove_all(at("/.fseventsd")), 3u);
  EXPECT_FALSE(iFiles.itemAt("/.fseventsd"));
}

TEST_F(RedirectMount, LitterIsSavedThroughItsUnfinishedName) {
  mountRedirected();
  write("/.directory", "old");
  write("/.directory.AbCdEf", "new");
  EXPECT_EQ(move("/.directory.AbCdEf", "/.directory"), 0);
  EXPECT_EQ(read("/.directory"), "new");
  EXPECT_EQ(namesIn(mountPath()), (Names{".directory"}));
  EXPECT_EQ(callsAbout(".directory"), Names{});
}

TEST_F(RedirectMount, LitterThatIsGivenARealNameIsOnTheServer) {
  mountRedirected();
  write("/._draft", "content");
  const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
  utimensat(AT_FDCWD, at("/._draft").c_str(), times, 0);
  EXPECT_EQ(move("/._draft", "/document"), 0);
  EXPECT_EQ(onServer("/document"), "content");
  EXPECT_EQ(iFiles.itemAt("/document")->modified.timeIntervalSince1970(), 1000000000);
  EXPECT_EQ(read("/document"), "content");
  EXPECT_EQ(read("/._draft"), "(none)");
  EXPECT_EQ(namesIn(mountPath()), (Names{"document"}));
}

TEST_F(RedirectMount, AndBackAgainItIsHereAlone) {
  iFiles.addFile("/document", "content");
  mountRedirected();
  EXPECT_EQ(move("/document", "/._draft"), 0);
  EXPECT_FALSE(iFiles.itemAt("/document"));
  EXPECT_EQ(read("/._draft"), "content");
  EXPECT_EQ(move("/._draft", "/document"), 0);
  EXPECT_EQ(onServer("/document"), "content");
}

TEST_F(RedirectMount, LitterThatReplacesADocumentReplacesItAsAWhole) {
  iFiles.addFile("/document", "old and longer");
  mountRedirected();
  write("/._draft", "new");
  EXPECT_EQ(move("/._draft", "/document", RENAME_NOREPLACE), EEXIST);
  EXPECT_EQ(move("/._draft", "/document"), 0);
  EXPECT_EQ(onServer("/document"), "new");
  EXPECT_EQ(namesIn(mountPath()), (Names{"document"}));
}

TEST_F(RedirectMount, WhereTheServerDoesNotTakeItBothFilesStay) {
  iFiles.addFile("/document", "old");
  mountRedirected();
  write("/._draft", "new");
  for (const char* refused : {"create", "write", "move"}) {
    iFiles.failWith(refused, 5);
    EXPECT_EQ(move("/._draft", "/document"), EIO) << refused;
    iFiles.failWith(refused, std::nullopt);
    EXPECT_EQ(read("/._draft"), "new") << refused;
    EXPECT_EQ(onServer("/document"), "old") << refused;
    EXPECT_EQ(namesIn(mountPath()), (Names{"._draft", "document"})) << refused;
  }
}

TEST_F(RedirectMount, LitterThatIsBeingWrittenIsNotGivenARealName) {
  mountRedirected();
  const File file(at("/._draft"), O_WRONLY | O_CREAT);
  EXPECT_EQ(move("/._draft", "/document"), EBUSY);
  EXPECT_FALSE(iFiles.itemAt("/document"));
}

// The kernel tells the end of a handle somewhat after its close returned.
TEST_F(RedirectMount, LitterThatIsClosedMeanwhileIsGivenARealName) {
  mountRedirected();
  auto file = std::make_unique<File>(at("/._draft"), O_WRONLY | O_CREAT);
  std::promise<void> moves;
  auto mover = std::async(std::launch::async, [&] {
    moves.set_value();
    return move("/._draft", "/document");
  });
  moves.get_future().wait();
  file.reset();
  EXPECT_EQ(mover.get(), 0);
  EXPECT_TRUE(iFiles.itemAt("/document"));
}

// The mover is told to copy, which every mover does.
TEST_F(RedirectMount, FoldersAndMovesToOtherFoldersAreLeftToTheMover) {
  iFiles.addFolder("/a");
  mountRedirected();
  write("/._draft", "new");
  ASSERT_EQ(mkdir(at("/.fseventsd").c_str(), 0755), 0);
  EXPECT_EQ(move("/._draft", "/a/document"), EXDEV);
  EXPECT_EQ(move("/.fseventsd", "/b"), EXDEV);
  EXPECT_EQ(move("/a", "/._a"), EXDEV);
  EXPECT_EQ(move("/._draft", "/a/._draft"), 0);
  EXPECT_EQ(read("/a/._draft"), "new");
}

TEST_F(RedirectMount, LitterFollowsItsFolderAndGoesWithIt) {
  iFiles.addFolder("/a");
  mountRedirected();
  write("/a/.DS_Store", "x");
  EXPECT_EQ(move("/a", "/b"), 0);
  EXPECT_EQ(read("/b/.DS_Store"), "x");
  EXPECT_EQ(namesIn(at("/b")), (Names{".DS_Store"}));
  // To everybody else on the server the folder is empty.
  EXPECT_EQ(errnoOf([&] { return rmdir(at("/b").c_str()); }), 0);
  EXPECT_FALSE(iFiles.itemAt("/b"));
  EXPECT_EQ(mkdir(at("/b").c_str(), 0755), 0);
  EXPECT_EQ(namesIn(at("/b")), Names{});
}

TEST_F(RedirectMount, AFolderThatIsNotEmptyOnTheServerKeepsItsLitter) {
  iFiles.addFolder("/a");
  iFiles.addFile("/a/file", "x");
  mountRedirected();
  write("/a/.DS_Store", "x");
  EXPECT_EQ(errnoOf([&] { return rmdir(at("/a").c_str()); }), ENOTEMPTY);
  EXPECT_EQ(read("/a/.DS_Store"), "x");
}

TEST_F(RedirectMount, ReadersThatWaitForTheServerKeepNobodyFromAnything) {
  constexpr size_t kReaders = 50;
  iFiles.addFile("/other", "x");
  for (size_t index = 0; index < kReaders; ++index) iFiles.addFile("/big" + std::to_string(index), "content");
  mountRedirected();
  iFiles.hold("open");
  std::vector<std::thread> readers;
  for (size_t index = 0; index < kReaders; ++index) {
    readers.emplace_back([path = at("/big" + std::to_string(index))] { contentOfFile(path); });
  }
  iFiles.waitUntilHeld(kReaders);
  write("/.DS_Store", "litter");
  EXPECT_EQ(read("/.DS_Store"), "litter");
  struct stat status {};
  EXPECT_EQ(stat(at("/other").c_str(), &status), 0);
  EXPECT_EQ(namesIn(mountPath()).size(), kReaders + 2);
  iFiles.letGo("open");
  for (std::thread& reader : readers) reader.join();
}

TEST_F(RedirectMount, TrashIsNoLitterAndRefusedAsEver) {
  mountRedirected();
  EXPECT_EQ(errnoOf([&] { return mkdir(at("/.Trash-1000").c_str(), 0700); }), EPERM);
}

TEST_F(RedirectMount, FileManagersFindNameAndIconWithoutSeeingThemListed) {
  const std::string icon = iLitter / "a, b\\c.png";
  {
    const File file(icon, O_WRONLY | O_CREAT);
    ASSERT_EQ(::write(file.get(), "image", 5), 5);
  }
  mountRedirected({"redirect_volicon=" + icon});
  const std::string info = read("/.xdg-volume-info");
  EXPECT_NE(info.find("Name=Ada's files\n"), std::string::npos) << info;
  EXPECT_NE(info.find("IconFile=.VolumeIcon.png\n"), std::string::npos) << info;
  EXPECT_EQ(read("/.VolumeIcon.png"), "image");
  EXPECT_EQ(namesIn(mountPath()), Names{});
  EXPECT_EQ(onServer("/.xdg-volume-info"), "(none)");
}

TEST_F(RedirectMount, ABadIconOrFolderDoesNotKeepTheVolumeFromBeingMounted) {
  iFiles.addFile("/file", "x");
  mount({"modules=redirect", "redirect_folder=/nonexistent/folder", "redirect_volicon=/nonexistent/icon"});
  EXPECT_EQ(read("/file"), "x");
  write("/.DS_Store", "litter");
  EXPECT_EQ(onServer("/.DS_Store"), "litter");
}

TEST_F(RedirectMount, WhatIsKeptIsThereAtTheNextMount) {
  mountRedirected();
  write("/.DS_Store", "litter");
  unmount();
  iFileSystem.reset();
  MountNotifications again;
  mountRedirected();
  again.waitFor(kGMUserFileSystemDidMount);
  EXPECT_EQ(read("/.DS_Store"), "litter");
}

TEST(FuseModule, OneThatIsMissingIsNamedInTheReason) {
  std::string reason;
  EXPECT_FALSE(loadFuseModule("nosuchmodule", &reason));
  EXPECT_NE(reason.find("libfusemod_nosuchmodule.so"), std::string::npos) << reason;
}

}  // namespace
}  // namespace ombra
