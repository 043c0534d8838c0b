// What the front end is told of mounting, failing and unmounting, and what it can ask for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "platform/foundation/NSKeyedArchiver.h"
#include "tests/fshelper/controller/ControllerFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class Announcement : public ControllerTest {
 protected:
  // The folder of the redirect module's cache, with something in it.
  std::string filledCache() {
    const std::string path = option("redirect_folder=");
    std::filesystem::create_directories(path + "/sub");
    writeTestFile(path + "/sub/litter", "x");
    return path;
  }
};

TEST_F(Announcement, OfAMount) {
  server.addFolder("/home/anna");
  server.setLoginPath("/home/anna");
  launch(arguments());
  EXPECT_EQ(postDidMount(), std::nullopt);
  const NSNotification mounted = center.posted("OFSDidMount");
  EXPECT_EQ(mounted.object, kName);
  EXPECT_EQ(mounted.userInfo, (NSDictionary{{"volumeName", "Work"},
                                            {"mountPath", volumes() + "/Work"},
                                            {"rootPath", "/"},
                                            {"address", "files.example.org"}}));
  EXPECT_THAT(keysOf(mounted), ElementsAre("volumeName", "mountPath", "rootPath", "address"));
  EXPECT_EQ(controller->mountPath(), volumes() + "/Work");
}

TEST_F(Announcement, OfAPassthroughMountNamesTheIdentifierLast) {
  launch(arguments({"--name=Work", "--passthrough=id"}));
  postDidMount();
  EXPECT_THAT(keysOf(center.posted("OFSDidMount")),
              ElementsAre("volumeName", "mountPath", "rootPath", "address", "passthrough"));
}

TEST_F(Announcement, OfAMountAtTheRemoteRootNamesTheStartFolder) {
  setDefault("MountAtRemoteRoot", true);
  server.addFolder("/home/anna");
  server.setLoginPath("/home/anna");
  launch(arguments());
  postDidMount();
  EXPECT_EQ(center.posted("OFSDidMount").userInfo->stringForKey("rootPath"), "/home/anna");
}

TEST_F(Announcement, OfAMountWithoutAPathEndsAfterTheName) {
  launch(arguments());
  postLocally(kGMUserFileSystemDidMount, {});
  EXPECT_THAT(keysOf(center.posted("OFSDidMount")), ElementsAre("volumeName"));
  EXPECT_EQ(controller->mountPath(), std::nullopt);
}

TEST_F(Announcement, OfAnUnmountEndsTheProcess) {
  launch(arguments({"--name=Work", "--passthrough=id"}));
  postDidMount();
  EXPECT_EQ(postLocally(kGMUserFileSystemDidUnmount, {}), 0);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSDidMount", "OFSDidUnmount"));
  EXPECT_EQ(center.posted("OFSDidUnmount").object, kName);
  EXPECT_THAT(keysOf(center.posted("OFSDidUnmount")),
              ElementsAre("volumeName", "mountPath", "address", "passthrough"));
}

TEST_F(Announcement, OfMountAndUnmountHaveEachValueUnderItsKey) {
  launch(arguments({"--name=Work", "--passthrough=id"}));
  postDidMount();
  postLocally(kGMUserFileSystemDidUnmount, {{"mountPath", "/elsewhere"}});
  EXPECT_EQ(center.posted("OFSDidMount").userInfo, (NSDictionary{{"volumeName", "Work"},
                                                                 {"mountPath", volumes() + "/Work"},
                                                                 {"rootPath", "/"},
                                                                 {"address", "files.example.org"},
                                                                 {"passthrough", "id"}}));
  EXPECT_EQ(center.posted("OFSDidUnmount").userInfo, (NSDictionary{{"volumeName", "Work"},
                                                                   {"mountPath", volumes() + "/Work"},
                                                                   {"address", "files.example.org"},
                                                                   {"passthrough", "id"}}));
}

