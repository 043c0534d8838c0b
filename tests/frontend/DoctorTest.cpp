// The look at this machine, with machines of the tests' own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "frontend/Checkup.h"
#include "frontend/SessionBus.h"
#include "tests/frontend/CommandRunner.h"
#include "tests/frontend/FakeKeyring.h"
#include "tests/frontend/PlainServer.h"
#include "tests/frontend/Surroundings.h"

namespace ombra {
namespace {

using testing::AllOf;
using testing::Field;
using testing::HasSubstr;
using State = Finding::State;

// What was found, and what it says is to be done.
auto isFound(State state, const std::string& todo) {
  return AllOf(Field(&Finding::state, state), Field(&Finding::todo, HasSubstr(todo)));
}
auto isGood() { return AllOf(Field(&Finding::state, State::kGood), Field(&Finding::todo, "")); }

class DoctorTest : public testing::Test {
 protected:
  DoctorTest() {
    iPlaces.fuseDevice = iFolder / "fuse";
    iPlaces.searchPath = "/no/such/folder:" + (iFolder / "programs");
    iPlaces.volumes = iFolder / "volumes";
    iPlaces.helper = iFolder / "libexec/ombrafs-helper";
    iPlaces.keyring = iFolder / "libexec/ombrafs-keyring";
    iPlaces.homeFolder = iFolder / "home";
    iPlaces.cacheFolder = iFolder.path();
    iPlaces.authorityFile = iFolder / "authorities.pem";
    iPlaces.authorityFolder = iFolder / "authorities";
  }
  void makeFolder(const std::string& path, unsigned mode = 0700) const {
    std::filesystem::create_directories(path);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
  }
  std::string loader() const {
    const std::string folder =
        iFolder / "libexec/ombradiskfs.fs/Contents/Resources/org.ombrafs.filesystems.ombradiskfs.components";
    makeFolder(folder);
    return folder + "/load_drelfs";
  }

