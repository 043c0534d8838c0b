// Real programs write to a mounted folder; the server ends with the bytes that a local folder would have.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "tests/integration/MountFixture.h"

namespace ombra {
namespace {

// Runs each script twice, in the volume and in a local twin, and compares what the server and the twin hold
// then.
class Writing : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (HasFatalFailure()) return;
    volume = user->mount(mountArguments(data()));
    user->environment()["GIT_CONFIG_GLOBAL"] = "/dev/null";
    for (const char* role : {"AUTHOR", "COMMITTER"}) {
      user->environment()[std::string("GIT_") + role + "_NAME"] = "A";
      user->environment()[std::string("GIT_") + role + "_EMAIL"] = "a@example.org";
      user->environment()[std::string("GIT_") + role + "_DATE"] = "2001-02-03T04:05:06Z";
    }
  }
  void runInBoth(const std::string& script) {
    const ShellResult here = user->run("cd " + shellWord(volume) + " && " + script);
    const ShellResult there = user->run("cd " + shellWord(twin.path()) + " && " + script);
    EXPECT_EQ(here.status, there.status) << script << "\n" << here.errors << here.output;
    expectEqual(script);
  }
  void expectEqual(const std::string& after) {
    EXPECT_EQ(shell("diff -r --no-dereference " + shellWord(data()) + " " + shellWord(twin.path())).output,
              "")
        << after;
    const std::string modes = " && find . -mindepth 1 ! -type l -printf '%y %m %p\\n' | sort";
    EXPECT_EQ(shell("cd " + shellWord(data()) + modes).output,
              shell("cd " + shellWord(twin.path()) + modes).output)
        << after;
  }
  std::string volume;
  TemporaryFolder twin;
};

TEST_F(Writing, FilesFoldersAndLinksAreMadeChangedMovedAndRemoved) {
  runInBoth("echo hello > a && cat a");
  runInBoth("mkdir d && cp a d/b && mv d/b d/c && mkdir -p x/y/z && mv x/y d/y");
  runInBoth("ln -s a link && readlink link");
  runInBoth("mv d/c a");
  runInBoth("rmdir d/y/z && rm link");
  runInBoth("rm -r d x");
  runInBoth("rmdir a");
  runInBoth("mkdir a");
}

TEST_F(Writing, AppendsSeeksAndTruncatesLandInPlace) {
  runInBoth("seq 1 1000 > f && seq 1 10 >> f");
  runInBoth("printf XYZ | dd of=f bs=1 seek=100 conv=notrunc status=none");
  runInBoth("printf end | dd of=f bs=1 seek=100000 conv=notrunc status=none");
  runInBoth("truncate -s 50 f && truncate -s 5000 f");
  runInBoth("sed -i 's/1/one/' f");
  runInBoth(": > f");
}

TEST_F(Writing, EditorsSaveInTheirThreeWays) {
  runInBoth("echo first > doc && echo second > .doc.tmp && mv .doc.tmp doc");
  runInBoth("cp doc doc~ && echo third > doc");
  runInBoth("mv doc doc.bak && echo fourth > doc && rm doc.bak");
}

TEST_F(Writing, ModesAndDatesAreKept) {
  runInBoth("echo '#!/bin/sh' > tool && chmod 755 tool && chmod 640 tool && chmod 755 tool");
  runInBoth("echo 'echo hi' >> tool && ./tool");
  EXPECT_EQ(user->run("touch -d '2001-02-03 04:05:06' " + shellWord(volume + "/tool") + " && stat -c %Y " +
                      shellWord(volume + "/tool"))
                .output,
            shell("date -d '2001-02-03 04:05:06' +%s").output);
}