// The path is that of the report, which a mount of another place may have made.
TEST_F(Announcement, OfAFailureHasEachValueUnderItsKeyAndTheReportsPath) {
  launch(arguments({"--name=Work", "--passthrough=id"}));
  postLocally(kGMUserFileSystemMountFailed, {{"mountPath", "/elsewhere"}});
  EXPECT_EQ(center.posted("OFSMountFailed").object, kName);
  EXPECT_EQ(center.posted("OFSMountFailed").userInfo, (NSDictionary{{"volumeName", "Work"},
                                                                    {"mountPath", "/elsewhere"},
                                                                    {"address", "files.example.org"},
                                                                    {"passthrough", "id"}}));
  EXPECT_THAT(keysOf(center.posted("OFSDidUnmount")), ElementsAre("volumeName"));
}

TEST_F(Announcement, OfAnUnmountWithoutAMountPathHoldsTheNameAlone) {
  launch(arguments({"--name=Work", "--passthrough=id"}));
  EXPECT_EQ(postLocally(kGMUserFileSystemDidUnmount, {}), 0);
  EXPECT_THAT(keysOf(center.posted("OFSDidUnmount")), ElementsAre("volumeName"));
}

TEST_F(Announcement, OfAFailureIsFollowedByTheUnmountAndTheEnd) {
  launch(arguments({"--name=Work", "--passthrough=id"}));
  const NSErrorRef error = NSError::errorWithDomain(kGMUserFileSystemErrorDomain, kGMNoFuseDevice);
  EXPECT_EQ(postLocally(kGMUserFileSystemMountFailed,
                        {{"mountPath", mount->iPath}, {std::string(kGMUserFileSystemErrorKey), error}}),
            0);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSMountFailed", "OFSDidUnmount"));
  const NSNotification failed = center.posted("OFSMountFailed");
  EXPECT_THAT(keysOf(failed), ElementsAre("volumeName", "mountPath", "address", "passthrough", "errorData"));
  std::string reason;
  const NSErrorRef decoded =
      NSKeyedUnarchiver::unarchivedError(*failed.userInfo->objectForKey("errorData")->asData(), &reason);
  ASSERT_NE(decoded, nullptr) << reason;
  EXPECT_EQ(decoded->domain(), kGMUserFileSystemErrorDomain);
  EXPECT_EQ(decoded->code(), kGMNoFuseDevice);
  EXPECT_EQ(mount->iCalls.back(), "unmount");
}

TEST_F(Announcement, OfAFailureWithoutAPathStillCarriesTheError) {
  launch(arguments());
  postLocally(kGMUserFileSystemMountFailed,
              {{std::string(kGMUserFileSystemErrorKey), NSError::errorWithDomain(NSPOSIXErrorDomain, kEIO)}});
  EXPECT_THAT(keysOf(center.posted("OFSMountFailed")), ElementsAre("volumeName", "errorData"));
}

TEST_F(Announcement, OfAFailureWithoutAnErrorHasNoErrorData) {
  launch(arguments());
  postLocally(kGMUserFileSystemMountFailed, {{"mountPath", mount->iPath}});
  EXPECT_THAT(keysOf(center.posted("OFSMountFailed")), ElementsAre("volumeName", "mountPath", "address"));
}

TEST_F(Announcement, AnUnmountRemovesTheCacheOfAPlainMount) {
  launch(arguments());
  const std::string cache = filledCache();
  postLocally(kGMUserFileSystemDidUnmount, {});
  EXPECT_FALSE(std::filesystem::exists(cache));
  EXPECT_TRUE(std::filesystem::exists(cachesFolder()));
}

TEST_F(Announcement, AFailureIsToldThenUnmountedThenTheUnmountToldThenTheProcessEnds) {
  launch(arguments());
  journal.clear();
  center.setObserver([this](const NSNotification& posted) { journal.push_back("post " + posted.name); });
  mount->iWhileUnmounting = [this] { journal.emplace_back("unmount"); };
  EXPECT_EQ(postLocally(kGMUserFileSystemMountFailed, {{"mountPath", mount->iPath}}), 0);
  mount->iWhileUnmounting = nullptr;
  EXPECT_THAT(journal, ElementsAre("post OFSMountFailed", "unmount", "post OFSDidUnmount", "exit 0"));
}

