// How a volume comes and goes, and that nothing stays behind.
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/integration/MountFixture.h"
#include "tests/support/TemporaryUser.h"

namespace ombra {
namespace {

class LifeCycle : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (HasFatalFailure()) return;
    std::ofstream(data() + "/file") << "text";
    volume = user->mount(mountArguments(data()));
    helper = user->helperOf(volume);
    ASSERT_GT(helper, 0);
  }
  void expectEverythingGone() {
    EXPECT_TRUE(eventually([this] { return !processExists(helper); }, 20)) << "the helper lives on";
    EXPECT_FALSE(isMounted(volume));
    EXPECT_FALSE(std::filesystem::exists(volume)) << "the mount point was left";
  }
  std::string volume;
  pid_t helper = 0;
};

TEST_F(LifeCycle, TheVolumeIsNamedAfterTheServerUnlessToldOtherwise) {
  EXPECT_EQ(volume, "/Volumes/" + server->address());
  const std::string other = ownName("Other");
  EXPECT_EQ(user->mount("--name " + other + " " + mountArguments(data())), "/Volumes/" + other);
  EXPECT_NE(user->mount("--name " + other + " " + mountArguments(data())), "/Volumes/" + other);
}

TEST_F(LifeCycle, UnmountByPathEndsTheHelper) {
  const ShellResult result = user->ombra("unmount " + shellWord(volume));
  EXPECT_EQ(result.status, 0) << result.errors;
  expectEverythingGone();
}

TEST_F(LifeCycle, UnmountByNameEndsTheHelper) {
  EXPECT_EQ(user->ombra("unmount " + server->address()).status, 0);
  expectEverythingGone();
}

TEST_F(LifeCycle, UnmountByHandEndsTheHelper) {
  EXPECT_EQ(user->run("umount " + shellWord(volume)).status, 0);
  expectEverythingGone();
}

TEST_F(LifeCycle, TheTerminationSignalUnmounts) {
  kill(helper, SIGTERM);
  expectEverythingGone();
}

TEST_F(LifeCycle, UnmountWorksWhenTheServerIsDead) {
  server->dropConnections();
  server->stop();
  const ShellResult result = user->ombra("unmount " + shellWord(volume));
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_LT(result.seconds, 30);
  expectEverythingGone();
}

TEST_F(LifeCycle, AMountPointOfAKilledHelperIsCleared) {
  kill(helper, SIGKILL);
  EXPECT_TRUE(eventually([this] { return !processExists(helper); }));
  const std::string again = user->mount(mountArguments(data()));
  EXPECT_EQ(again, volume);
  EXPECT_EQ(user->run("cat " + shellWord(again + "/file")).output, "text");
}

TEST_F(LifeCycle, TheListNamesTheVolumeItsServerAndItsProcess) {
  nlohmann::json volumes = nlohmann::json::parse(user->ombra("list --json").output)["volumes"];
  std::erase_if(volumes.get_ref<nlohmann::json::array_t&>(),
                [this](const nlohmann::json& listed) { return listed["mountPath"] != volume; });
  ASSERT_EQ(volumes.size(), 1u);
  EXPECT_EQ(volumes[0]["volumeName"], server->address());
  EXPECT_EQ(volumes[0]["pid"], helper);
  EXPECT_EQ(user->volumes(), (std::map<std::string, pid_t>{{volume, helper}}));
  EXPECT_NE(user->ombra("list").output.find(volume), std::string::npos);
}

TEST_F(LifeCycle, LogsOfTheVolumeAreShown) {
  const ShellResult logs = user->ombra("logs --transcript " + server->address());
  EXPECT_EQ(logs.status, 0) << logs.errors;
  EXPECT_NE(logs.output.find("ombrafs-helper"), std::string::npos);
}

TEST_F(LifeCycle, NoCacheFileHasANameInTheTemporaryFolder) {
  EXPECT_EQ(user->run("cat " + shellWord(volume + "/file")).output, "text");
  EXPECT_EQ(user->run("find " + shellWord(user->home() + "/tmp") + " -name '*-*-*-*-*' | wc -l").output,
            "0\n");
}

TEST_F(LifeCycle, TheProcessTitleHoldsNoSecret) {
  const ShellResult shown = user->run("tr '\\0' ' ' < /proc/" + std::to_string(helper) + "/cmdline");
  EXPECT_NE(shown.output.find("--uuid="), std::string::npos);
  EXPECT_EQ(shown.output.find("PRIVATE"), std::string::npos);
}

// The tests run as root, where much is allowed; most people are not.
class OrdinaryUser : public LifeCycle {
 protected:
  void SetUp() override {
    LifeCycle::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_EQ(account.problem(), "");
    ASSERT_EQ(stat("/dev/fuse", &fuse), 0);
    // As the system's device manager leaves it where one runs.
    ASSERT_EQ(chmod("/dev/fuse", 0666), 0);
    // Where the build lies, others may not look.
    const std::string build = OMBRA_BUILD_DIR;
    const ShellResult copied = shell("cd " + programs.path() + " && chmod 755 . && mkdir bin && cp -a " +
                                     build + "/bin/ombra bin && cp -a " + build + "/libexec .");
    ASSERT_EQ(copied.status, 0) << copied.errors;
    ASSERT_EQ(shell("chown -R " + account.name() + " " + user->home() + " " + data()).status, 0);
  }
  void TearDown() override {
    if (fuse.st_mode != 0) chmod("/dev/fuse", fuse.st_mode & 07777);
  }

  ShellResult as(const std::string& command) {
    return user->run("cd / && exec setpriv --reuid " + account.name() + " --regid " + account.name() +
                     " --clear-groups " + command);
  }
  ShellResult ombraAs(const std::string& arguments) { return as(programs / "bin/ombra " + arguments); }

  TemporaryUser account;
  TemporaryFolder programs;
  struct stat fuse {};
};

TEST_F(OrdinaryUser, MountsReadsWritesAndUnmounts) {
  std::ofstream(data() + "/file") << "text";
  const std::string name = ownName("ordinary");
  const ShellResult mounted = ombraAs("mount --name " + name + " " + shellWord("file://" + data()));
  ASSERT_EQ(mounted.status, 0) << mounted.errors;
  EXPECT_EQ(as("cat /Volumes/" + name + "/file").output, "text");
  EXPECT_EQ(as("sh -c 'echo new > /Volumes/" + name + "/made'").status, 0);
  EXPECT_EQ(shell("cat " + shellWord(data() + "/made")).output, "new\n");
  EXPECT_EQ(ombraAs("unmount " + name).status, 0);
  EXPECT_FALSE(isMounted("/Volumes/" + name));
}

}  // namespace
}  // namespace ombra
