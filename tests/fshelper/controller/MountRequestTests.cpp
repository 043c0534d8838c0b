// Logs, mount point, pass-through lock and options: what is handed to the framework.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <thread>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSLog.h"
#include "remote/KCUUID.h"
#include "tests/fshelper/controller/ControllerFixture.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

// --- logs

class Logs : public ControllerTest {
 protected:
  Logs() { ::tzset(); }
  ~Logs() override { ::tzset(); }
  const TestVariable iZone{"TZ", "UTC"};
  ManualClock clock;  // 2001-09-09 01:46:40
};

TEST_F(Logs, LieSideBySideUnderVolumeNameAndDate) {
  launch(arguments());
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(logFolder()))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  EXPECT_THAT(names,
              ElementsAre("Work_2001-09-09-014640_Console.log", "Work_2001-09-09-014640_Transcript.log"));
}

TEST_F(Logs, BearTheNameAsTheVolumeHasIt) {
  launch(arguments({"--name=a/b:c"}));
  EXPECT_TRUE(std::filesystem::exists(logFolder() + "/a-b-c_2001-09-09-014640_Console.log"));
  EXPECT_TRUE(std::filesystem::exists(logFolder() + "/a-b-c_2001-09-09-014640_Transcript.log"));
}

TEST_F(Logs, OfAVolumeWithoutANameBearTheServersAddress) {
  launch(arguments({}));
  EXPECT_TRUE(std::filesystem::exists(logFolder() + "/files.example.org_2001-09-09-014640_Console.log"));
}

TEST_F(Logs, BearTheDateOfTheMountNotOfTheirOpening) {
  const auto make = environment.makeConnectionPool;
  environment.makeConnectionPool = [this, make](std::shared_ptr<KCCredentials> credentials,
                                                NSErrorRef* error) {
    clock.advance(3600);
    return make(std::move(credentials), error);
  };
  launch(arguments());
  EXPECT_TRUE(std::filesystem::exists(logFolder() + "/Work_2001-09-09-014640_Console.log"));
  EXPECT_TRUE(std::filesystem::exists(logFolder() + "/Work_2001-09-09-014640_Transcript.log"));
}

TEST_F(Logs, TheTranscriptBeginsWithAByteOrderMark) {
  launch(arguments());
  EXPECT_THAT(readTestFile(logFolder() + "/Work_2001-09-09-014640_Transcript.log"),
              StartsWith("\xEF\xBB\xBF"));
}

TEST_F(Logs, StandardErrorGoesToTheConsoleLogFromThenOn) {
  launch(arguments());
  setLogSink(nullptr);
  NSLogMessage("a line of the mount");
  EXPECT_THAT(readTestFile(logFolder() + "/Work_2001-09-09-014640_Console.log"),
              EndsWith("] a line of the mount\n"));
}

TEST_F(Logs, AnExistingConsoleLogIsWrittenOverNotTruncated) {
  std::filesystem::create_directories(logFolder());
  const std::string path = logFolder() + "/Work_2001-09-09-014640_Console.log";
  writeTestFile(path, std::string(5000, 'x'));
  launch(arguments());
  ASSERT_EQ(::write(STDERR_FILENO, "abc", 3), 3);
  const std::string content = readTestFile(path);
  EXPECT_EQ(content.size(), 5000u);
  EXPECT_EQ(content.substr(0, 4), "abcx");
}

TEST_F(Logs, TheConsoleLogHasMode0644AndItsFolderIsPrivate) {
  const mode_t former = ::umask(0);
  launch(arguments());
  ::umask(former);
  struct stat status {};
  ::stat((logFolder() + "/Work_2001-09-09-014640_Console.log").c_str(), &status);
  EXPECT_EQ(status.st_mode & 07777, 0644u);
  ::stat(folder.path("state/ombrafs").c_str(), &status);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
}

TEST_F(Logs, AreOpenBeforeTheFileSystemIsMade) {
  bool opened = false;
  const auto make = environment.makeFileSystem;
  environment.makeFileSystem = [&](GMUserFileSystemDelegate* delegate, bool threadSafe) {
    opened = std::filesystem::exists(logFolder() + "/Work_2001-09-09-014640_Console.log");
    return make(delegate, threadSafe);
  };
  launch(arguments());
  EXPECT_TRUE(opened);
}

