// How a volume comes and goes, and that nothing stays behind.
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/integration/MountFixture.h"

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
    EXPECT_TRUE(eventually("! kill -0 " + std::to_string(helper) + " 2>/dev/null", 20))
        << "the helper lives on";
    EXPECT_FALSE(isMounted(volume));
    EXPECT_FALSE(std::filesystem::exists(volume)) << "the mount point was left";
  }
  std::string volume;
  pid_t helper = 0;
};

TEST_F(LifeCycle, TheVolumeIsNamedAfterTheServerUnlessToldOtherwise) {
  EXPECT_EQ(volume, "/Volumes/127.0.0.1");
  EXPECT_EQ(user->mount("--name Other " + mountArguments(data())), "/Volumes/Other");
  EXPECT_NE(user->mount("--name Other " + mountArguments(data())), "/Volumes/Other");
}

TEST_F(LifeCycle, UnmountByPathEndsTheHelper) {
  const ShellResult result = user->ombra("unmount " + shellWord(volume));
  EXPECT_EQ(result.status, 0) << result.errors;
  expectEverythingGone();
}

TEST_F(LifeCycle, UnmountByNameEndsTheHelper) {
  EXPECT_EQ(user->ombra("unmount 127.0.0.1").status, 0);
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
  EXPECT_TRUE(eventually("! kill -0 " + std::to_string(helper) + " 2>/dev/null"));
  const std::string again = user->mount(mountArguments(data()));
  EXPECT_EQ(again, volume);
  EXPECT_EQ(user->run("cat " + shellWord(again + "/file")).output, "text");
}

TEST_F(LifeCycle, TheListNamesTheVolumeItsServerAndItsProcess) {
  const nlohmann::json volumes = nlohmann::json::parse(user->ombra("list --json").output)["volumes"];
  ASSERT_EQ(volumes.size(), 1u);
  EXPECT_EQ(volumes[0]["volumeName"], "127.0.0.1");
  EXPECT_EQ(volumes[0]["mountPath"], volume);
  EXPECT_EQ(volumes[0]["pid"], helper);
  EXPECT_NE(user->ombra("list").output.find(volume), std::string::npos);
}

TEST_F(LifeCycle, LogsOfTheVolumeAreShown) {
  const ShellResult logs = user->ombra("logs --transcript 127.0.0.1");
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

}  // namespace
}  // namespace ombra
