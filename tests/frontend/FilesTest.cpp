// Logs, the sample, the volumes folder, the helper's place and arguments.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <filesystem>

#include "frontend/HelperLogs.h"
#include "frontend/HelperProcess.h"
#include "frontend/SampleFolder.h"
#include "frontend/SessionBus.h"
#include "frontend/Volumes.h"
#include "frontend/VolumesFolder.h"
#include "tests/frontend/Surroundings.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(LogName, HoldsVolumeDateAndKind) {
  const auto console = parseLogName("nas_2024-05-14-093000_Console.log");
  ASSERT_TRUE(console);
  EXPECT_EQ(console->volumeName, "nas");
  EXPECT_EQ(console->date, "2024-05-14-093000");
  EXPECT_EQ(console->kind, LogKind::kConsole);
  const auto transcript = parseLogName("my_disk_2_2024-05-14-093000_Transcript.log");
  ASSERT_TRUE(transcript);
  EXPECT_EQ(transcript->volumeName, "my_disk_2");
  EXPECT_EQ(transcript->kind, LogKind::kTranscript);
}

class OtherFileNames : public testing::TestWithParam<const char*> {};
TEST_P(OtherFileNames, AreNoLogs) { EXPECT_FALSE(parseLogName(GetParam())); }
INSTANTIATE_TEST_SUITE_P(Table, OtherFileNames,
                         testing::Values("", "_Console.log", "nas_Console.log", "nas_2024-05-14_Console.log",
                                         "2024-05-14-093000_Console.log", "nas-2024-05-14-093000_Console.log",
                                         "nas_2024-05-14-09300x_Console.log",
                                         "nas_2024-05-14-093000_Console.log.gz",
                                         "nas_2024-05-14-093000_console.log"));

class Logs : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"nas_2024-05-14-093000_Console.log", "nas_2024-06-01-120000_Console.log",
                             "nas_2024-05-30-120000_Console.log", "nas_2024-07-01-120000_Transcript.log",
                             "a-b_2024-05-14-093000_Console.log", "notes.txt"}) {
      writeFile(iFolder / name, name);
    }
  }
  TemporaryFolder iFolder;
};

TEST_F(Logs, TheNewestOfAVolumeIsFound) {
  EXPECT_EQ(newestLog(iFolder.path(), "nas", LogKind::kConsole)->date, "2024-06-01-120000");
  EXPECT_EQ(newestLog(iFolder.path(), "nas", LogKind::kTranscript)->date, "2024-07-01-120000");
}

TEST_F(Logs, AreFoundByTheNameBeforeItWasCleaned) {
  ASSERT_TRUE(newestLog(iFolder.path(), "a:b", LogKind::kConsole));
  EXPECT_FALSE(newestLog(iFolder.path(), "a:b", LogKind::kTranscript));
}

TEST_F(Logs, OfOtherVolumesAreNotTaken) {
  EXPECT_FALSE(newestLog(iFolder.path(), "na", LogKind::kConsole));
  EXPECT_FALSE(newestLog(iFolder / "missing", "nas", LogKind::kConsole));
  EXPECT_THAT(volumesWithLogs(iFolder.path()), ElementsAre("a-b", "nas"));
}

// --- logs that are cleared

constexpr int kSecondsKept = 14 * 24 * 60 * 60;

// The logs of the fixture, last written at a given number of seconds before now.
class OldLogs : public Logs {
 protected:
  void age(const std::string& name, int seconds) const {
    const timeval written{1000000000 - seconds, 0};
    const timeval times[2]{written, written};
    ASSERT_EQ(lutimes((iFolder / name).c_str(), times), 0);
  }
  void ageAll(int seconds) const {
    for (const std::string& name : names()) age(name, seconds);
  }
  std::vector<std::string> names() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(iFolder.path()))
      found.push_back(entry.path().filename());
    std::sort(found.begin(), found.end());
    return found;
  }
  int clear(const std::vector<std::string>& mounted = {}) {
    return clearOldLogs(iFolder.path(), NSDate::dateWithTimeIntervalSince1970(1000000000), [this, &mounted] {
      ++iAsked;
      return mounted;
    });
  }
  int iAsked = 0;
};

TEST_F(OldLogs, AreRemovedAfterTwoWeeksAndNothingElse) {
  ageAll(kSecondsKept + 1);
  EXPECT_EQ(clear(), 5);
  EXPECT_THAT(names(), ElementsAre("notes.txt"));
}

