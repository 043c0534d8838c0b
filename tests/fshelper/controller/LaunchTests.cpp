// The start: its order, the settings and the command line, and each way in which it fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fshelper/OFSTracing.h"
#include "fshelper/SUUpdater.h"
#include "platform/foundation/NSKeyedArchiver.h"
#include "tests/fshelper/controller/ControllerFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

class Launch : public ControllerTest {
 protected:
  // The error that travelled in the announcement of a failed mount.
  NSErrorRef announcedError() {
    const NSNotification failed = center.posted("OFSMountFailed");
    const PropertyValue* value = failed.userInfo ? failed.userInfo->objectForKey("errorData") : nullptr;
    if (value == nullptr || value->asData() == nullptr) return nullptr;
    std::string reason;
    return NSKeyedUnarchiver::unarchivedError(*value->asData(), &reason);
  }
};

TEST_F(Launch, TakesItsStepsInOrder) {
  EXPECT_EQ(launch(arguments({"--name=Work", "--passthrough=id"})), std::nullopt);
  EXPECT_THAT(journal,
              ElementsAre("modifierFlags", "shouldFix", "makeConnectionPool", "setMaximumConnections 0",
                          "makeFileSystem", "lockFile", "connect", "willRequestMount"));
  EXPECT_THAT(mount->iCalls, ElementsAre("mountAtPath YES YES"));
}

TEST_F(Launch, TheFileSystemIsTheThreadSafeDelegateWithControllerAndPool) {
  launch(arguments());
  ASSERT_NE(fileSystem, nullptr);
  EXPECT_TRUE(isThreadSafe);
  EXPECT_EQ(fileSystem->controller(), controller.get());
  EXPECT_EQ(fileSystem->connectionPool(), server.pool());
  EXPECT_TRUE(fileSystem->isConnected());
}

TEST_F(Launch, ThePoolIsMadeOfWhatTheFrontEndAnswered) {
  launch(arguments());
  ASSERT_NE(fetched, nullptr);
  EXPECT_EQ(fetched->password(), "secret");
  EXPECT_EQ(frontEnd->receivedName(), kName);
  EXPECT_EQ(server.maximumConnections(), 0);
}

TEST_F(Launch, TheFileSystemCanMakeThePoolAgainOfTheSameCredentials) {
  launch(arguments());
  const auto first = std::exchange(fetched, nullptr);
  ASSERT_TRUE(fileSystem->poolMaker());
  EXPECT_EQ(fileSystem->poolMaker()(), server.pool());
  EXPECT_EQ(fetched, first);
}

TEST_F(Launch, TracingFollowsItsDefault) {
  setDefault("TracingEnabled", true);
  launch(arguments());
  EXPECT_TRUE(gTracingEnabled);
}

TEST_F(Launch, TracingIsOffWithoutADefault) {
  gTracingEnabled = true;
  launch(arguments());
  EXPECT_FALSE(gTracingEnabled);
}

TEST_F(Launch, ListensForCacheInvalidationAlone) {
  launch(arguments());
  EXPECT_EQ(center.observerCount(), 1u);
}

// --- software update

class LaunchKeys : public Launch, public ::testing::WithParamInterface<std::pair<uint32_t, bool>> {};

TEST_P(LaunchKeys, ChooseTheFeed) {
  environment.modifierFlags = [] { return GetParam().first; };
  launch(arguments());
  EXPECT_EQ(SUUpdater::sharedUpdater().feedURL(),
            GetParam().second ? environment.stagingUpdateFeed : environment.updateFeed);
}

INSTANTIATE_TEST_SUITE_P(Held, LaunchKeys,
                         ::testing::Values(std::pair(0U, false), std::pair(0x20000U, false),
                                           std::pair(0x20000U | 0x80000U, false),
                                           std::pair(0x20000U | 0x100000U, false),
                                           std::pair(0x80000U | 0x100000U, false), std::pair(0x1a0000U, true),
                                           std::pair(0xFFFFFFFFU, true)));

