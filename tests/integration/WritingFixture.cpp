#include "tests/integration/WritingFixture.h"

#include <fstream>
#include <random>
#include <sstream>

namespace ombra {

std::ostream& operator<<(std::ostream& stream, VolumeKind kind) {
  return stream << (kind == VolumeKind::kSFTP ? "SFTP" : "Streaming");
}

std::string nameOfVolumeKind(const ::testing::TestParamInfo<VolumeKind>& info) {
  std::ostringstream name;
  name << info.param;
  return name.str();
}

void VolumeTest::SetUp() {
  MountTest::SetUp();
  if (HasFatalFailure()) return;
  volume = user->mount(isSFTP() ? mountArguments(data()) : "--streaming " + shellWord("file://" + data()));
  user->environment()["GIT_CONFIG_GLOBAL"] = "/dev/null";
  for (const char* role : {"AUTHOR", "COMMITTER"}) {
    user->environment()[std::string("GIT_") + role + "_NAME"] = "A";
    user->environment()[std::string("GIT_") + role + "_EMAIL"] = "a@example.org";
    user->environment()[std::string("GIT_") + role + "_DATE"] = "2001-02-03T04:05:06Z";
  }
}

void VolumeTest::TearDown() {
  if (volume.empty()) return;
  unmount();
  EXPECT_EQ(leftovers(), "");
  // The copies that are sent have names for a moment.
  EXPECT_EQ(user->run("find " + shellWord(user->home() + "/tmp") + " -name '*-*-*-*-*'").output, "");
}

void VolumeTest::unmount() {
  if (!isMounted(volume)) return;
  const ShellResult result = user->ombra("unmount " + shellWord(volume));
  EXPECT_EQ(result.status, 0) << result.errors;
}

std::string VolumeTest::leftovers() const {
  return shell("find " + shellWord(data()) + " -name '.fuse*' -o -iname '*.ombra*'").output;
}

void Writing::TearDown() {
  VolumeTest::TearDown();
  expectEqual("the unmount");
}

void Writing::runInBoth(const std::string& script, double limitSeconds) {
  const ShellResult here = user->run("cd " + shellWord(volume) + " && " + script, limitSeconds);
  const ShellResult there = user->run("cd " + shellWord(twin.path()) + " && " + script, limitSeconds);
  EXPECT_EQ(here.status, there.status) << script << "\n" << here.errors << here.output;
  EXPECT_EQ(here.output, there.output) << script << "\n" << here.errors;
  expectEqual(script);
}

void Writing::inBoth(const std::function<void(const std::string& folder)>& change) {
  change(volume);
  change(twin.path());
  expectEqual("the change");
}

void Writing::expectEqual(const std::string& after) {
  EXPECT_EQ(shell("diff -r --no-dereference " + shellWord(data()) + " " + shellWord(twin.path())).output, "")
      << after;
  const std::string list = " && find . -mindepth 1 -printf '%y %m %l %p\\n' | sort";
  EXPECT_EQ(shell("cd " + shellWord(data()) + list).output,
            shell("cd " + shellWord(twin.path()) + list).output)
      << after;
}

std::string bytesOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

std::string someBytes(size_t length, unsigned seed) {
  std::mt19937_64 random(seed);
  std::string bytes(length + sizeof(uint64_t), '\0');
  for (size_t at = 0; at < length; at += sizeof(uint64_t)) {
    const uint64_t word = random();
    bytes.replace(at, sizeof word, reinterpret_cast<const char*>(&word), sizeof word);
  }
  bytes.resize(length);
  return bytes;
}

}  // namespace ombra