TEST_F(OldLogs, StayForTwoWeeks) {
  ageAll(kSecondsKept);
  age("nas_2024-05-30-120000_Console.log", kSecondsKept + 1);
  EXPECT_EQ(clear(), 1);
  EXPECT_EQ(names().size(), 5u);
  EXPECT_THAT(names(), testing::Not(testing::Contains("nas_2024-05-30-120000_Console.log")));
}

TEST_F(OldLogs, StayWhenTheyAreFromTheFuture) {
  ageAll(-3600);
  EXPECT_EQ(clear(), 0);
  EXPECT_EQ(iAsked, 0) << "nobody need be asked what is mounted";
}

TEST_F(OldLogs, ThatAHelperMayStillWriteToStay) {
  ageAll(kSecondsKept + 1);
  EXPECT_EQ(clear({"nas", "a:b"}), 2);
  EXPECT_EQ(iAsked, 1);
  EXPECT_THAT(names(), ElementsAre("a-b_2024-05-14-093000_Console.log", "nas_2024-06-01-120000_Console.log",
                                   "nas_2024-07-01-120000_Transcript.log", "notes.txt"));
}

TEST_F(OldLogs, LinksAndFoldersOfSuchNamesStay) {
  ageAll(0);
  std::filesystem::create_directory(iFolder / "x_2024-05-14-093000_Console.log");
  std::filesystem::create_symlink(iFolder / "notes.txt", iFolder / "y_2024-05-14-093000_Console.log");
  age("x_2024-05-14-093000_Console.log", kSecondsKept + 1);
  age("y_2024-05-14-093000_Console.log", kSecondsKept + 1);
  EXPECT_EQ(clear(), 0);
  EXPECT_EQ(names().size(), 8u);
}

TEST_F(OldLogs, AFolderThatIsMissingHasNone) {
  EXPECT_EQ(clearOldLogs(iFolder / "missing", NSDate::date(), {}), 0);
}

TEST_F(Logs, AreReadWhole) {
  std::string content(200000, 'x');
  content.back() = '!';
  writeFile(iFolder / "log", content);
  const Interruption interruption;
  std::string read;
  Failure failure;
  EXPECT_TRUE(readLog(
      iFolder / "log", false, interruption,
      [&read](std::string_view text) { return !read.append(text).empty(); }, &failure));
  EXPECT_EQ(read, content);
}

TEST_F(Logs, AreFollowedAsTheyGrowAndWhenTheyAreCut) {
  writeFile(iFolder / "log", "first\n");
  const Interruption interruption;
  std::string read;
  Failure failure;
  // Each piece leads to the next step, so that nothing depends on time.
  const auto sink = [this, &read](std::string_view text) {
    read += text;
    if (read == "first\n") {
      FILE* log = fopen((iFolder / "log").c_str(), "a");
      fputs("second\n", log);
      fclose(log);
    } else if (read == "first\nsecond\n") {
      writeFile(iFolder / "log", "new\n");
    }
    return read != "first\nsecond\nnew\n";
  };
  EXPECT_TRUE(readLog(iFolder / "log", true, interruption, sink, &failure));
  EXPECT_EQ(read, "first\nsecond\nnew\n");
}

TEST_F(Logs, ThatAreMissingOrLinksAreRefused) {
  const Interruption interruption;
  Failure failure;
  EXPECT_FALSE(readLog(
      iFolder / "none", false, interruption, [](std::string_view) { return true; }, &failure));
  EXPECT_EQ(failure.code, kExitFailure);
  ASSERT_EQ(symlink("/etc/passwd", (iFolder / "link").c_str()), 0);
  EXPECT_FALSE(readLog(
      iFolder / "link", false, interruption, [](std::string_view) { return true; }, &failure));
}