TEST_F(Writing, CopiesKeepTheirDatesOnTheServer) {
  const std::string home = shellWord(user->home());
  const ShellResult made = user->run("cd " + home +
                                     " && mkdir -p old/sub && echo 1 > old/a && echo 2 > old/sub/b"
                                     " && touch -d '2001-02-03 04:05:06' old/a old/sub/b");
  ASSERT_EQ(made.status, 0) << made.errors;
  const std::string volumeWord = shellWord(volume);
  const ShellResult copied =
      user->run("cd " + home + " && cp -p old/a " + volumeWord + "/a && cp -r --preserve=timestamps old " +
                volumeWord + "/tree && tar c old | tar x -C " + volumeWord + " --no-same-owner" +
                " && rsync -rt old/ " + volumeWord + "/synced");
  ASSERT_EQ(copied.status, 0) << copied.errors;
  const std::string expected = shell("date -d '2001-02-03 04:05:06' +%s").output;
  for (const char* file :
       {"/a", "/tree/a", "/tree/sub/b", "/old/a", "/old/sub/b", "/synced/a", "/synced/sub/b"}) {
    EXPECT_EQ(shell("stat -c %Y " + shellWord(data() + file)).output, expected) << file;
  }
}

TEST_F(Writing, TarAndRsyncAndGitWork) {
  const ShellResult made =
      user->run("cd " + shellWord(user->home()) +
                " && mkdir src && cd src && git init -q && for i in $(seq 50); do echo $i > f$i; done"
                " && mkdir sub && ln -s ../f1 sub/link && git add . && git commit -qm one");
  ASSERT_EQ(made.status, 0) << made.errors;
  const std::string source = shellWord(user->home() + "/src");
  const ShellResult tar =
      user->run("tar c -C " + source + " f1 f2 sub | tar x -C " + shellWord(volume) + " --no-same-owner");
  EXPECT_EQ(tar.status, 0) << tar.errors;
  EXPECT_EQ(shell("diff " + source + "/f1 " + shellWord(data() + "/f1")).status, 0);
  const std::string rsync =
      "rsync -a --no-owner --no-group --delete " + source + "/ " + shellWord(volume + "/copy") + " --stats";
  const ShellResult first = user->run(rsync);
  EXPECT_EQ(first.status, 0) << first.errors;
  EXPECT_EQ(shell("diff -r --no-dereference " + source + " " + shellWord(data() + "/copy")).output, "");
  const ShellResult second = user->run(rsync);
  EXPECT_NE(second.output.find("Number of regular files transferred: 0\n"), std::string::npos)
      << second.output;
  const ShellResult clone =
      user->run("cd " + shellWord(volume) + " && git clone -q " + source +
                    " clone && cd clone && echo more > more && git add . && git commit -qm two"
                    " && git gc -q && git fsck --strict 2>&1 && git log --oneline | wc -l",
                300);
  EXPECT_EQ(clone.status, 0) << clone.errors;
  EXPECT_EQ(
      shell(
          "cd " + shellWord(data() + "/clone") +
          " && git -c safe.directory='*' fsck --strict 2>&1 && git -c safe.directory='*' status --porcelain")
          .output,
      "");
}

TEST_F(Writing, ADatabaseSurvives) {
  const ShellResult made = user->run("cd " + shellWord(volume) +
                                     " && sqlite3 db 'create table t(a); begin; insert into t select value "
                                     "from generate_series(1, 2000); commit;"
                                     " delete from t where a % 2; vacuum; select count(*) from t;'");
  EXPECT_EQ(made.output, "1000\n") << made.errors;
  EXPECT_EQ(
      shell("sqlite3 " + shellWord(data() + "/db") + " 'pragma integrity_check; select count(*) from t;'")
          .output,
      "ok\n1000\n");
}