TEST_F(Announcement, TheCacheIsRemovedBetweenTheUnmountsNewsAndTheEnd) {
  std::string cache;
  const auto note = [this, &cache](const std::string& moment) {
    journal.push_back(moment + (std::filesystem::exists(cache) ? ": there" : ": gone"));
  };
  environment.exit = [note](int status) {
    note("exit");
    throw ProcessEnded{status};
  };
  launch(arguments());
  cache = filledCache();
  journal.clear();
  center.setObserver([note](const NSNotification& posted) { note(posted.name); });
  EXPECT_EQ(postLocally(kGMUserFileSystemDidUnmount, {}), 0);
  EXPECT_THAT(journal, ElementsAre("OFSDidUnmount: there", "exit: gone"));
}

TEST_F(Announcement, OfAFailureIsMadeOnce) {
  launch(arguments());
  EXPECT_EQ(postLocally(kGMUserFileSystemMountFailed, {{"mountPath", mount->iPath}}), 0);
  EXPECT_EQ(postLocally(kGMUserFileSystemMountFailed, {{"mountPath", mount->iPath}}), std::nullopt);
  EXPECT_EQ(postLocally(kGMUserFileSystemDidUnmount, {}), std::nullopt);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSMountFailed", "OFSDidUnmount"));
}

TEST_F(Announcement, OfAnUnmountIsMadeOnce) {
  launch(arguments());
  postDidMount();
  EXPECT_EQ(postLocally(kGMUserFileSystemDidUnmount, {}), 0);
  EXPECT_EQ(postLocally(kGMUserFileSystemDidUnmount, {}), std::nullopt);
  EXPECT_EQ(postLocally(kGMUserFileSystemMountFailed, {}), std::nullopt);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSDidMount", "OFSDidUnmount"));
}

TEST_F(Announcement, OfOneEndWhileAnotherThreadEndsTheStartToo) {
  launch(arguments());
  std::optional<int> status;
  center.setObserver([this, &status](const NSNotification&) {
    center.setObserver({});
    std::thread([this, &status] {
      status = statusOf([this] {
        controller->mountFailed({"OFSMountFailed", kName, std::nullopt});
        controller->didUnmount({std::string(kGMUserFileSystemDidUnmount), std::nullopt, std::nullopt});
      });
    }).join();
  });
  EXPECT_EQ(postLocally(kGMUserFileSystemMountFailed, {{"mountPath", mount->iPath}}), 0);
  EXPECT_EQ(status, std::nullopt);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSMountFailed", "OFSDidUnmount"));
}

TEST_F(Announcement, AnUnmountThatTheFrameworkReportsDuringAFailureIsNotToldTwice) {
  launch(arguments());
  mount->iWhileUnmounting = [this] { EXPECT_EQ(postLocally(kGMUserFileSystemDidUnmount, {}), std::nullopt); };
  EXPECT_EQ(postLocally(kGMUserFileSystemMountFailed, {{"mountPath", mount->iPath}}), 0);
  mount->iWhileUnmounting = nullptr;
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSMountFailed", "OFSDidUnmount"));
}

class PassthroughCache : public Announcement, public ::testing::WithParamInterface<const char*> {};

TEST_P(PassthroughCache, SurvivesTheUnmount) {
  launch(arguments({GetParam()}));
  const std::string cache = filledCache();
  EXPECT_EQ(postLocally(kGMUserFileSystemDidUnmount, {}), 0);
  EXPECT_TRUE(std::filesystem::exists(cache + "/sub/litter"));
}

INSTANTIATE_TEST_SUITE_P(Identifiers, PassthroughCache,
                         ::testing::Values("--passthrough=id", "--passthrough="));