TEST_F(Launch, TheUpdaterChecksButNeverDownloads) {
  SUUpdater::sharedUpdater().setAutomaticallyDownloadsUpdates(true);
  launch(arguments());
  EXPECT_EQ(SUUpdater::sharedUpdater().delegate(), controller.get());
  EXPECT_FALSE(SUUpdater::sharedUpdater().automaticallyDownloadsUpdates());
  EXPECT_TRUE(SUUpdater::sharedUpdater().automaticallyChecksForUpdates());
}

TEST_F(Launch, WithoutFeedsNobodyAsksForKeys) {
  environment.updateFeed = environment.stagingUpdateFeed = "";
  launch(arguments());
  EXPECT_THAT(journal, Not(Contains("modifierFlags")));
}

TEST_P(LaunchKeys, ChooseBetweenTheUsersOwnFeedsToo) {
  setDefault("SUFeedURL", "https://updates.example.net/own.xml");
  setDefault("SUStagingFeedURL", "https://updates.example.net/next.xml");
  environment.modifierFlags = [] { return GetParam().first; };
  launch(arguments());
  EXPECT_EQ(SUUpdater::sharedUpdater().feedURL(), GetParam().second ? "https://updates.example.net/next.xml"
                                                                    : "https://updates.example.net/own.xml");
}

TEST_F(Launch, UpdatesAreLookedForWhenTheVolumeIsMounted) {
  launch(arguments());
  EXPECT_EQ(looksForUpdates, 0);
  postDidMount();
  EXPECT_EQ(looksForUpdates, 1);
}

TEST_F(Launch, OldLitterIsRemovedWhenTheVolumeIsMounted) {
  launch(arguments());
  EXPECT_EQ(removesAbandonedLitter, 0);
  postDidMount();
  EXPECT_EQ(removesAbandonedLitter, 1);
}

TEST_F(Launch, TheControllersEndIsThatOfTheUpdaterToo) {
  launch(arguments());
  controller.reset();
  EXPECT_EQ(SUUpdater::sharedUpdater().delegate(), nullptr);
}

// --- command line

TEST_F(Launch, EveryOptionIsRead) {
  launch(arguments({"--name=Work", "--icon=/i.icns", "--passthrough=id", "--other=x", "rest"}));
  EXPECT_EQ(controller->registeredName(), kName);
  EXPECT_EQ(controller->volumeName(), "Work");
  EXPECT_EQ(controller->passthrough(), "id");
  EXPECT_EQ(option("redirect_volicon="), "/i.icns");
}

TEST_F(Launch, ALaterOptionOverridesAnEarlierOne) {
  launch(arguments({"--name=First", "--name=Second"}));
  EXPECT_EQ(controller->volumeName(), "Second");
}

TEST_F(Launch, ALaterOneOfEveryOptionCounts) {
  std::vector<std::string> given{"--sock=" + folder.path("nobody"), "--uuid=other", "--icon=/first",
                                 "--passthrough=first"};
  for (const std::string& later : arguments({"--icon=/second", "--passthrough=second"}))
    given.push_back(later);
  EXPECT_EQ(launch(given), std::nullopt);
  EXPECT_EQ(controller->registeredName(), kName);
  EXPECT_EQ(controller->passthrough(), "second");
  EXPECT_EQ(option("redirect_volicon="), "/second");
}

TEST_F(Launch, WithoutOptionsNothingIsSet) {
  EXPECT_EQ(launch({}), 0);
  EXPECT_EQ(controller->registeredName(), std::nullopt);
  EXPECT_EQ(controller->passthrough(), std::nullopt);
  EXPECT_EQ(controller->volumeName(), std::nullopt);
}

TEST_F(Launch, TheProgramPathIsReadLikeAnyOtherArgument) {
  programPath = "--name=Zero";
  launch(arguments({}));
  EXPECT_EQ(controller->volumeName(), "Zero");
}

TEST_F(Launch, TheProgramPathIsTheFirstArgumentAndOverriddenByOthers) {
  programPath = "--name=Zero";
  launch(arguments({"--name=Later"}));
  EXPECT_EQ(controller->volumeName(), "Later");
}

TEST_F(Launch, OnlyTheFirstPrefixOfAnArgumentIsTaken) {
  launch(arguments({"--icon=--name=Other"}));
  EXPECT_EQ(option("redirect_volicon="), "--name=Other");
  EXPECT_EQ(controller->volumeName(), "files.example.org");
}

