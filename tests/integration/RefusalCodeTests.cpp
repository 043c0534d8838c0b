// Which error a program gets of a refusal, at which of its calls, and what the volume shows afterwards.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tests/integration/WritingFixture.h"
#include "tests/support/TemporaryUser.h"

namespace ombra {
namespace {

// The errors of a program's calls, 0 where one succeeded; those after a failed open are not made.
struct Told {
  int open = 0, write = 0, fsync = 0, close = 0;
};

int errorOf(ssize_t result) { return result < 0 ? errno : 0; }

Told writeFile(const std::string& path, int flags, const std::string& bytes, off_t offset = 0) {
  Told told;
  const int descriptor = open(path.c_str(), flags | O_CLOEXEC, 0644);
  told.open = errorOf(descriptor);
  if (descriptor < 0) return told;
  for (size_t done = 0; done < bytes.size() && told.write == 0;) {
    const ssize_t count =
        pwrite(descriptor, bytes.data() + done, bytes.size() - done, offset + static_cast<off_t>(done));
    told.write = errorOf(count);
    done += count < 0 ? 0 : static_cast<size_t>(count);
  }
  told.fsync = errorOf(fsync(descriptor));
  told.close = errorOf(close(descriptor));
  return told;
}

class RefusalCode : public VolumeTest {
 protected:
  void SetUp() override {
    VolumeTest::SetUp();
    if (HasFatalFailure()) return;

    const ShellResult made =
        user->run("cd " + shellWord(volume) + " && mkdir folder && printf content > folder/file");
    ASSERT_EQ(made.status, 0) << made.errors;
  }
  void TearDown() override {
    if (isServerMounted) {
      EXPECT_EQ(umount2(folder().c_str(), MNT_DETACH), 0) << strerror(errno);
    }
    VolumeTest::TearDown();
  }
  std::string folder() const { return data() + "/folder"; }
  std::string at(const std::string& name) const { return volume + "/" + name; }
  // Over a folder that the volume knows to be empty, or to hold the same.
  void mountOnServer(const std::string& arguments) {
    const ShellResult mounted = shell("mount " + arguments + " " + shellWord(folder()));
    ASSERT_EQ(mounted.status, 0) << mounted.errors;
    isServerMounted = true;
  }
  // Told when it was written, or at the latest at the next call that asks; and always with that one code.
  static void expectTold(const Told& told) {
    EXPECT_EQ(told.open, 0) << strerror(told.open);
    EXPECT_TRUE(told.write == 0 || told.write == EIO) << strerror(told.write);
    EXPECT_EQ(told.fsync, EIO) << strerror(told.fsync);
    EXPECT_EQ(told.close, EIO) << strerror(told.close);
  }
  std::string listing(const std::string& root) const {
    return shell("cd " + shellWord(root) +
                 " && find . -mindepth 1 -type f -printf '%s %p\\n' -o -mindepth 1 -printf '%p\\n' | sort")
        .output;
  }
  // The volume is as the server's folder, names, sizes and bytes, without having been refreshed.
  void expectServersTree(const std::string& file) {
    EXPECT_TRUE(eventually([&] { return listing(volume) == listing(data()); }))
        << listing(volume) << "\nis not\n"
        << listing(data());
    EXPECT_EQ(bytesOf(at(file)), bytesOf(data() + "/" + file));
    EXPECT_EQ(leftovers(), "");
  }
  // The end of the volume names the file, and where it lies.
  void expectKept(const std::string& file, const std::string& content) {
    const ShellResult result = user->ombra("unmount " + shellWord(volume));
    EXPECT_EQ(result.status, 1) << result.errors;
    const std::string copy = user->home() + "/state/ombrafs/recovered/" +
                             std::filesystem::path(volume).filename().string() + "/" + file;
    EXPECT_NE(result.errors.find("It is kept at " + copy), std::string::npos) << result.errors;
    EXPECT_TRUE(bytesOf(copy) == content) << bytesOf(copy).size() << " bytes";
  }
  bool isServerMounted = false;
};

OMBRA_EVERY_VOLUME(RefusalCode);

TEST_P(RefusalCode, AFullDiskIsAnInputOutputErrorAndTheServersFileIsShown) {
  const ShellResult removed = user->run("rm " + shellWord(at("folder/file")));
  ASSERT_EQ(removed.status, 0) << removed.errors;
  mountOnServer("-t tmpfs -o size=64k tmpfs");
  const std::string bytes = someBytes(100000);
  expectTold(writeFile(at("folder/new"), O_WRONLY | O_CREAT | O_EXCL, bytes));
  expectServersTree("folder/new");
  expectKept("folder/new", bytes);
}

TEST_P(RefusalCode, AReadOnlyDiskIsAnInputOutputErrorAndTheFileStaysAsItIs) {
  mountOnServer("--bind " + shellWord(folder()));
  ASSERT_EQ(shell("mount -o remount,bind,ro " + shellWord(folder())).status, 0);
  EXPECT_EQ(writeFile(at("folder/new"), O_WRONLY | O_CREAT | O_EXCL, "new").open, EIO);
  EXPECT_EQ(writeFile(at("folder/file"), O_WRONLY | O_TRUNC, "new").open, EIO);
  EXPECT_EQ(errorOf(mkdir(at("folder/more").c_str(), 0755)), EACCES);
  EXPECT_EQ(errorOf(unlink(at("folder/file").c_str())), EACCES);
  EXPECT_EQ(errorOf(rename(at("folder/file").c_str(), at("folder/other").c_str())), EACCES);
  expectServersTree("folder/file");
  expectTold(writeFile(at("folder/file"), O_WRONLY, " and more", 7));
  expectServersTree("folder/file");
  EXPECT_EQ(bytesOf(data() + "/folder/file"), "content");
  expectKept("folder/file", "content and more");
}

TEST_P(RefusalCode, ANameThatIsTooLongIsRefusedByTheCallThatHasItAndMakesNothing) {
  const std::string name = "folder/" + std::string(256, 'n');
  EXPECT_EQ(writeFile(at(name), O_WRONLY | O_CREAT, "new").open, EIO);
  EXPECT_EQ(errorOf(mkdir(at(name).c_str(), 0755)), EACCES);
  EXPECT_EQ(errorOf(rename(at("folder/file").c_str(), at(name).c_str())), EACCES);
  expectServersTree("folder/file");
}

TEST_P(RefusalCode, AVanishedFolderIsAnInputOutputErrorAndLeavesTheTreeWithItsFiles) {
  std::filesystem::remove_all(folder());
  EXPECT_EQ(errorOf(mkdir(at("folder/sub").c_str(), 0755)), EACCES);
  expectTold(writeFile(at("folder/file"), O_WRONLY, "CONTENT"));
  EXPECT_TRUE(eventually([&] { return listing(volume).empty(); })) << listing(volume);
  EXPECT_FALSE(std::filesystem::exists(folder()));
  expectKept("folder/file", "CONTENT");
}

TEST_P(RefusalCode, WhatIsTriedAgainWithSuccessIsNotKept) {
  const ShellResult removed = user->run("rm " + shellWord(at("folder/file")));
  ASSERT_EQ(removed.status, 0) << removed.errors;
  mountOnServer("-t tmpfs -o size=64k tmpfs");
  const std::string bytes = someBytes(100000);
  expectTold(writeFile(at("folder/new"), O_WRONLY | O_CREAT, bytes));
  expectServersTree("folder/new");
  ASSERT_EQ(shell("mount -o remount,size=1M " + shellWord(folder())).status, 0);
  const Told again = writeFile(at("folder/new"), O_WRONLY | O_CREAT | O_TRUNC, bytes);
  EXPECT_EQ(again.open, 0) << strerror(again.open);
  EXPECT_EQ(again.write, 0) << strerror(again.write);
  EXPECT_EQ(again.fsync, 0) << strerror(again.fsync);
  EXPECT_EQ(again.close, 0) << strerror(again.close);
  expectServersTree("folder/new");
  unmount();
  EXPECT_TRUE(bytesOf(folder() + "/new") == bytes);
}

// The server serves another user than the owner of what lies there.
class PermissionCode : public RefusalCode {
 protected:
  void SetUp() override {
    RefusalCode::SetUp();
    if (HasFatalFailure()) return;
    unmount();
    ASSERT_EQ(account.problem(), "");
    // The server reads the keys as the user that logs in.
    const ShellResult made = shell("chmod 755 " + shellWord(data()) + " " + shellWord(server->folder()) +
                                   " && chmod 644 " + shellWord(server->folder() + "/authorized_keys"));
    ASSERT_EQ(made.status, 0) << made.errors;
    volume = user->mount("--identity " + shellWord(server->identityFile()) + " " +
                         shellWord("sftp://" + account.name() + "@" + server->address() + ":" +
                                   std::to_string(server->port()) + data()));
  }
  TemporaryUser account;
};

INSTANTIATE_TEST_SUITE_P(Volumes, PermissionCode, ::testing::Values(VolumeKind::kSFTP), nameOfVolumeKind);

TEST_P(PermissionCode, AForbiddenWriteIsAnInputOutputErrorAndTheFileStaysAsItIs) {
  EXPECT_EQ(writeFile(at("folder/new"), O_WRONLY | O_CREAT, "new").open, EIO);
  EXPECT_EQ(writeFile(at("folder/file"), O_WRONLY | O_TRUNC, "new").open, EIO);
  EXPECT_EQ(errorOf(mkdir(at("folder/more").c_str(), 0755)), EACCES);
  expectTold(writeFile(at("folder/file"), O_WRONLY, "CONTENT"));
  expectServersTree("folder/file");
  EXPECT_EQ(bytesOf(data() + "/folder/file"), "content");
  expectKept("folder/file", "CONTENT");
}

// A lost connection refuses nothing.
class LostConnectionCode : public RefusalCode {};

INSTANTIATE_TEST_SUITE_P(Volumes, LostConnectionCode, ::testing::Values(VolumeKind::kSFTP), nameOfVolumeKind);

TEST_P(LostConnectionCode, AConnectionLostBetweenTwoWritesIsNoError) {
  const std::string bytes = someBytes(300000);
  const int descriptor = open(at("folder/file").c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  ASSERT_GE(descriptor, 0) << strerror(errno);
  EXPECT_EQ(write(descriptor, bytes.data(), 100000), 100000);
  server->dropConnections();
  EXPECT_EQ(write(descriptor, bytes.data() + 100000, 200000), 200000) << strerror(errno);
  EXPECT_EQ(errorOf(fsync(descriptor)), 0);
  EXPECT_EQ(errorOf(close(descriptor)), 0);
  EXPECT_TRUE(bytesOf(data() + "/folder/file") == bytes);
}

}  // namespace
}  // namespace ombra