TEST_F(Announcement, WithoutACacheNothingIsRemoved) {
  writeTestFile(folder.path("data"), "no folder");
  launch(arguments());
  EXPECT_EQ(postLocally(kGMUserFileSystemDidUnmount, {}), 0);
  EXPECT_EQ(readTestFile(folder.path("data")), "no folder");
  EXPECT_TRUE(std::filesystem::exists(volumes()));
}

TEST_F(Announcement, OfAFailureBeforeTheOptionsRemovesNothing) {
  std::filesystem::create_directories(cachesFolder() + "/other");
  launch({"--uuid=x"});
  EXPECT_TRUE(std::filesystem::exists(cachesFolder() + "/other"));
}

TEST_F(Announcement, WhatCouldNotBeStoredIsLoggedAndTold) {
  launch(arguments());
  postDidMount();
  const NSArray files{PropertyValue("/a.txt\t/saved/a.txt\tThe server is full."),
                      PropertyValue("/b\t\tgone")};
  EXPECT_EQ(postLocally(kGMUserFileSystemDidUnmount, {{std::string(kGMUserFileSystemUndeliveredKey), files}}),
            0);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSDidMount", "OFSUndelivered", "OFSDidUnmount"));
  const NSNotification undelivered = center.posted("OFSUndelivered");
  EXPECT_EQ(undelivered.object, kName);
  EXPECT_EQ(undelivered.userInfo, (NSDictionary{{"volumeName", "Work"}, {"files", files}}));
  EXPECT_THAT(log.lines(), Contains(HasSubstr("/a.txt\t/saved/a.txt\tThe server is full.")));
}

TEST_F(Announcement, WithEverythingStoredNothingMoreIsTold) {
  launch(arguments());
  postLocally(kGMUserFileSystemDidUnmount, {{std::string(kGMUserFileSystemUndeliveredKey), NSArray()}});
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSDidUnmount"));
}

// --- invalidation

class Invalidation : public ControllerTest {
 protected:
  // Mounted, with "/docs/sub", "/docs/a.txt" and "/other" listed.
  void mountAndList() {
    server.addFolder("/docs/sub");
    server.addFile("/docs/a.txt", "hello");
    server.addFolder("/other");
    launch(arguments());
    postDidMount();
    for (const char* path : {"/", "/docs", "/other"}) {
      ASSERT_TRUE(fileSystem->contentsOfDirectoryAtPath(path, nullptr).has_value()) << path;
    }
    server.clearCalls();
  }
  void invalidate(const std::vector<std::string>& paths) {
    NSArray list;
    for (const std::string& path : paths) list.emplace_back(path);
    center.deliver({"OFSInvalidateCache", std::nullopt, NSDictionary{{"paths", list}}});
  }
  // The folders that the server was asked for, in order.
  std::vector<std::string> listings() const {
    std::vector<std::string> texts = server.callTexts();
    std::erase_if(texts, [](const std::string& text) { return !text.starts_with("contentsAtPath "); });
    return texts;
  }
  bool isExpired(const std::string& path) {
    const auto node = fileSystem->nodeForPath(path);
    return node != nullptr && node->isExpired();
  }
};

TEST_F(Invalidation, ExpiresTheFolder) {
  mountAndList();
  invalidate({mount->iPath + "/docs"});
  EXPECT_TRUE(isExpired("/docs"));
  EXPECT_FALSE(isExpired("/other"));
}

TEST_F(Invalidation, TheNextListingIsFetchedAgain) {
  mountAndList();
  ASSERT_TRUE(fileSystem->contentsOfDirectoryAtPath("/docs", nullptr).has_value());
  EXPECT_EQ(server.count("contentsAtPath"), 0u);
  invalidate({mount->iPath + "/docs"});
  ASSERT_TRUE(fileSystem->contentsOfDirectoryAtPath("/docs", nullptr).has_value());
  EXPECT_EQ(server.count("contentsAtPath"), 1u);
}

TEST_F(Invalidation, TheKernelIsToldToo) {
  mountAndList();
  mount->iInvalidated.clear();
  invalidate({mount->iPath + "/docs"});
  EXPECT_THAT(mount->iInvalidated, ElementsAre("/docs"));
}

