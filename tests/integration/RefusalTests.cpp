// What the server refuses reaches the program that asked for it, and nothing half done stays in the tree.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "tests/integration/WritingFixture.h"
#include "tests/support/TemporaryUser.h"

namespace ombra {
namespace {

// A file system of its own over a folder of the server.
class ServerMount {
 public:
  ServerMount(const std::string& arguments, std::string folder) : iFolder(std::move(folder)) {
    const ShellResult mounted = shell("mount " + arguments + " " + shellWord(iFolder));
    EXPECT_EQ(mounted.status, 0) << mounted.errors;
  }
  // The server may still look at something there.
  ~ServerMount() { EXPECT_EQ(umount2(iFolder.c_str(), MNT_DETACH), 0) << strerror(errno); }
  ServerMount(const ServerMount&) = delete;
  ServerMount& operator=(const ServerMount&) = delete;
  void change(const std::string& options) {
    const ShellResult changed = shell("mount -o remount," + options + " " + shellWord(iFolder));
    EXPECT_EQ(changed.status, 0) << changed.errors;
  }

 private:
  std::string iFolder;
};

class Refusal : public VolumeTest {
 protected:
  ShellResult inVolume(const std::string& script) {
    return user->run("cd " + shellWord(volume) + " && " + script);
  }
  // Each fails and says so. Which error it is: the system has few of them.
  void expectRefused(const std::vector<std::string>& scripts) {
    for (const std::string& script : scripts) {
      const ShellResult result = inVolume(script);
      EXPECT_NE(result.status, 0) << script;
      EXPECT_NE(result.errors, "") << script;
    }
  }
  // The volume shows what the server has: names, types, lengths, content; also after it has looked again.
  void expectTreeOfServer() {
    EXPECT_EQ(tree(volume), tree(data())) << "as it is known";
    EXPECT_EQ(user->ombra("refresh " + shellWord(volume)).status, 0);
    EXPECT_TRUE(eventually([this] { return tree(volume) == tree(data()); }))
        << tree(volume) << "\nis not, after a refresh,\n"
        << tree(data());
    EXPECT_EQ(leftovers(), "");
  }
  // What failed takes nothing else with it.
  void expectTheRestWorks() {
    EXPECT_EQ(inVolume("mkdir -p elsewhere && echo x > elsewhere/file && cat elsewhere/file").output, "x\n");
    EXPECT_EQ(bytesOf(data() + "/elsewhere/file"), "x\n");
  }
  std::string tree(const std::string& folder) {
    return shell("cd " + shellWord(folder) +
                 " && find . -mindepth 1 ! -type d -printf '%y %s %l %p\\n' -o -mindepth 1 -printf '%y "
                 "%p\\n' | sort"
                 " && find . -type f -readable -exec md5sum {} + | sort")
        .output;
  }
};

OMBRA_EVERY_VOLUME(Refusal);

TEST_P(Refusal, AFullDiskIsToldAndTheFileIsStoredOnceThereIsRoom) {
  ASSERT_EQ(inVolume("mkdir full && ls full").status, 0);
  ServerMount disk("-t tmpfs -o size=64k tmpfs", data() + "/full");
  ASSERT_EQ(user->run("head -c 1000000 /dev/urandom > ~/large").status, 0);
  expectRefused({"cp ~/large full/file"});
  expectTheRestWorks();
  disk.change("size=10M");
  EXPECT_EQ(inVolume("cp ~/large full/file").status, 0);
  EXPECT_TRUE(bytesOf(data() + "/full/file") == bytesOf(user->home() + "/large"));
  expectTreeOfServer();
  unmount();
}

TEST_P(Refusal, WhatAFullDiskRefusedCanBeRemoved) {
  ASSERT_EQ(inVolume("mkdir full && ls full").status, 0);
  const ServerMount disk("-t tmpfs -o size=64k tmpfs", data() + "/full");
  expectRefused(
      {"head -c 1000000 /dev/zero > full/file", "dd if=/dev/zero of=full/synced bs=200k count=1 conv=fsync"});
  EXPECT_EQ(inVolume("rm full/*").status, 0);
  EXPECT_EQ(shell("ls -A " + shellWord(data() + "/full")).output, "");
  expectTreeOfServer();
  EXPECT_EQ(inVolume("echo fits > full/small").status, 0);
  EXPECT_EQ(bytesOf(data() + "/full/small"), "fits\n");
  unmount();
}

TEST_P(Refusal, ADiskWithoutRoomForAnotherItemMakesNone) {
  ASSERT_EQ(inVolume("mkdir full && ls full").status, 0);
  const ServerMount disk("-t tmpfs -o size=10M,nr_inodes=2 tmpfs", data() + "/full");
  ASSERT_EQ(inVolume("mkdir full/last").status, 0);
  expectRefused({"echo x > full/file", "mkdir full/folder", "ln -s x full/link",
                 "cp -r full full2 && cp -r full2 full"});
  EXPECT_EQ(inVolume("ls full").output, "last\n");
  expectTreeOfServer();
  unmount();
}

TEST_P(Refusal, AReadOnlyDiskStaysAsItIs) {
  std::filesystem::create_directories(data() + "/fixed/folder");
  std::ofstream(data() + "/fixed/file") << "content";
  std::ofstream(data() + "/fixed/folder/deep") << "deep";
  std::ofstream(data() + "/mine") << "mine";
  ServerMount disk("--bind " + shellWord(data() + "/fixed"), data() + "/fixed");
  disk.change("bind,ro");
  ASSERT_EQ(user->ombra("refresh " + shellWord(volume)).status, 0);
  ASSERT_TRUE(eventually("cat " + shellWord(volume + "/fixed/file")));
  const std::string before = tree(data());
  expectRefused({"echo x > fixed/new", "echo x > fixed/file", "truncate -s 0 fixed/file", "mkdir fixed/more",
                 "ln -s x fixed/link", "rm -f fixed/file", "rm -r fixed/folder", "mv fixed/file fixed/other",
                 "mv fixed/folder fixed/other", "mv mine fixed/mine", "mv -f mine fixed/file",
                 "cp mine fixed/file", "truncate -s 3 fixed/file", "chmod 600 fixed/file",
                 "touch -d 2001-02-03 fixed/file"});
  EXPECT_EQ(tree(data()), before);
  EXPECT_EQ(inVolume("cat fixed/file mine fixed/folder/deep").output, "contentminedeep");
  expectTreeOfServer();
  expectTheRestWorks();
  unmount();
}

TEST_P(Refusal, ANameThatIsTooLongMakesNothing) {
  const std::string name(256, 'n');
  expectRefused({"echo x > " + name, "mkdir " + name, "ln -s x " + name, "echo x > a && mv a " + name});
  EXPECT_EQ(inVolume("ls -A").output, "a\n");
  EXPECT_EQ(inVolume("mv a " + name.substr(1)).status, 0);
  expectTreeOfServer();
}

TEST_P(Refusal, NothingIsMadeInAFolderThatHasVanished) {
  ASSERT_EQ(inVolume("mkdir -p gone/sub && echo text > gone/file && echo x > mine").status, 0);
  std::filesystem::remove_all(data() + "/gone");
  expectRefused({"echo x > gone/new", "mkdir gone/folder", "ln -s x gone/link", "mv mine gone/mine",
                 "mv gone/file other", "echo x > gone/sub/new"});
  EXPECT_FALSE(std::filesystem::exists(data() + "/gone"));
  EXPECT_EQ(inVolume("cat mine").output, "x\n");
  EXPECT_EQ(user->ombra("refresh " + shellWord(volume)).status, 0);
  EXPECT_TRUE(eventually("! ls " + shellWord(volume) + " | grep gone"));
  expectTreeOfServer();
}

TEST_P(Refusal, AFileThatIsWrittenInAVanishedFolderFailsAtItsCloseAndIsNotMadeElsewhere) {
  ASSERT_EQ(inVolume("mkdir gone").status, 0);
  const int descriptor = open((volume + "/gone/file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(descriptor, 0) << strerror(errno);
  EXPECT_EQ(write(descriptor, "before", 6), 6);
  std::filesystem::remove_all(data() + "/gone");
  const bool isWritten = write(descriptor, "after", 5) == 5;
  const bool isSynced = fsync(descriptor) == 0;
  const bool isClosed = close(descriptor) == 0;
  // Over SFTP the server's own handle goes on working, as a local one would: then the bytes are nowhere to be
  // seen, as after any removal by somebody else.
  if (!isSFTP()) {
    EXPECT_FALSE(isWritten && isSynced && isClosed);
  }
  EXPECT_FALSE(std::filesystem::exists(data() + "/gone"));
  user->ombra("unmount --force " + shellWord(volume));
}

// The server serves another user than the owner of what lies there.
class PermissionRefusal : public Refusal {
 protected:
  void SetUp() override {
    Refusal::SetUp();
    if (HasFatalFailure()) return;
    unmount();
    ASSERT_EQ(account.problem(), "");
    const ShellResult made = shell("cd " + shellWord(data()) +
                                   " && chmod 755 . && mkdir own closed hidden && echo content > closed/file"
                                   " && mkdir closed/folder && echo secret > closed/secret && chmod 600 "
                                   "closed/secret && echo x > hidden/x"
                                   " && chmod 700 hidden && chown " +
                                   account.name() +
                                   " own"
                                   // The server reads the keys as the user that logs in.
                                   " && chmod 755 " +
                                   shellWord(server->folder()) + " && chmod 644 " +
                                   shellWord(server->folder() + "/authorized_keys"));
    ASSERT_EQ(made.status, 0) << made.errors;
    volume = user->mount("--identity " + shellWord(server->identityFile()) + " " +
                         shellWord("sftp://" + account.name() + "@" + server->address() + ":" +
                                   std::to_string(server->port()) + data()));
  }
  TemporaryUser account;
};

INSTANTIATE_TEST_SUITE_P(Volumes, PermissionRefusal, ::testing::Values(VolumeKind::kSFTP), nameOfVolumeKind);

TEST_P(PermissionRefusal, WhatTheServerForbidsFailsAndChangesNothing) {
  ASSERT_EQ(inVolume("echo mine > own/mine && ls closed").status, 0);
  const std::string before = tree(data());
  expectRefused({"echo x > closed/new", "echo x > closed/file", "truncate -s 3 closed/file",
                 "mkdir closed/more", "ln -s x closed/link", "rm -f closed/file", "rmdir closed/folder",
                 "mv closed/file own/file", "mv closed/folder own/folder", "mv own/mine closed/mine",
                 "mv -f own/mine closed/file", "cp own/mine closed/file", "chmod 600 closed/file",
                 "touch -d 2001-02-03 closed/file", "cat closed/secret", "ls hidden"});
  EXPECT_EQ(tree(data()), before);
  EXPECT_EQ(inVolume("cat own/mine closed/file").output, "mine\ncontent\n");
  EXPECT_EQ(inVolume("ls own closed").output, "closed:\nfile\nfolder\nsecret\n\nown:\nmine\n");
  EXPECT_EQ(shell("stat -c '%U %a' " + shellWord(data() + "/closed/file")).output, "root 644\n");
  EXPECT_EQ(inVolume("echo more >> own/mine && mv own/mine own/moved && cat own/moved").output,
            "mine\nmore\n");
}

TEST_P(PermissionRefusal, AWriteAfterThePermissionIsGoneIsToldAtTheLatestByTheClose) {
  ASSERT_EQ(inVolume("echo first > own/file").status, 0);
  ASSERT_EQ(shell("cd " + shellWord(data()) + " && chown root own own/file && chmod 644 own/file").status, 0);
  expectRefused(
      {"echo second > own/file", "dd if=/dev/zero of=own/file bs=1k count=1 conv=notrunc,fsync status=none"});
  EXPECT_EQ(bytesOf(data() + "/own/file"), "first\n");
  // Nobody else has what the program wrote, so it is kept although the program was told.
  const ShellResult result = user->ombra("unmount " + shellWord(volume));
  EXPECT_EQ(result.status, 1) << result.errors;
  EXPECT_NE(result.errors.find("/own/file"), std::string::npos) << result.errors;
  EXPECT_EQ(bytesOf(data() + "/own/file"), "first\n");
}

}  // namespace
}  // namespace ombra