TEST(Sample, IsWrittenWithTextsFoldersAndALink) {
  const TemporaryFolder parent;
  Failure failure;
  ASSERT_TRUE(writeSampleFolder(parent / "sample", &failure)) << failure.text();
  struct stat status {};
  ASSERT_EQ(stat((parent / "sample").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700U);
  EXPECT_THAT(readFile(parent / "sample/Welcome.txt"), HasSubstr("Welcome!"));
  EXPECT_FALSE(readFile(parent / "sample/Garden/Beds/Plan.csv").empty());
  EXPECT_EQ(readFile(parent / "sample/Kitchen/Start here"), readFile(parent / "sample/Welcome.txt"));
}

TEST(Sample, KeepsWhatTheUserHasChanged) {
  const TemporaryFolder parent;
  Failure failure;
  ASSERT_TRUE(writeSampleFolder(parent / "sample", &failure));
  writeFile(parent / "sample/Welcome.txt", "mine");
  unlink((parent / "sample/Kitchen/Soup.txt").c_str());
  ASSERT_TRUE(writeSampleFolder(parent / "sample", &failure));
  EXPECT_EQ(readFile(parent / "sample/Welcome.txt"), "mine");
  EXPECT_THAT(readFile(parent / "sample/Kitchen/Soup.txt"), HasSubstr("onions"));
}

TEST(Sample, ThatCannotBeWrittenSaysWhere) {
  const TemporaryFolder parent;
  writeFile(parent / "file", "");
  Failure failure;
  EXPECT_FALSE(writeSampleFolder(parent / "file/sample", &failure));
  EXPECT_THAT(failure.text(), HasSubstr(parent / "file/sample"));
}

TEST(VolumesFolder, IsMadeForEverybodyWhenMissing) {
  const TemporaryFolder parent;
  Failure failure;
  const mode_t before = umask(077);
  EXPECT_TRUE(ensureVolumesFolder(parent / "Volumes", &failure)) << failure.text();
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat((parent / "Volumes").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 01777U);
  EXPECT_TRUE(ensureVolumesFolder(parent / "Volumes", &failure));
}

TEST(VolumesFolder, ThatCannotBeMadeIsAnsweredWithTheCommand) {
  Failure failure;
  EXPECT_FALSE(ensureVolumesFolder("/proc/Volumes", &failure));
  EXPECT_EQ(failure.code, kExitCannotMount);
  EXPECT_THAT(failure.text(), HasSubstr("sudo install -d -m 1777 /proc/Volumes"));
}

TEST(VolumesFolder, ThatIsAFileIsRefused) {
  const TemporaryFolder parent;
  writeFile(parent / "Volumes", "");
  Failure failure;
  EXPECT_FALSE(ensureVolumesFolder(parent / "Volumes", &failure));
  EXPECT_THAT(failure.text(), HasSubstr("not a folder"));
}

TEST(HelperPath, IsBesideTheCommand) {
  EXPECT_EQ(helperPathForCommand("/usr/bin/ombra"), "/usr/libexec/ombrafs/ombrafs-helper");
  EXPECT_EQ(helperPathForCommand("/src/build/release/bin/ombra"),
            "/src/build/release/libexec/ombrafs/ombrafs-helper");
}

TEST(HelperArguments, NameWhatIsPresent) {
  EXPECT_THAT((HelperArguments{"/run/s", "ID", std::nullopt, std::nullopt, std::nullopt}.list()),
              ElementsAre("--sock=/run/s", "--uuid=ID"));
  EXPECT_THAT(
      (HelperArguments{"/run/s", "ID", "My Disk", "/i.png", "team"}.list()),
      ElementsAre("--sock=/run/s", "--uuid=ID", "--name=My Disk", "--icon=/i.png", "--passthrough=team"));
  EXPECT_THAT((HelperArguments{"/run/s", "ID", std::nullopt, std::nullopt, ""}.list()),
              ElementsAre("--sock=/run/s", "--uuid=ID", "--passthrough="));
}

struct PathCase {
  const char* path;
  const char* folder;
  const char* result;
};

class AbsolutePaths : public testing::TestWithParam<PathCase> {};
TEST_P(AbsolutePaths, AreMadeByTextAlone) {
  EXPECT_EQ(absolutePath(GetParam().path, GetParam().folder), GetParam().result);
}
INSTANTIATE_TEST_SUITE_P(Table, AbsolutePaths,
                         testing::Values(PathCase{"/a/b", "/x", "/a/b"}, PathCase{"a", "/x", "/x/a"},
                                         PathCase{".", "/x", "/x"}, PathCase{"..", "/x", "/"},
                                         PathCase{"../../..", "/x", "/"},
                                         PathCase{"/a//b/./c/../d/", "/", "/a/b/d"},
                                         PathCase{"a", "/", "/a"}));

TEST(BusAddress, EscapesWhatAddressesReserve) {
  EXPECT_EQ(SessionBus::addressForPath("/run/user/0/bus"), "unix:path=/run/user/0/bus");
  EXPECT_EQ(SessionBus::addressForPath("/a b,c;d=e%"), "unix:path=/a%20b%2cc%3bd%3de%25");
}

}  // namespace
}  // namespace ombra