  TemporaryFolder iFolder;
  CheckupPlaces iPlaces;
};

TEST_F(DoctorTest, TheFuseDeviceMustBeThereToBeOpened) {
  EXPECT_THAT(checkFuseDevice(iPlaces), isFound(State::kWrong, "modprobe fuse"));
  writeFile(iPlaces.fuseDevice, "");
  EXPECT_THAT(checkFuseDevice(iPlaces), isGood());
}

TEST_F(DoctorTest, TheMountingProgramMustHaveItsRights) {
  EXPECT_THAT(checkUnmounter(iPlaces), isFound(State::kWrong, "apt install fuse3"));
  makeFolder(iFolder / "programs");
  const std::string program = iFolder / "programs/fusermount3";
  writeFile(program, "", 0755);
  EXPECT_THAT(checkUnmounter(iPlaces), isFound(State::kWrong, "chmod u+s " + program));
  iPlaces.isRoot = true;
  EXPECT_THAT(checkUnmounter(iPlaces), isGood()) << "root needs no such right";
}

TEST_F(DoctorTest, TheFolderOfMountPointsMustBeOne) {
  EXPECT_THAT(checkVolumesFolder(iPlaces), isFound(State::kWrong, "install -d -m 1777 " + iPlaces.volumes));
  iPlaces.isRoot = true;
  EXPECT_THAT(checkVolumesFolder(iPlaces), isFound(State::kNote, "")) << "root's first mount makes it";
  writeFile(iPlaces.volumes, "");
  EXPECT_THAT(checkVolumesFolder(iPlaces), isFound(State::kWrong, "Move it away"));
  std::filesystem::remove(iPlaces.volumes);
  makeFolder(iPlaces.volumes);
  EXPECT_THAT(checkVolumesFolder(iPlaces), isGood());
}

TEST_F(DoctorTest, EachProgramMustBeThere) {
  makeFolder(iFolder / "libexec");
  EXPECT_THAT(checkHelper(iPlaces).text, HasSubstr("ombrafs-helper"));
  writeFile(iPlaces.helper, "", 0755);
  EXPECT_THAT(checkHelper(iPlaces).text, HasSubstr("ombrafs-keyring"));
  writeFile(iPlaces.keyring, "", 0755);
  EXPECT_THAT(checkHelper(iPlaces), isGood());
}

TEST_F(DoctorTest, TheLoaderNeedsItsRightsWhereTheModuleIsNotLoaded) {
  EXPECT_THAT(checkLoader(iPlaces), isFound(State::kWrong, "Install ombra again"));
  const std::string program = loader();
  writeFile(program, "", 0755);
  EXPECT_THAT(checkLoader(iPlaces), isFound(State::kWrong, "chmod u+s " + program));
  writeFile(iPlaces.fuseDevice, "");
  EXPECT_THAT(checkLoader(iPlaces), isFound(State::kNote, "chmod u+s"));
  chmod(program.c_str(), 0777);
  EXPECT_THAT(checkLoader(iPlaces), isFound(State::kWrong, "chmod go-w"));
}

TEST_F(DoctorTest, EmptyFoldersOfFormerVolumesAreTold) {
  makeFolder(iPlaces.volumes + "/Full");
  writeFile(iPlaces.volumes + "/Full/file", "");
  EXPECT_THAT(checkLeftovers(iPlaces), isGood());
  makeFolder(iPlaces.volumes + "/My Disk");
  EXPECT_THAT(checkLeftovers(iPlaces), isFound(State::kNote, "rmdir '" + iPlaces.volumes + "/My Disk'"));
}

TEST_F(DoctorTest, TheFolderOfTheCacheMustBeUsable) {
  EXPECT_THAT(checkCacheFolder(iPlaces).text, HasSubstr("B left"));
  iPlaces.cacheFolder = "";
  EXPECT_THAT(checkCacheFolder(iPlaces), isFound(State::kWrong, "OMBRAFS_TMPDIR"));
}

TEST_F(DoctorTest, ABusIsThereOrCanBeStarted) {
  const ScopedEnvironment temporary("OMBRAFS_TMPDIR", iFolder.path().c_str());
  const ScopedEnvironment nowhere("DBUS_SESSION_BUS_ADDRESS", nullptr);
  EXPECT_THAT(checkBus(iPlaces), isFound(State::kWrong, "apt install dbus-daemon"));
  makeFolder(iFolder / "programs");
  writeFile(iFolder / "programs/dbus-daemon", "", 0755);
  EXPECT_THAT(checkBus(iPlaces), isGood());
}

TEST_F(DoctorTest, TheKeyringIsLookedAt) {
  const DesktopBus bus;
  const ScopedEnvironment variable("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str());
  const Interruption interruption;
  const Output output;
  const Keyring keyring(Installation::shared().keyring(), interruption, output);
  EXPECT_THAT(checkKeyring(keyring), isFound(State::kNote, "gnome-keyring"));
  {
    const FakeKeyring fake(bus);
    EXPECT_THAT(checkKeyring(keyring), isGood());
  }
  const FakeKeyring fake(bus, {.locked = true, .refuses = true});
  EXPECT_THAT(checkKeyring(keyring), isFound(State::kNote, "")) << "nobody is asked to unlock it";
}

TEST_F(DoctorTest, AnAgentThatIsGoneIsTold) {
  EXPECT_THAT(checkAgent(iPlaces), isGood());
  iPlaces.agentSocket = iFolder / "agent";
  EXPECT_THAT(checkAgent(iPlaces), isFound(State::kNote, "ssh-agent"));
}

TEST_F(DoctorTest, KnownHostsAreLookedAt) {
  EXPECT_THAT(checkKnownHosts(iPlaces), isGood());
  makeFolder(iPlaces.homeFolder + "/.ssh");
  writeFile(iPlaces.homeFolder + "/.ssh/known_hosts", "nas.test ssh-ed25519 AAAA\n");
  EXPECT_THAT(checkKnownHosts(iPlaces), isGood());
}

TEST_F(DoctorTest, AuthoritiesAreAFileOrAFolderOfThem) {
  EXPECT_THAT(checkAuthorities(iPlaces), isFound(State::kWrong, "ca-certificates"));
  makeFolder(iPlaces.authorityFolder);
  writeFile(iPlaces.authorityFile, "");
  EXPECT_THAT(checkAuthorities(iPlaces), isFound(State::kWrong, "ca-certificates")) << "both are empty";
  writeFile(iPlaces.authorityFile, "-----BEGIN");
  EXPECT_THAT(checkAuthorities(iPlaces), isGood());
}

TEST(DoctorClock, ReadsTheDateOfAnAnswer) {
  EXPECT_EQ(dateInHTTPHead("HTTP/1.1 403 No\r\nX-Date: a\r\ndate:  Sun, 09 Sep 2001 01:46:40 GMT\r\n\r\n"),
            1'000'000'000);
  for (const char* head : {"", "HTTP/1.1 200 OK\r\n\r\n", "HTTP/1.1 200 OK\r\nDate: soon\r\n\r\n",
                           "HTTP/1.1 200 OK\r\nDate:", "Date: Sun, 09 Sep 2001 01:46:40 GMT"})
    EXPECT_EQ(dateInHTTPHead(head), std::nullopt) << head;
}

// Answers each question with this clock.
std::string answerWithDate(int64_t date) {
  const time_t seconds = date;
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[64];
  strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts);
  return std::string("HTTP/1.1 403 Forbidden\r\nDate: ") + text + "\r\nContent-Length: 0\r\n\r\n";
}

Finding clockAgainst(int64_t offset) {
  const PlainServer server([offset](int socket) {
    readLineOf(socket);
    sayTo(socket, answerWithDate(time(nullptr) + offset));
  });
  return checkClock("http://127.0.0.1:" + std::to_string(server.port()));
}

TEST(DoctorClock, IsComparedWithAServers) {
  EXPECT_THAT(clockAgainst(0), isGood());
  EXPECT_THAT(clockAgainst(120), isFound(State::kNote, "set-ntp"));
  EXPECT_THAT(clockAgainst(-3600), isFound(State::kWrong, "set-ntp"));
}

TEST(DoctorClock, AServerThatDoesNotAnswerIsTold) {
  const PlainServer server([](int) {});
  EXPECT_THAT(checkClock("http://127.0.0.1:" + std::to_string(server.port())),
              isFound(State::kWrong, "Check the endpoint"));
  EXPECT_THAT(checkClock("https://127.0.0.1:" + std::to_string(server.port())),
              isFound(State::kWrong, "Check the endpoint"));
  EXPECT_THAT(checkClock("sftp://127.0.0.1"), isFound(State::kWrong, "https://"));
}

TEST(Doctor, TellsALineForEachAndEndsWithOneWhenSomethingIsWrong) {
  const auto good = runCommand({"doctor", "--json"}, {"SSL_CERT_FILE=/dev/null"});
  const auto object = nlohmann::json::parse(good.out);
  EXPECT_EQ(object["findings"].size(), 13U);
  EXPECT_EQ(object["good"], good.exitCode == 0);
  const auto wrong = runCommand({"doctor", "--endpoint", "sftp://x"});
  EXPECT_EQ(wrong.exitCode, 1);
  EXPECT_THAT(wrong.out, HasSubstr("WRONG  clock"));
}

}  // namespace
}  // namespace ombra