TEST_F(Launch, AnEmptyRegistrationNameIsANameAndIsAskedWith) {
  FrontEnd answering(folder.path("sock"), 0, {testCredentials()->archivedData()});
  answering.start();
  EXPECT_EQ(launch({"--sock=" + folder.path("sock"), "--uuid=", "--name=Work"}), std::nullopt);
  ASSERT_NE(fetched, nullptr) << "nobody has come, so nothing is waited for";
  EXPECT_EQ(answering.receivedName(), "");
  EXPECT_EQ(fetched->password(), "secret");
  postDidMount();
  EXPECT_EQ(center.posted("OFSDidMount").object, "");
}

TEST_F(Launch, AnEmptySocketPathHasNoFrontEnd) {
  EXPECT_EQ(launch({"--sock=", "--uuid=x"}), 0);
  EXPECT_TRUE(log.has("CONDITION FAILED: no connection pool"));
}

TEST_F(Launch, AnEmptyValueIsAValue) {
  launch(arguments({"--passthrough="}));
  EXPECT_EQ(controller->passthrough(), "");
}

TEST_F(Launch, APrefixInTheMiddleOfAnArgumentIsNone) {
  launch(arguments({"x--name=Other"}));
  EXPECT_EQ(controller->volumeName(), "files.example.org");
}

TEST_F(Launch, TheNameIsCleanedOfSlashesColonsAndCommas) {
  launch(arguments({"--name=a/b:c,d"}));
  EXPECT_EQ(controller->volumeName(), "a-b-c-d");
}

TEST_F(Launch, WithoutANameTheVolumeHasTheServersAddress) {
  server.credentials()->setAddress("fe80::1");
  launch(arguments({}));
  EXPECT_EQ(controller->volumeName(), "fe80--1");
}

// --- permissions of the components

TEST_F(Launch, ARepairThatSucceedsGoesOn) {
  environment.shouldFixDrelFSPermissions = [] { return true; };
  EXPECT_EQ(launch(arguments()), std::nullopt);
  EXPECT_THAT(journal, Contains("fix"));
  EXPECT_THAT(mount->iCalls, ElementsAre("mountAtPath YES YES"));
}

TEST_F(Launch, AFailedRepairIsAnnouncedAndEndsTheProcess) {
  environment.shouldFixDrelFSPermissions = [] { return true; };
  environment.fixDrelFSPermissions = [](NSErrorRef* error) {
    storeError(error, NSError::errorWithDomain(NSPOSIXErrorDomain, kEPERM));
    return false;
  };
  EXPECT_EQ(launch(arguments()), 0);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSMountFailed", "OFSDidUnmount"));
  EXPECT_EQ(center.posted("OFSMountFailed").object, kName);
  EXPECT_THAT(keysOf(center.posted("OFSMountFailed")), ElementsAre("volumeName", "errorData"));
  ASSERT_NE(announcedError(), nullptr);
  EXPECT_EQ(announcedError()->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(announcedError()->code(), kEPERM);
  EXPECT_EQ(fetched, nullptr);
}

TEST_F(Launch, TheErrorOfAFailedRepairTravelsWithAllThatItHolds) {
  environment.shouldFixDrelFSPermissions = [] { return true; };
  environment.fixDrelFSPermissions = [](NSErrorRef* error) {
    const NSErrorRef beneath = NSError::errorWithDomain(NSPOSIXErrorDomain, kEACCES);
    storeError(error, NSError::errorWithDomain("SomeDomain", 77,
                                               {{std::string(NSLocalizedDescriptionKey), "no rights"},
                                                {std::string(NSUnderlyingErrorKey), beneath}}));
    return false;
  };
  EXPECT_EQ(launch(arguments()), 0);
  const NSErrorRef error = announcedError();
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "SomeDomain");
  EXPECT_EQ(error->code(), 77);
  EXPECT_EQ(error->localizedDescription(), "no rights");
  const NSErrorRef beneath = error->underlyingError();
  ASSERT_NE(beneath, nullptr);
  EXPECT_EQ(beneath->code(), kEACCES);
}