TEST_F(Writing, AMappingIsReadAndWritten) {
  std::ofstream(data() + "/map") << std::string(10000, 'a');
  user->ombra("refresh " + shellWord(volume));
  ASSERT_TRUE(eventually("test -f " + shellWord(volume + "/map")));
  const int descriptor = open((volume + "/map").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(descriptor, 0);
  auto* bytes = static_cast<char*>(mmap(nullptr, 10000, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
  ASSERT_NE(bytes, MAP_FAILED) << strerror(errno);
  EXPECT_EQ(bytes[9999], 'a');
  std::memcpy(bytes + 5000, "mapped", 6);
  EXPECT_EQ(msync(bytes, 10000, MS_SYNC), 0);
  munmap(bytes, 10000);
  EXPECT_EQ(close(descriptor), 0);
  EXPECT_EQ(shell("dd if=" + shellWord(data() + "/map") + " bs=1 skip=4999 count=8 status=none").output,
            "amappeda");
}

TEST_F(Writing, AFileRemovedOrRenamedWhileOpenGoesOnWorking) {
  runInBoth("exec 3<>open && echo line >&3 && rm open && echo after >&3 && test ! -e open");
  runInBoth("exec 3> named && echo one >&3 && mv named other && echo two >&3 && exec 3>&- && cat other");
  runInBoth("mkdir m && exec 3> m/f && echo one >&3 && mv m n && echo two >&3 && exec 3>&- && cat n/f");
  runInBoth("echo old > target && exec 3< target && echo new > fresh && mv fresh target && cat target");
}

TEST_F(Writing, ManySmallFilesArriveAndGo) {
  runInBoth("for d in $(seq 10); do mkdir t$d; for f in $(seq 20); do echo $d $f > t$d/f$f; done; done");
  runInBoth("rm -r t1 t2 t3");
}

TEST_F(Writing, WhatCannotBeDoneIsRefusedClearly) {
  EXPECT_NE(user->run("fallocate -l 1M " + shellWord(volume + "/x")).errors.find("not supported"),
            std::string::npos);
  EXPECT_NE(user->run("echo a > " + shellWord(volume + "/a") + "; ln " + shellWord(volume + "/a") + " " +
                      shellWord(volume + "/b"))
                .status,
            0);
  EXPECT_NE(user->run("mkfifo " + shellWord(volume + "/pipe")).status, 0);
  EXPECT_EQ(user->run("ls -A " + shellWord(data())).output.find("pipe"), std::string::npos);
}

TEST_F(Writing, WhatTheServerRefusesReachesTheProgram) {
  if (geteuid() == 0) {
    // Root may write anywhere, so the refusal is a file system of its own that is full.
    ASSERT_EQ(user->run("mkdir " + shellWord(volume + "/full")).status, 0);
    const std::string mountPoint = shellWord(data() + "/full");
    ASSERT_EQ(shell("mount -t tmpfs -o size=64k tmpfs " + mountPoint).status, 0);
    const ShellResult copied = user->run("head -c 1000000 /dev/zero > " + shellWord(volume + "/full/file"));
    EXPECT_NE(copied.status, 0);
    // The protocol has no word for a full disk.
    EXPECT_NE(copied.errors.find("Input/output error"), std::string::npos) << copied.errors;
    const ShellResult removed = user->run("rm " + shellWord(volume + "/full/file"));
    EXPECT_EQ(removed.status, 0) << removed.errors;
    EXPECT_FALSE(std::filesystem::exists(data() + "/full/file"));
    // What failed takes nothing else with it.
    EXPECT_EQ(user->run("echo x > " + shellWord(volume + "/elsewhere") + " && cat " +
                        shellWord(volume + "/elsewhere"))
                  .output,
              "x\n");
    user->ombra("unmount " + shellWord(volume));
    EXPECT_EQ(shell("umount " + mountPoint).status, 0);
  } else {
    std::filesystem::create_directory(data() + "/closed");
    std::filesystem::permissions(data() + "/closed",
                                 std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    EXPECT_NE(user->run("echo x > " + shellWord(volume + "/closed/file")).status, 0);
  }
}

TEST_F(Writing, ALargeFileArrivesWholeAndMemoryStaysSmall) {
  const pid_t helper = user->helperOf(volume);
  const ShellResult copied =
      user->run("head -c 300M /dev/urandom > " + shellWord(user->home() + "/big") + " && cp " +
                shellWord(user->home() + "/big") + " " + shellWord(volume + "/big"));
  EXPECT_EQ(copied.status, 0) << copied.errors;
  EXPECT_EQ(shell("cmp " + shellWord(user->home() + "/big") + " " + shellWord(data() + "/big")).status, 0);
  const ShellResult peak = shell("awk '/VmHWM/ {print $2}' /proc/" + std::to_string(helper) + "/status");
  EXPECT_LT(std::stol(peak.output), 64 * 1024);
}

}  // namespace
}  // namespace ombra
