// `ombra status`, and what unmount tells, with a helper that mounts nothing.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "frontend/LiveLines.h"
#include "frontend/LostFiles.h"
#include "frontend/SessionBus.h"
#include "frontend/UniqueFd.h"
#include "tests/frontend/CommandRunner.h"
#include "tests/frontend/Surroundings.h"

namespace ombra {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

// A volume whose helper tells what the test wrote.
class StatusCommand : public testing::Test {
 protected:
  void TearDown() override {
    for (const std::string& address : SessionBus::answeringAddresses()) endHelpersOn(address);
  }
  std::vector<std::string> environment(const std::string& behaviour = "mount") const {
    return {"FAKE_HELPER=" + behaviour, "FAKE_HELPER_FOLDER=" + iFolder.path()};
  }
  CommandResult run(const std::vector<std::string>& arguments) const {
    return runCommand(arguments, environment());
  }
  void mountDisk(const std::string& name = "Disk", const std::string& behaviour = "mount") {
    const auto result =
        runCommand({"mount", "file://" + iFolder.path(), "--name", name}, environment(behaviour));
    ASSERT_EQ(result.exitCode, 0) << result.err;
  }
  // Replaced at once: the helper may read it at any time.
  void tell(uint64_t done) {
    const json status = {{"transfers",
                          {{{"path", "/out.bin"},
                            {"direction", "upload"},
                            {"done", done},
                            {"size", 100},
                            {"rate", 1},
                            {"secondsLeft", 5}}}},
                         {"transferCount", 1},
                         {"bytesSent", done},
                         {"cache", {{"used", 1}, {"budget", 2}}},
                         {"lastError", nullptr}};
    writeFile(iFolder / "status.new", status.dump());
    std::filesystem::rename(iFolder / "status.new", iFolder / "status.json");
  }
  TemporaryFolder iFolder;
};

TEST_F(StatusCommand, ShowsWhatIsBeingTransferred) {
  tell(25);
  mountDisk();
  const auto result = run({"status"});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(result.out,
            "Disk: sending /out.bin: 25 %, 25 bytes of 100 bytes, 1 byte/s, 0:05 left\n"
            "Disk: cache 1 byte of 2 bytes\n");
}

TEST_F(StatusCommand, OfOneVolumeLeavesTheOthersOut) {
  mountDisk("One");
  mountDisk("Two");
  tell(25);
  EXPECT_THAT(run({"status", "Two"}).out, HasSubstr("Two: sending"));
  EXPECT_THAT(run({"status", "Two"}).out, Not(HasSubstr("One")));
  EXPECT_THAT(run({"status"}).out, HasSubstr("One: sending"));
}

TEST_F(StatusCommand, OfAVolumeThatIsNotThereFails) {
  const auto result = run({"status", "nothing-of-that-name"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_THAT(result.err, HasSubstr("There is no volume"));
}

TEST_F(StatusCommand, OfNothingIsEmpty) {
  EXPECT_EQ(run({"status"}).out, "");
  EXPECT_EQ(json::parse(run({"status", "--json"}).out), (json{{"volumes", json::array()}}));
}

TEST_F(StatusCommand, AsJSONIsTheHelpersOwnWords) {
  tell(25);
  mountDisk();
  const json volumes = json::parse(run({"status", "Disk", "--json"}).out)["volumes"];
  ASSERT_EQ(volumes.size(), 1U);
  EXPECT_EQ(volumes[0]["volumeName"], "Disk");
  EXPECT_EQ(volumes[0]["transfers"][0]["done"], 25);
  EXPECT_EQ(volumes[0]["lastError"], nullptr);
}

TEST_F(StatusCommand, WatchedTellsWhatChangesUntilCtrlC) {
  tell(25);
  mountDisk();
  RunningCommand command({"status", "--watch"}, RunningCommand::Input::kNone, environment());
  ASSERT_TRUE(command.waitForOutput("25 %"));
  tell(50);
  ASSERT_TRUE(command.waitForOutput("50 %"));
  kill(command.pid(), SIGINT);
  EXPECT_EQ(command.finish().exitCode, 0);
}

TEST_F(StatusCommand, WatchedAsJSONIsAnObjectOnEachLine) {
  tell(25);
  mountDisk();
  RunningCommand command({"status", "--watch", "--json"}, RunningCommand::Input::kNone, environment());
  ASSERT_TRUE(command.waitForOutput("\n"));
  tell(50);
  ASSERT_TRUE(command.waitForOutput("\"done\":50"));
  kill(command.pid(), SIGINT);
  const auto result = command.finish();
  EXPECT_EQ(json::parse(result.out.substr(0, result.out.find('\n')))["volumes"][0]["transfers"][0]["done"],
            25);
}

TEST_F(StatusCommand, WatchedIsTheNamedVolumeToItsEnd) {
  tell(25);
  mountDisk();
  RunningCommand command({"status", "Disk", "--watch"}, RunningCommand::Input::kNone, environment());
  ASSERT_TRUE(command.waitForOutput("25 %"));
  ASSERT_EQ(run({"unmount", "Disk"}).exitCode, 0);
  EXPECT_EQ(command.finish().exitCode, 0);
}

TEST_F(StatusCommand, UnmountAsJSONNamesWhatCouldNotBeStored) {
  mountDisk("Disk", "loses");
  const auto result = run({"unmount", "Disk", "--json"});
  EXPECT_EQ(result.exitCode, 1);
  const json object = json::parse(result.out);
  EXPECT_EQ(object["unmounted"].size(), 1U);
  EXPECT_EQ(object["notStored"], json::array({{{"volumeName", "Disk"},
                                               {"path", "/a b.txt"},
                                               {"copy", "/home/kept/a b.txt"},
                                               {"reason", "the disk is full"}}}));
}

// What tellLost says, read back.
class LostFiles : public testing::Test {
 protected:
  std::string told(const TransferStatus& last, time_t start, bool* any) const {
    FILE* file = tmpfile();
    Volume volume;
    volume.name = "Disk";
    volume.mountPath = "/Volumes/Disk 2";
    *any = tellLost(volume, last, start, Output{file, file, false});
    rewind(file);
    std::string text(10000, '\0');
    text.resize(fread(text.data(), 1, text.size(), file));
    fclose(file);
    return text;
  }
  TemporaryFolder iFolder;
  const ScopedEnvironment iState{"XDG_STATE_HOME", iFolder.path().c_str()};
};

TEST_F(LostFiles, OfAHelperThatHadSentAllAreNone) {
  bool any = true;
  EXPECT_EQ(told({}, 0, &any), "");
  EXPECT_FALSE(any);
}

TEST_F(LostFiles, AreNamedAndCounted) {
  TransferStatus last;
  last.transfers = {{"/up", true, 1, 2, {}, {}}, {"/down", false, 1, 2, {}, {}}};
  last.waiting = {{"/late", 3, ""}};
  last.waitingCount = 9;
  bool any = false;
  const std::string text = told(last, 0, &any);
  EXPECT_TRUE(any);
  EXPECT_THAT(text, HasSubstr("“/up” of “Disk” was not on the server"));
  EXPECT_THAT(text, HasSubstr("“/late” of “Disk” was not on the server"));
  EXPECT_THAT(text, Not(HasSubstr("/down")));
  EXPECT_THAT(text, HasSubstr("And 8 files more."));
  EXPECT_THAT(text, HasSubstr("is lost"));
}

TEST_F(LostFiles, AreToldWithTheCopiesThatTheHelperHasKept) {
  TransferStatus last;
  last.waiting = {{"/late", 3, ""}};
  const std::string folder = recoveredFolder("/Volumes/Disk 2");
  EXPECT_THAT(folder, testing::EndsWith("/recovered/Disk 2"));
  std::filesystem::create_directories(folder + "/docs");
  writeFile(folder + "/docs/late", "abc");
  struct stat status {};
  ASSERT_EQ(stat((folder + "/docs/late").c_str(), &status), 0);
  bool any = false;
  EXPECT_THAT(told(last, status.st_mtime, &any), HasSubstr(folder));
  EXPECT_THAT(told(last, status.st_mtime + 1, &any), HasSubstr("is lost")) << "that copy is an older one";
}

TEST_F(LostFiles, TheCopiesAreMeasuredByWhatTheyTakeOnTheDisk) {
  const std::string folder = recoveredFolder("/Volumes/Disk");
  EXPECT_EQ(bytesRecoveredSince(folder, 0), std::nullopt);
  std::filesystem::create_directories(folder + "/docs");
  EXPECT_EQ(bytesRecoveredSince(folder, 0), std::nullopt) << "a folder is no copy";
  writeFile(folder + "/docs/a", std::string(100000, 'x'));
  writeFile(folder + "/b", std::string(100000, 'x'));
  std::filesystem::create_symlink("/etc/passwd", folder + "/c");
  struct stat status {};
  ASSERT_EQ(stat((folder + "/b").c_str(), &status), 0);
  EXPECT_EQ(bytesRecoveredSince(folder, 0), static_cast<uint64_t>(status.st_blocks) * 512 * 2);
}

// A terminal of so many columns and rows that a test reads.
class Terminal : public testing::Test {
 protected:
  Terminal() {
    iMaster.reset(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_TRUE(grantpt(iMaster.get()) == 0 && unlockpt(iMaster.get()) == 0);
    iFile = fopen(ptsname(iMaster.get()), "we");
    const winsize size{4, 40, 0, 0};
    ioctl(iMaster.get(), TIOCSWINSZ, &size);
  }
  ~Terminal() override { fclose(iFile); }
  // All that was drawn since the last call: up to a mark that is written behind it, since a terminal hands
  // on what it gets in its own time.
  std::string shown() const {
    constexpr const char* kMark = "<mark>";
    fputs(kMark, iFile);
    fflush(iFile);
    std::string text;
    pollfd waiting{iMaster.get(), POLLIN, 0};
    while (!text.ends_with(kMark) && poll(&waiting, 1, 20000) > 0) {
      char byte = 0;
      if (read(iMaster.get(), &byte, 1) != 1) break;
      text += byte;
    }
    return text.substr(0, text.find(kMark));
  }
  UniqueFd iMaster;
  FILE* iFile = nullptr;
};

TEST_F(Terminal, ShowsABlockInPlaceOfTheOneBefore) {
  LiveLines lines(iFile, true);
  ASSERT_TRUE(lines.enabled());
  lines.show({"one", "two"});
  EXPECT_EQ(shown(), "\033[?7lone\033[K\r\ntwo\033[K\r\n\033[?7h\033[J");
  lines.show({"three"});
  EXPECT_EQ(shown(), "\033[2A\r\033[?7lthree\033[K\r\n\033[?7h\033[J");
  lines.clear();
  EXPECT_EQ(shown(), "\033[1A\r\033[J");
  lines.clear();
  EXPECT_EQ(shown(), "") << "once is enough";
}

TEST_F(Terminal, ABlockThatIsTooHighIsCut) {
  EXPECT_EQ(terminalSize(iFile).columns, 40U);
  LiveLines lines(iFile, true);
  lines.show({"1", "2", "3", "4", "5"});
  EXPECT_THAT(shown(), Not(HasSubstr("4")));
}

TEST_F(Terminal, NothingIsDrawnWhereThereIsNone) {
  FILE* file = tmpfile();
  LiveLines lines(file, true);
  EXPECT_FALSE(lines.enabled());
  lines.show({"one"});
  EXPECT_EQ(ftell(file), 0);
  EXPECT_EQ(terminalSize(file).columns, 80U);
  fclose(file);
}

}  // namespace
}  // namespace ombra