TEST_F(Launch, AFailedRepairWithoutAnErrorIsAnnouncedAllTheSame) {
  environment.shouldFixDrelFSPermissions = [] { return true; };
  environment.fixDrelFSPermissions = [](NSErrorRef*) { return false; };
  EXPECT_EQ(launch(arguments()), 0);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSMountFailed", "OFSDidUnmount"));
  EXPECT_THAT(keysOf(center.posted("OFSMountFailed")), ElementsAre("volumeName"));
}

TEST_F(Launch, AFailedRepairWithAnEmptyNameIsAnnouncedUnderIt) {
  environment.shouldFixDrelFSPermissions = [] { return true; };
  environment.fixDrelFSPermissions = [](NSErrorRef*) { return false; };
  EXPECT_EQ(launch({"--uuid="}), 0);
  EXPECT_EQ(center.posted("OFSMountFailed").object, "");
  EXPECT_FALSE(log.has("CONDITION FAILED: no connection pool"));
}

TEST_F(Launch, AFailedRepairWithoutANameGoesOn) {
  environment.shouldFixDrelFSPermissions = [] { return true; };
  environment.fixDrelFSPermissions = [](NSErrorRef*) { return false; };
  EXPECT_EQ(launch({"--name=Work"}), 0);
  // It is the missing pool that ends the start.
  EXPECT_TRUE(log.has("CONDITION FAILED: no connection pool"));
}

// --- credentials and pool

TEST_F(Launch, WithoutASocketThereIsNoPool) {
  EXPECT_EQ(launch({"--uuid=" + std::string(kName), "--name=Work"}), 0);
  EXPECT_TRUE(log.has("CONDITION FAILED: no connection pool"));
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSMountFailed", "OFSDidUnmount"));
  EXPECT_THAT(keysOf(center.posted("OFSMountFailed")), ElementsAre("volumeName"));
  EXPECT_EQ(center.posted("OFSMountFailed").object, kName);
  EXPECT_THAT(journal, ElementsAre("modifierFlags", "shouldFix", "exit 0"));
}

TEST_F(Launch, WithoutANameNoSocketIsAskedAndNobodyIsNamed) {
  EXPECT_EQ(launch({"--sock=" + folder.path("sock")}), 0);
  EXPECT_EQ(center.posted("OFSMountFailed").object, std::nullopt);
  EXPECT_THAT(keysOf(center.posted("OFSMountFailed")), IsEmpty());
  EXPECT_THAT(keysOf(center.posted("OFSDidUnmount")), IsEmpty());
}

TEST_F(Launch, WithoutAListenerThereIsNoPool) {
  EXPECT_EQ(launch({"--sock=" + folder.path("nobody"), "--uuid=x"}), 0);
  EXPECT_TRUE(log.has("CONDITION FAILED: no connection pool"));
}

TEST_F(Launch, AProtocolThatNobodySpeaksLeavesNoPoolAndIsLogged) {
  environment.makeConnectionPool = [](std::shared_ptr<KCCredentials>, NSErrorRef* error) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported));
    return std::shared_ptr<KCConnectionPool>();
  };
  EXPECT_EQ(launch(arguments()), 0);
  EXPECT_THAT(log.lines(), Contains(StartsWith("No connection can be made: ")));
  EXPECT_TRUE(log.has("CONDITION FAILED: no connection pool"));
}

TEST_F(Launch, AnExceptionWhileFetchingLeavesTheStart) {
  FrontEnd resetting(folder.path("sock"), 0, {});
  resetting.resetInstead();
  resetting.start();
  EXPECT_THROW(launch({"--sock=" + folder.path("sock"), "--uuid=x"}), KCException);
}

TEST_F(Launch, AStartThatRaisedIsAnnouncedWithItsReason) {
  launch(arguments());
  const size_t before = center.posted().size();
  EXPECT_EQ(statusOf([this] { controller->launchDidRaise("read failed, errno = 104"); }), 0);
  const std::vector<NSNotification> all = center.posted();
  ASSERT_EQ(all.size(), before + 2);
  EXPECT_EQ(all[before].name, "OFSMountFailed");
  EXPECT_THAT(keysOf(all[before]), ElementsAre("volumeName", "errorData"));
  std::string reason;
  const NSErrorRef error =
      NSKeyedUnarchiver::unarchivedError(*all[before].userInfo->objectForKey("errorData")->asData(), &reason);
  ASSERT_NE(error, nullptr) << reason;
  EXPECT_EQ(error->localizedDescription(), "read failed, errno = 104");
  EXPECT_EQ(all[before + 1].name, "OFSDidUnmount");
}