// Device and number of what standard error writes to.
std::pair<dev_t, ino_t> standardError() {
  struct stat status {};
  EXPECT_EQ(::fstat(STDERR_FILENO, &status), 0);
  return {status.st_dev, status.st_ino};
}

TEST_F(Logs, WithAFileInTheirFoldersPlaceTheMountGoesOnWithoutThem) {
  std::filesystem::create_directories(folder.path("state/ombrafs"));
  writeTestFile(logFolder(), "in the way");
  const auto before = standardError();
  EXPECT_EQ(launch(arguments()), std::nullopt);
  EXPECT_THAT(mount->iCalls, ElementsAre("mountAtPath YES YES"));
  EXPECT_EQ(standardError(), before);
  EXPECT_EQ(readTestFile(logFolder()), "in the way");
  EXPECT_THAT(center.posted(), IsEmpty());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Logs, WithoutAPlaceForTheirFolderTheMountGoesOnWithoutThem) {
  writeTestFile(folder.path("state"), "no folder");
  const auto before = standardError();
  EXPECT_EQ(launch(arguments()), std::nullopt);
  EXPECT_THAT(mount->iCalls, ElementsAre("mountAtPath YES YES"));
  EXPECT_EQ(standardError(), before);
  EXPECT_THAT(center.posted(), IsEmpty());
}

TEST_F(Logs, WithoutAConsoleFileStandardErrorStaysWhereItWas) {
  std::filesystem::create_directories(logFolder() + "/Work_2001-09-09-014640_Console.log");
  const auto before = standardError();
  EXPECT_EQ(launch(arguments()), std::nullopt);
  EXPECT_EQ(standardError(), before);
  EXPECT_THAT(readTestFile(logFolder() + "/Work_2001-09-09-014640_Transcript.log"),
              StartsWith("\xEF\xBB\xBF"));
  EXPECT_THAT(mount->iCalls, ElementsAre("mountAtPath YES YES"));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Logs, WithoutATranscriptTheConsoleFileIsStillOpened) {
  std::filesystem::create_directories(logFolder() + "/Work_2001-09-09-014640_Transcript.log");
  EXPECT_EQ(launch(arguments()), std::nullopt);
  struct stat status {};
  ASSERT_EQ(::stat((logFolder() + "/Work_2001-09-09-014640_Console.log").c_str(), &status), 0);
  EXPECT_EQ(standardError(), std::pair(status.st_dev, status.st_ino));
  EXPECT_THAT(mount->iCalls, ElementsAre("mountAtPath YES YES"));
}

// --- mount point

class MountPoint : public ControllerTest {};

TEST_F(MountPoint, IsTheVolumesNameBelowTheVolumesFolder) {
  launch(arguments());
  EXPECT_EQ(mount->iPath, volumes() + "/Work");
}

TEST_F(MountPoint, IsUniqueWhereTheNameIsTaken) {
  std::filesystem::create_directory(volumes() + "/Work");
  launch(arguments());
  EXPECT_NE(mount->iPath, volumes() + "/Work");
  EXPECT_THAT(mount->iPath, StartsWith(volumes() + "/Work"));
  EXPECT_EQ(controller->volumeName(), "Work");
}

TEST_F(MountPoint, IsInDecomposedForm) {
  launch(arguments({"--name=B\u00fcro"}));
  EXPECT_EQ(mount->iPath, volumes() + "/Bu\u0308ro");
  EXPECT_EQ(option("volname="), "B\u00fcro");
}

TEST_F(MountPoint, ANameThatIsTakenInTheOtherUnicodeFormIsTaken) {
  std::filesystem::create_directory(volumes() + "/Bu\u0308ro");
  launch(arguments({"--name=B\u00fcro"}));
  EXPECT_EQ(mount->iPath, volumes() + "/Bu\u0308ro 2");
}