TEST_F(Invalidation, TheMountPointItselfExpiresTheRoot) {
  mountAndList();
  invalidate({mount->iPath});
  EXPECT_TRUE(fileSystem->rootNode()->isExpired());
  EXPECT_FALSE(isExpired("/docs"));
}

TEST_F(Invalidation, ATrailingSlashMakesNoDifference) {
  mountAndList();
  invalidate({mount->iPath + "/docs/"});
  EXPECT_TRUE(isExpired("/docs"));
}

TEST_F(Invalidation, AllPathsAreTaken) {
  mountAndList();
  mount->iInvalidated.clear();
  invalidate({mount->iPath + "/missing", mount->iPath + "/docs", mount->iPath + "/other"});
  EXPECT_TRUE(isExpired("/docs"));
  EXPECT_TRUE(isExpired("/other"));
  EXPECT_THAT(mount->iInvalidated, ElementsAre("/docs", "/other")) << "in their order";
}

TEST_F(Invalidation, FilesAndPathsOutsideTheMountAreIgnored) {
  mountAndList();
  mount->iInvalidated.clear();
  invalidate({mount->iPath + "/docs/a.txt", "/docs", mount->iPath + "x/docs", volumes(), "", "docs"});
  EXPECT_FALSE(isExpired("/docs/a.txt"));
  EXPECT_FALSE(isExpired("/docs"));
  EXPECT_FALSE(fileSystem->rootNode()->isExpired());
  EXPECT_THAT(mount->iInvalidated, IsEmpty());
}

TEST_F(Invalidation, ALinkIsNotExpired) {
  server.addLink("/docs/link", "/other");
  mountAndList();
  ASSERT_NE(fileSystem->nodeForPath("/docs/link"), nullptr);
  ASSERT_EQ(fileSystem->nodeForPath("/docs/link")->type(), kNodeTypeAlias);
  mount->iInvalidated.clear();
  invalidate({mount->iPath + "/docs/link"});
  EXPECT_FALSE(isExpired("/docs/link"));
  EXPECT_FALSE(isExpired("/other"));
  EXPECT_THAT(mount->iInvalidated, IsEmpty());
}

TEST_F(Invalidation, OfAFolderThatWasNeverListedListsItsParentOnce) {
  server.addFolder("/docs/sub/deep");
  launch(arguments());
  postDidMount();
  ASSERT_TRUE(fileSystem->contentsOfDirectoryAtPath("/docs", nullptr).has_value());
  server.clearCalls();
  invalidate({mount->iPath + "/docs/sub/deep"});
  EXPECT_THAT(listings(), ElementsAre("contentsAtPath /docs/sub"));
  EXPECT_TRUE(isExpired("/docs/sub/deep"));
  EXPECT_FALSE(isExpired("/docs/sub"));
}

TEST_F(Invalidation, OfAFolderDeepBelowWhatWasListedListsEachLevelOnce) {
  server.addFolder("/a/b/c");
  launch(arguments());
  postDidMount();
  server.clearCalls();
  invalidate({mount->iPath + "/a/b/c"});
  EXPECT_THAT(listings(), ElementsAre("contentsAtPath /", "contentsAtPath /a", "contentsAtPath /a/b"));
  EXPECT_TRUE(isExpired("/a/b/c"));
}

TEST_F(Invalidation, OfWhatAListedFolderDoesNotHoldAsksTheServerNothing) {
  mountAndList();
  invalidate({mount->iPath + "/docs/missing"});
  EXPECT_THAT(listings(), IsEmpty());
  EXPECT_FALSE(isExpired("/docs"));
}

