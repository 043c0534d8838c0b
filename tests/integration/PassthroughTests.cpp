// One mount per pass-through identifier, on a real server.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <nlohmann/json.hpp>

#include "tests/integration/MountFixture.h"
#include "tests/support/TemporaryUser.h"

namespace ombra {
namespace {

using nlohmann::json;

class PassthroughMount : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (HasFatalFailure()) return;
    std::ofstream(data() + "/file") << "text";
  }
  // What a failing test leaves out of the user's list is unmounted by the user's end.
  std::string arguments() const {
    return "--json --name " + name + " --passthrough team " + mountArguments(data());
  }
  ShellResult mount() { return user->ombra("mount " + arguments()); }
  std::string lockPath() const { return user->home() + "/tmp/OmbraFS.team.pid"; }
  int32_t lockOwner() const {
    int32_t owner = 0;
    std::ifstream(lockPath(), std::ios::binary).read(reinterpret_cast<char*>(&owner), sizeof owner);
    return owner;
  }
  size_t mounts() const {
    const std::string table = shell("cat /proc/self/mounts").output;
    size_t count = 0;
    const std::string path = " /Volumes/" + name;
    for (size_t at = table.find(path); at != std::string::npos; at = table.find(path, at + 1)) ++count;
    return count;
  }

  const std::string name = ownName("Passing");
};

// The helper that finds the identifier taken looks three times, with a second in between.
TEST_F(PassthroughMount, OfTwoStartedTogetherOneMountsAndTheOtherSaysWhich) {
  auto other = std::async(std::launch::async, [this] { return mount(); });
  const ShellResult one = mount();
  const ShellResult two = other.get();
  ASSERT_EQ(one.status, 0) << one.errors;
  ASSERT_EQ(two.status, 0) << two.errors;
  json results[] = {json::parse(one.output), json::parse(two.output)};
  if (results[0]["alreadyMounted"]) std::swap(results[0], results[1]);
  EXPECT_FALSE(results[0]["alreadyMounted"]);
  EXPECT_TRUE(results[1]["alreadyMounted"]);
  for (const json& result : results) {
    EXPECT_EQ(result["mountPath"], "/Volumes/" + name);
    EXPECT_EQ(result["pid"], lockOwner());
  }
  EXPECT_EQ(mounts(), 1u);
  EXPECT_EQ(user->run("cat /Volumes/" + name + "/file").output, "text");
  // The second helper has ended by itself.
  size_t volumes = 0;
  const json listed = json::parse(user->ombra("list --json").output);
  for (const json& volume : listed["volumes"]) volumes += volume["volumeName"] == name ? 1 : 0;
  EXPECT_EQ(volumes, 1u);
}

TEST_F(PassthroughMount, TheLockOfAKilledHelperIsTakenOver) {
  ASSERT_EQ(mount().status, 0);
  const pid_t first = lockOwner();
  ASSERT_TRUE(processExists(first));
  kill(first, SIGKILL);
  ASSERT_TRUE(eventually([first] { return !processExists(first); }));
  EXPECT_EQ(lockOwner(), first) << "nobody takes a lock file away but the next owner";
  const ShellResult again = mount();
  ASSERT_EQ(again.status, 0) << again.errors;
  const json result = json::parse(again.output);
  EXPECT_FALSE(result["alreadyMounted"]);
  EXPECT_NE(lockOwner(), first);
  EXPECT_EQ(result["pid"], lockOwner());
  EXPECT_EQ(user->run("cat /Volumes/" + name + "/file").output, "text");
}

TEST_F(PassthroughMount, AnotherIdentifierIsAnotherVolume) {
  ASSERT_EQ(mount().status, 0);
  const ShellResult other =
      user->ombra("mount --json --name " + name + " --passthrough other " + mountArguments(data()));
  ASSERT_EQ(other.status, 0) << other.errors;
  EXPECT_FALSE(json::parse(other.output)["alreadyMounted"]);
  EXPECT_EQ(mounts(), 2u);
}

TEST_F(PassthroughMount, ALinkInTheLocksPlaceIsToldAndLeftAlone) {
  const std::string elsewhere = user->home() + "/elsewhere";
  std::ofstream(elsewhere) << "mine";
  std::filesystem::create_symlink(elsewhere, lockPath());
  const ShellResult result = mount();
  EXPECT_NE(result.status, 0);
  EXPECT_NE((result.output + result.errors).find("The lock of the identifier “team” could not be taken."),
            std::string::npos)
      << result.output << result.errors;
  EXPECT_NE((result.output + result.errors).find(lockPath()), std::string::npos);
  EXPECT_TRUE(std::filesystem::is_symlink(lockPath()));
  EXPECT_EQ(user->run("cat " + shellWord(elsewhere)).output, "mine");
  EXPECT_EQ(mounts(), 0u);
}

TEST_F(PassthroughMount, AFolderOfAnotherUserIsNotUsedForLocks) {
  TemporaryUser stranger;
  ASSERT_EQ(stranger.problem(), "");
  const std::string folder = user->home() + "/tmp";
  ASSERT_EQ(shell("chown " + stranger.name() + " " + shellWord(folder)).status, 0);
  const ShellResult result = mount();
  EXPECT_NE(result.status, 0);
  const std::string said = result.output + result.errors;
  EXPECT_NE(said.find(folder), std::string::npos) << said;
  EXPECT_FALSE(std::filesystem::exists(lockPath()));
  EXPECT_EQ(mounts(), 0u);
  ASSERT_EQ(shell("chown $(id -u) " + shellWord(folder)).status, 0);
}

}  // namespace
}  // namespace ombra