TEST_F(MountPoint, AnUnreadableVolumesFolderCountsAsEmpty) {
  std::filesystem::remove_all(volumes());
  EXPECT_EQ(launch(arguments()), std::nullopt);
  EXPECT_EQ(mount->iPath, volumes() + "/Work");
}

class MountPointNames : public ControllerTest,
                        public ::testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(MountPointNames, NeverLeadElsewhere) {
  launch(arguments({std::string("--name=") + GetParam().first}));
  EXPECT_EQ(mount->iPath, volumes() + "/" + GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Odd, MountPointNames,
                         ::testing::Values(std::pair(".", "-"), std::pair("..", "--"),
                                           std::pair("", "OmbraFS"), std::pair("../etc", "..-etc"),
                                           std::pair("/", "-"), std::pair("a\nb\tc\x7f", "a-b-c-"),
                                           std::pair("...", "..."), std::pair("\x1b[2J", "-[2J")));

// --- pass-through lock

class Passthrough : public ControllerTest {
 protected:
  void lockAnswers(int result) {
    environment.lockFile = [this, result](const std::string& path) {
      lockPath = path;
      journal.emplace_back("lockFile");
      return result;
    };
  }
  std::string lockPath;
};

TEST_F(Passthrough, TheLockLiesInTheTemporaryFolderUnderTheIdentifier) {
  lockAnswers(1);
  EXPECT_EQ(launch(arguments({"--passthrough=id"})), std::nullopt);
  EXPECT_EQ(lockPath, folder.path("tmp/OmbraFS.id.pid"));
}

TEST_F(Passthrough, WithoutAnIdentifierNoLockIsTaken) {
  launch(arguments());
  EXPECT_THAT(journal, Not(Contains("lockFile")));
}

TEST_F(Passthrough, AnEmptyIdentifierTakesNoLock) {
  EXPECT_EQ(launch(arguments({"--passthrough="})), std::nullopt);
  EXPECT_THAT(journal, Not(Contains("lockFile")));
}

TEST_F(Passthrough, ALockErrorIsAnnouncedWithCode22) {
  lockAnswers(-1);
  EXPECT_EQ(launch(arguments({"--name=Work", "--passthrough=id"})), 0);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSMountFailed", "OFSDidUnmount"));
  EXPECT_THAT(keysOf(center.posted("OFSMountFailed")),
              ElementsAre("volumeName", "mountPath", "address", "passthrough", "errorData"));
  EXPECT_THAT(journal, Not(Contains("connect")));
}

TEST_F(Passthrough, ALockErrorIsOneOfTheLibrarysDomainWithoutUserInfo) {
  lockAnswers(-1);
  controller = std::make_unique<OFSController>(environment);
  controller->setPassthrough("id");
  OmbraFileSystem object;
  NSErrorRef error;
  EXPECT_FALSE(controller->obtainLockForPassthroughWithFileSystem(object, "/unused", &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "QuarnKitErrorDomain");
  EXPECT_EQ(error->code(), 22);
  EXPECT_TRUE(error->userInfo().empty());
  EXPECT_FALSE(controller->obtainLockForPassthroughWithFileSystem(object, "/unused", nullptr));
}

TEST_F(Passthrough, ALivingOwnerAndAReachableServerEndTheProcessAtOnce) {
  lockAnswers(0);
  EXPECT_EQ(launch(arguments({"--passthrough=id"})), 0);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSAlreadyMounted"));
  EXPECT_EQ(center.posted("OFSAlreadyMounted").object, kName);
  EXPECT_THAT(keysOf(center.posted("OFSAlreadyMounted")), ElementsAre("rootPath", "passthrough"));
  EXPECT_EQ(center.posted("OFSAlreadyMounted").userInfo->stringForKey("rootPath"), "/");
  EXPECT_THAT(mount->iCalls, IsEmpty());
  EXPECT_EQ(server.heldConnections(), 0u);
}

TEST_F(Passthrough, TheNewsOfTheOtherMountNamesItsStartFolderAndIdentifier) {
  lockAnswers(0);
  setDefault("MountAtRemoteRoot", true);
  server.addFolder("/home/anna");
  server.setLoginPath("/home/anna");
  EXPECT_EQ(launch(arguments({"--passthrough=id"})), 0);
  EXPECT_EQ(center.posted("OFSAlreadyMounted").userInfo,
            (NSDictionary{{"rootPath", "/home/anna"}, {"passthrough", "id"}}));
}

TEST_F(Passthrough, ALivingOwnerAndAnUnreachableServerAreAFailedMount) {
  lockAnswers(0);
  server.fail("connect", kAnyPath, QuarnKitError::errorWithCode(kQuarnKitCouldNotConnect));
  EXPECT_EQ(launch(arguments({"--passthrough=id"})), 0);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSMountFailed", "OFSDidUnmount"));
  EXPECT_THAT(keysOf(center.posted("OFSMountFailed")), Contains("errorData"));
}

TEST_F(Passthrough, WithALivingOwnerTheErrorIsThatOfTheLogin) {
  lockAnswers(0);
  server.fail("connect", kAnyPath, QuarnKitError::errorWithCode(kQuarnKitCouldNotConnect));
  controller = std::make_unique<OFSController>(environment);
  controller->setPassthrough("id");
  OmbraFileSystem object;
  object.setConnectionPool(server.pool());
  NSErrorRef error;
  EXPECT_FALSE(controller->obtainLockForPassthroughWithFileSystem(object, "/unused", &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitCouldNotConnect));
}

TEST_F(Passthrough, AnEndThatHasBegunIsNotFollowedByTheNewsOfTheOtherMount) {
  environment.lockFile = [this](const std::string&) {
    std::thread([this] { statusOf([this] { controller->requestUnmount(false); }); }).join();
    return 0;
  };
  EXPECT_EQ(launch(arguments({"--passthrough=id"})), std::nullopt);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSMountFailed", "OFSDidUnmount"));
  EXPECT_THAT(mount->iCalls, ElementsAre("unmount"));
}

TEST_F(Passthrough, TheNewsOfTheOtherMountIsNotFollowedByAnotherEnd) {
  lockAnswers(0);
  center.setObserver([this](const NSNotification&) {
    center.setObserver({});
    std::thread([this] { statusOf([this] { controller->requestUnmount(false); }); }).join();
  });
  EXPECT_EQ(launch(arguments({"--passthrough=id"})), 0);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSAlreadyMounted"));
  EXPECT_THAT(mount->iCalls, IsEmpty());
}

TEST_F(Passthrough, TracingTellsThePathAndTheFailure) {
  setDefault("TracingEnabled", true);
  lockAnswers(-1);
  launch(arguments({"--passthrough=id"}));
  EXPECT_THAT(log.lines(), Contains(EndsWith(": lockPath=" + folder.path("tmp/OmbraFS.id.pid"))));
  EXPECT_THAT(log.lines(), Contains(EndsWith(": could not obtain lock for id")));
}

TEST_F(Passthrough, TracingTellsThatALivingOwnerHasTheLock) {
  setDefault("TracingEnabled", true);
  lockAnswers(0);
  launch(arguments({"--passthrough=id"}));
  EXPECT_THAT(log.lines(), Contains(EndsWith(": could not obtain lock for id")));
}

TEST_F(Passthrough, TracingTellsOfNoFailureWhenTheLockIsTaken) {
  setDefault("TracingEnabled", true);
  lockAnswers(1);
  launch(arguments({"--passthrough=id"}));
  EXPECT_THAT(log.lines(), Contains(EndsWith(": lockPath=" + folder.path("tmp/OmbraFS.id.pid"))));
  EXPECT_THAT(log.lines(), Not(Contains(HasSubstr("could not obtain lock"))));
}

TEST_F(Passthrough, WithoutTracingTheLockIsNotSpokenOf) {
  lockAnswers(-1);
  launch(arguments({"--passthrough=id"}));
  EXPECT_THAT(log.lines(), Not(Contains(HasSubstr("lock for id"))));
  EXPECT_THAT(log.lines(), Not(Contains(HasSubstr("lockPath="))));
}

TEST_F(Passthrough, WithoutAFolderOfTheUsersOwnNoLockIsTaken) {
  writeTestFile(folder.path("tmp"), "no folder");
  lockAnswers(1);
  EXPECT_EQ(launch(arguments({"--passthrough=id"})), 0);
  EXPECT_EQ(lockPath, "");
}

// --- options

class Options : public ControllerTest {};

TEST_F(Options, OfAPlainMount) {
  server.credentials()->setProtocol(kProtocolFTP);
  launch(arguments());
  const std::string cache = option("redirect_folder=");
  EXPECT_THAT(mount->iOptions,
              ElementsAre("fsname=OmbraFS/ftp#anna@files.example.org", "volname=Work", "native_xattr",
                          "cloudfs", "native_xattr", "jail_symlinks", "netfs", "allow_root",
                          "modules=redirect", "redirect_sha1", "redirect_folder=" + cache));
  EXPECT_THAT(cache, StartsWith(cachesFolder() + "/"));
  EXPECT_TRUE(KCUUID::uuidWithString(lastPathComponent(cache)).has_value()) << cache;
  EXPECT_TRUE(std::filesystem::exists(cache + "/owner")) << "marked as this process's";
}

TEST_F(Options, OfAPassthroughMountWithIconAndDebugLogging) {
  setDefault("DebugLogging", true);
  launch(arguments({"--name=Work", "--icon=/i.icns", "--passthrough=id"}));
  EXPECT_THAT(
      mount->iOptions,
      ElementsAre("debug", "fsname=OmbraFS/sftp#id", "volname=Work", "native_xattr", "cloudfs",
                  "native_xattr", "jail_symlinks", "netfs", "allow_root", "modules=redirect", "redirect_sha1",
                  "redirect_folder=" + cachesFolder() + "/id", "redirect_volicon=/i.icns"));
}

TEST_F(Options, AnEmptyPassthroughStandsInPlaceOfUserAndAddress) {
  launch(arguments({"--passthrough="}));
  EXPECT_THAT(mount->iOptions,
              ElementsAre("fsname=OmbraFS/sftp#", "volname=files.example.org", "native_xattr", "cloudfs",
                          "native_xattr", "jail_symlinks", "netfs", "allow_root", "modules=redirect",
                          "redirect_sha1", "redirect_folder=" + cachesFolder()));
}

TEST_F(Options, WithoutCachesTheIconIsStillNamed) {
  writeTestFile(folder.path("data"), "no folder");
  launch(arguments({"--icon=/i.icns"}));
  EXPECT_THAT(mount->iOptions, Not(Contains("modules=redirect")));
  EXPECT_THAT(mount->iOptions, Not(Contains("redirect_sha1")));
  EXPECT_EQ(mount->iOptions.back(), "redirect_volicon=/i.icns");
}

TEST_F(Options, AnEmptyIconIsNamedToo) {
  launch(arguments({"--icon="}));
  EXPECT_EQ(mount->iOptions.back(), "redirect_volicon=");
}

TEST_F(Options, ACommaStaysInsideItsOption) {
  server.credentials()->setUsername("anna,allow_other");
  launch(arguments({"--icon=/i,suid"}));
  EXPECT_EQ(option("fsname="), "OmbraFS/sftp#anna,allow_other@files.example.org");
  EXPECT_EQ(option("redirect_volicon="), "/i,suid");
  EXPECT_THAT(mount->iOptions, Not(Contains("allow_other")));
}

TEST_F(Options, WithoutAUserNameTheAddressStandsAlone) {
  server.credentials()->setUsername(std::nullopt);
  launch(arguments());
  EXPECT_EQ(option("fsname="), "OmbraFS/sftp#@files.example.org");
}

TEST_F(Options, EachPlainMountHasACacheOfItsOwn) {
  launch(arguments());
  const std::string first = option("redirect_folder=");
  controller.reset();
  frontEnd.reset();
  ::unlink(folder.path("sock").c_str());
  launch(arguments());
  EXPECT_NE(option("redirect_folder="), first);
}

}  // namespace
}  // namespace ombra