// What comes after the mount point is taken for a path on the server, where the root's folder stands before
// all others. Intended.
TEST_F(Invalidation, ARestThatBeginsLikeTheRootsPathLosesThatBeginning) {
  server.setLoginPath("/home/anna");
  server.addFolder("/home/anna/docs");
  server.addFolder("/home/anna/home/docs");
  launch(arguments());
  postDidMount();
  for (const char* path : {"/", "/home", "/docs", "/home/docs"}) {
    ASSERT_TRUE(fileSystem->contentsOfDirectoryAtPath(path, nullptr).has_value()) << path;
  }
  invalidate({mount->iPath + "/home/docs"});
  EXPECT_TRUE(isExpired("/docs"));
  EXPECT_FALSE(isExpired("/home/docs"));
  EXPECT_FALSE(fileSystem->rootNode()->isExpired());
  invalidate({mount->iPath + "/home"});
  EXPECT_TRUE(fileSystem->rootNode()->isExpired());
  EXPECT_FALSE(isExpired("/home"));
}

TEST_F(Invalidation, IsHeardWhateverObjectItNames) {
  mountAndList();
  const NSArray paths{PropertyValue(mount->iPath + "/docs")};
  center.deliver({"OFSInvalidateCache", "somebody", NSDictionary{{"paths", paths}}});
  EXPECT_TRUE(isExpired("/docs"));
}

TEST_F(Invalidation, NothingIsPostedInReply) {
  mountAndList();
  invalidate({mount->iPath + "/docs"});
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSDidMount"));
}

TEST_F(Invalidation, ARequestWithoutPathsDoesNothing) {
  mountAndList();
  center.deliver({"OFSInvalidateCache", std::nullopt, std::nullopt});
  center.deliver({"OFSInvalidateCache", std::nullopt, NSDictionary()});
  center.deliver({"OFSInvalidateCache", std::nullopt, NSDictionary{{"paths", "/docs"}}});
  center.deliver({"OFSInvalidateCache", std::nullopt, NSDictionary{{"paths", NSArray{PropertyValue(1)}}}});
  EXPECT_FALSE(isExpired("/docs"));
}

TEST_F(Invalidation, BeforeTheMountItDoesNothing) {
  launch(arguments());
  invalidate({"/"});
  EXPECT_FALSE(fileSystem->rootNode()->isExpired());
}

// --- asking for the end

class UnmountRequest : public ControllerTest {};

TEST_F(UnmountRequest, OfAMountedVolumeUnmounts) {
  launch(arguments());
  postDidMount();
  mount->iCalls.clear();
  controller->requestUnmount(false);
  EXPECT_THAT(mount->iCalls, ElementsAre("unmount"));
  EXPECT_EQ(controller->state(), OFSController::State::kUnmounting);
  EXPECT_EQ(server.count("shutDown"), 0u);
  EXPECT_TRUE(fileSystem->poolMaker());
}

TEST_F(UnmountRequest, WithForceNoLongerWaitsForTheServer) {
  launch(arguments());
  postDidMount();
  controller->requestUnmount(true);
  EXPECT_EQ(server.count("shutDown"), 1u);
  EXPECT_FALSE(fileSystem->poolMaker()) << "it would be looked for again before anything is saved";
}

TEST_F(UnmountRequest, WhileMountingIsKeptUntilTheMountIsThere) {
  launch(arguments());
  controller->requestUnmount(false);
  mount->iCalls.clear();
  postDidMount();
  EXPECT_THAT(mount->iCalls, ElementsAre("unmount"));
}

TEST_F(UnmountRequest, JustBeforeTheMountPreventsIt) {
  environment.willRequestMount = [this] {
    EXPECT_EQ(statusOf([this] { controller->requestUnmount(false); }), 0);
  };
  launch(arguments());
  EXPECT_THAT(mount->iCalls, Not(Contains("mountAtPath YES YES")));
}

TEST_F(UnmountRequest, DuringTheStartEndsIt) {
  controller = std::make_unique<OFSController>(environment);
  controller->setRegisteredName(kName);
  EXPECT_EQ(statusOf([this] { controller->requestUnmount(false); }), 0);
  EXPECT_THAT(center.postedNames(), ElementsAre("OFSMountFailed", "OFSDidUnmount"));
}

}  // namespace
}  // namespace ombra