TEST_F(Launch, AStartThatRaisedWithoutANameEndsSilently) {
  controller = std::make_unique<OFSController>(environment);
  EXPECT_EQ(statusOf([this] { controller->launchDidRaise("x"); }), 0);
  EXPECT_THAT(center.posted(), IsEmpty());
  EXPECT_TRUE(log.has("The start has failed: x"));
}

TEST_F(Launch, AStartThatRaisedWithoutANameDoesNotCutAnEndThatHasBegun) {
  controller = std::make_unique<OFSController>(environment);
  center.setObserver([this](const NSNotification&) {
    EXPECT_EQ(statusOf([this] { controller->launchDidRaise("x"); }), std::nullopt);
  });
  EXPECT_EQ(statusOf([this] { controller->requestUnmount(false); }), 0);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSMountFailed", "OFSDidUnmount"));
}

// --- preflight

TEST_F(Launch, AFailedLoginIsAnnouncedAndNothingIsMounted) {
  server.fail("connect", kAnyPath, QuarnKitError::errorWithCode(kQuarnKitLoginFailed, "no"));
  EXPECT_EQ(launch(arguments()), 0);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSMountFailed", "OFSDidUnmount"));
  EXPECT_THAT(keysOf(center.posted("OFSMountFailed")),
              ElementsAre("volumeName", "mountPath", "address", "errorData"));
  EXPECT_EQ(center.posted("OFSMountFailed").userInfo->stringForKey("mountPath"), volumes() + "/Work");
  EXPECT_TRUE(QuarnKitError::isCode(announcedError(), kQuarnKitLoginFailed));
  EXPECT_THAT(mount->iCalls, ElementsAre("unmount"));
}

TEST_F(Launch, AfterAFailedStartTheUnmountNamesTheVolumeAlone) {
  server.fail("connect", kAnyPath, QuarnKitError::errorWithCode(kQuarnKitLoginFailed));
  launch(arguments());
  EXPECT_THAT(keysOf(center.posted("OFSDidUnmount")), ElementsAre("volumeName"));
}

TEST_F(Launch, AFailureWithoutAnErrorCarriesNoErrorData) {
  server.setAcquisitionTimesOut(true);
  EXPECT_EQ(launch(arguments()), 0);
  EXPECT_THAT(keysOf(center.posted("OFSMountFailed")), ElementsAre("volumeName", "mountPath", "address"));
}

// --- the end of the controller

TEST_F(Launch, TheControllersEndUnmountsAndLetsGoOfTheDelegate) {
  launch(arguments());
  mount->iCalls.clear();
  controller.reset();
  EXPECT_THAT(mount->iCalls, ElementsAre("unmount", "setDelegate none"));
  EXPECT_EQ(center.observerCount(), 0u);
  EXPECT_EQ(postLocally(kGMUserFileSystemDidUnmount, {}), std::nullopt);
}

TEST(ProtocolName, IsLowerCasedAndTrimmed) {
  EXPECT_EQ(OFSController::nameOfProtocol(fourCharacterCode("FTP ")), "ftp");
  EXPECT_EQ(OFSController::nameOfProtocol(fourCharacterCode("SFTP")), "sftp");
  EXPECT_EQ(OFSController::nameOfProtocol(fourCharacterCode("S3  ")), "s3");
  EXPECT_EQ(OFSController::nameOfProtocol(fourCharacterCode(" \tX\n")), "x");
  EXPECT_EQ(OFSController::nameOfProtocol(fourCharacterCode("    ")), "");
  EXPECT_EQ(OFSController::nameOfProtocol(0x41420043), "ab");
  EXPECT_EQ(OFSController::nameOfProtocol(0), "");
}

}  // namespace
}  // namespace ombra
