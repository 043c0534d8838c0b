// Listings and how long they stay fresh.
#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class ListingTest : public FileSystemTest {
 protected:
  ListingTest() {
    server.addFile("/b.txt", "bb");
    server.addFile("/a.txt", "a");
  }
};

TEST_F(ListingTest, AMissingPathIsInvalid) {
  connect();
  EXPECT_EQ(fileSystem.contentsOfDirectoryAtPath(std::nullopt, &error), std::nullopt);
  EXPECT_EQ(code(), kEINVAL);
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(ListingTest, AnswersInTheServersOrder) {
  connect();
  EXPECT_THAT(list("/"), ElementsAre("b.txt", "a.txt"));
}

TEST_F(ListingTest, AnswersNamesDecomposed) {
  server.addFile("/caf\xC3\xA9", "");
  connect();
  EXPECT_THAT(list("/"), ElementsAre("b.txt", "a.txt", "cafe\xCC\x81"));
  EXPECT_THAT(list("/"), UnorderedElementsAre("b.txt", "a.txt", "cafe\xCC\x81"));
}

TEST_F(ListingTest, TheServerIsAskedOncePerInterval) {
  connect();
  list("/");
  clock.advance(59.9);
  list("/");
  EXPECT_EQ(server.count("contentsAtPath"), 1u);
}

TEST_F(ListingTest, AFreshAnswerTakesNoConnection) {
  connect();
  list("/");
  server.clearCalls();
  EXPECT_THAT(list("/"), UnorderedElementsAre("a.txt", "b.txt"));
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(ListingTest, ExactlyTheIntervalIsTooOld) {
  connect();
  list("/");
  clock.advance(60);
  list("/");
  EXPECT_EQ(server.count("contentsAtPath"), 2u);
}

TEST_F(ListingTest, AnotherIntervalCounts) {
  connect();
  fileSystem.setRefreshInterval(5);
  list("/");
  clock.advance(5);
  list("/");
  EXPECT_EQ(server.count("contentsAtPath"), 2u);
}

TEST_F(ListingTest, AFlaggedFolderIsFetchedWithinTheInterval) {
  connect();
  list("/");
  makeStale("/");
  list("/");
  EXPECT_EQ(server.count("contentsAtPath"), 2u);
  EXPECT_FALSE(fileSystem.rootNode()->isExpired());
  list("/");
  EXPECT_EQ(server.count("contentsAtPath"), 2u);
}

TEST_F(ListingTest, AFetchDatesTheListing) {
  connect();
  list("/");
  EXPECT_EQ(ofs_property<NSDate>(*fileSystem.rootNode(), kOFSExpirationDate), clock.now());
}

TEST_F(ListingTest, AListingIsAsOldAsTheEndOfItsFetch) {
  connect();
  for (const bool succeeds : {true, false}) {
    server.setContentsHandler([&](std::string_view, auto*, NSErrorRef*) {
      clock.advance(20);
      return succeeds;
    });
    fileSystem.contentsOfDirectoryAtPath("/", nullptr);
    EXPECT_EQ(ofs_property<NSDate>(*fileSystem.rootNode(), kOFSExpirationDate), clock.now()) << succeeds;
    makeStale("/");
  }
}

// What other readers see while the fetch of one is under way.
TEST_F(ListingTest, AnOldListingIsDatedAnewBeforeItsFetch) {
  connect();
  list("/");
  clock.advance(100);
  std::optional<NSDate> during;
  server.setContentsHandler([&](std::string_view, auto*, NSErrorRef*) {
    during = ofs_property<NSDate>(*fileSystem.rootNode(), kOFSExpirationDate);
    return true;
  });
  list("/");
  EXPECT_EQ(during, clock.now());
}

TEST_F(ListingTest, AFlaggedListingKeepsItsDateDuringTheFetch) {
  connect();
  list("/");
  const NSDate before = clock.now();
  clock.advance(10);
  makeStale("/");
  std::optional<NSDate> during;
  server.setContentsHandler([&](std::string_view, auto*, NSErrorRef*) {
    during = ofs_property<NSDate>(*fileSystem.rootNode(), kOFSExpirationDate);
    return true;
  });
  list("/");
  EXPECT_EQ(during, before);
}

TEST_F(ListingTest, AVanishedFileLeavesTheTree) {
  connect();
  list("/");
  server.removeItem("/a.txt");
  makeStale("/");
  EXPECT_THAT(list("/"), ElementsAre("b.txt"));
  EXPECT_EQ(fileSystem.nodeForPath("/a.txt"), nullptr);
}

TEST_F(ListingTest, WhatVanishedIsVisitedAndWhatIsListedIsNot) {
  connect();
  list("/");
  server.removeItem("/a.txt");
  makeStale("/");
  RecordedLog log;
  {
    const TracingOn tracing;
    list("/");
  }
  EXPECT_THAT(log.linesWith("{ -[OmbraFileSystem _forgetNode:]"),
              ElementsAre(::testing::EndsWith("_forgetNode:] /a.txt")));
}

TEST_F(ListingTest, AKnownFileKeepsItsNodeAndItsOldSize) {
  connect();
  const auto node = fileSystem.nodeForPath("/a.txt");
  node->setUserProperty(std::string("kept"), kOFSResolvedPath);
  server.addFile("/a.txt", "much longer");
  makeStale("/");
  list("/");
  EXPECT_EQ(fileSystem.nodeForPath("/a.txt"), node);
  EXPECT_EQ(node->size(), 1u);
  EXPECT_EQ(ofs_property<std::string>(*node, kOFSResolvedPath), "kept");
}

TEST_F(ListingTest, AKnownFileKeepsItsNodeAlsoWhenListedInAnotherUnicodeForm) {
  server.addFile("/caf\xC3\xA9", "");
  connect();
  const auto node = fileSystem.nodeForPath("/caf\xC3\xA9");
  server.removeItem("/caf\xC3\xA9");
  server.addFile("/cafe\xCC\x81", "");
  makeStale("/");
  list("/");
  EXPECT_EQ(fileSystem.nodeForPath("/caf\xC3\xA9"), node);
}

TEST_F(ListingTest, AFailureIsNoSuchItemOverTheLibrarysError) {
  connect();
  server.fail("contentsAtPath", "/", refusal(kQuarnKitConnectionLost));
  EXPECT_EQ(fileSystem.contentsOfDirectoryAtPath("/", &error), std::nullopt);
  EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(code(), kENOENT);
  EXPECT_EQ(underlyingCode(), kQuarnKitConnectionLost);
  EXPECT_NE(dynamic_cast<const QuarnKitError*>(error.get()), nullptr);
  EXPECT_EQ(server.heldConnections(), 0u);
}

TEST_F(ListingTest, AFailureIsReported) {
  connect();
  server.fail("contentsAtPath", "/", refusal());
  RecordedLog log;
  {
    const TracingOn tracing;
    fileSystem.contentsOfDirectoryAtPath("/", &error);
  }
  EXPECT_EQ(log.linesWith(": " + error->description()).size(), 1u);
}

TEST_F(ListingTest, AnExceptionGivesTheConnectionBack) {
  connect();
  server.setContentsHandler([](std::string_view, auto*, NSErrorRef*) -> bool { throw KCException("x"); });
  EXPECT_THROW(fileSystem.contentsOfDirectoryAtPath("/", &error), KCException);
  EXPECT_EQ(server.heldConnections(), 0u);
  server.setContentsHandler({});
  EXPECT_THAT(list("/"), ElementsAre("b.txt", "a.txt"));
}

TEST_F(ListingTest, AFailureWithoutALibraryErrorHasNoneBeneath) {
  connect();
  server.fail("contentsAtPath", "/", nullptr);
  fileSystem.contentsOfDirectoryAtPath("/", &error);
  EXPECT_EQ(code(), kENOENT);
  EXPECT_EQ(error->userInfo().count(), 0u);
}

TEST_F(ListingTest, AfterAFailureTheOldListingIsAnsweredForAnInterval) {
  connect();
  list("/");
  makeStale("/");
  server.fail("contentsAtPath", "/", refusal());
  EXPECT_EQ(fileSystem.contentsOfDirectoryAtPath("/", &error), std::nullopt);
  error = nullptr;
  EXPECT_THAT(list("/"), UnorderedElementsAre("a.txt", "b.txt"));
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(server.count("contentsAtPath"), 2u);
}

TEST_F(ListingTest, AFailedFirstListingIsFreshAndAnswersNothingWithoutAnError) {
  connect();
  server.fail("contentsAtPath", "/", refusal());
  EXPECT_EQ(fileSystem.contentsOfDirectoryAtPath("/", &error), std::nullopt);
  error = nullptr;
  EXPECT_EQ(fileSystem.contentsOfDirectoryAtPath("/", &error), std::nullopt);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(server.count("contentsAtPath"), 1u);
}

TEST_F(ListingTest, AFailedListingCountsForLessThanAnInterval) {
  connect();
  server.fail("contentsAtPath", "/", refusal());
  fileSystem.contentsOfDirectoryAtPath("/", &error);
  clock.advance(59.9);
  EXPECT_EQ(fileSystem.contentsOfDirectoryAtPath("/", nullptr), std::nullopt);
  EXPECT_EQ(server.count("contentsAtPath"), 1u);
}

TEST_F(ListingTest, AFailedListingIsFetchedAgainAfterExactlyAnInterval) {
  connect();
  server.fail("contentsAtPath", "/", refusal());
  fileSystem.contentsOfDirectoryAtPath("/", &error);
  clock.advance(60);
  EXPECT_THAT(list("/"), ElementsAre("b.txt", "a.txt"));
  EXPECT_EQ(server.count("contentsAtPath"), 2u);
}

TEST_F(ListingTest, AFolderThatNoNodeStandsForIsAskedForEachTime) {
  connect();
  EXPECT_EQ(fileSystem.contentsOfDirectoryAtPath("/nowhere", &error), std::nullopt);
  EXPECT_EQ(code(), kENOENT);
  fileSystem.contentsOfDirectoryAtPath("/nowhere", &error);
  EXPECT_THAT(serverCalls(),
              ElementsAre("contentsAtPath /", "contentsAtPath /nowhere", "contentsAtPath /nowhere"));
}

TEST_F(ListingTest, FoldersBelowTheRootAreAskedForByTheServersPath) {
  server.addFile("/home/u/docs/x", "");
  connectAt("/home/u");
  EXPECT_THAT(list("/docs"), ElementsAre("x"));
  EXPECT_THAT(serverCalls(), ElementsAre("contentsAtPath /home/u", "contentsAtPath /home/u/docs"));
}

// What programs are shown, and what the kernel has to be told of.

TEST_F(ListingTest, NamesAsListedKeepTheirBytes) {
  server.addFile("/caf\xC3\xA9", "");
  connect();
  EXPECT_THAT(*fileSystem.namesAsListedAtPath("/", &error), ElementsAre("b.txt", "a.txt", "caf\xC3\xA9"));
  EXPECT_THAT(*fileSystem.namesAsListedAtPath("/", &error), ElementsAre("b.txt", "a.txt", "caf\xC3\xA9"));
  EXPECT_EQ(server.count("contentsAtPath"), 1u);
}

TEST_F(ListingTest, ANameListedInTwoFormsIsShownOnceAndAnsweredTwice) {
  server.addFile("/caf\xC3\xA9", "");
  server.addFile("/cafe\xCC\x81", "");
  connect();
  EXPECT_THAT(*fileSystem.namesAsListedAtPath("/", &error), ElementsAre("b.txt", "a.txt", "caf\xC3\xA9"));
  makeStale("/");
  EXPECT_THAT(list("/"), ElementsAre("b.txt", "a.txt", "cafe\xCC\x81", "cafe\xCC\x81"));
  EXPECT_EQ(list("/").size(), 3u);
}

TEST_F(ListingTest, NamesAsListedFailLikeTheListing) {
  connect();
  server.fail("contentsAtPath", "/", refusal());
  EXPECT_EQ(fileSystem.namesAsListedAtPath("/", &error), std::nullopt);
  EXPECT_EQ(code(), kENOENT);
  EXPECT_EQ(fileSystem.namesAsListedAtPath(std::nullopt, &error), std::nullopt);
  EXPECT_EQ(code(), kEINVAL);
}

TEST_F(ListingTest, AListedPathHasTheBytesOfTheListing) {
  server.addFile("/caf\xC3\xA9/tre\xCC\x81s/plain", "");
  connect();
  EXPECT_EQ(fileSystem.listedPathForPath("/cafe\xCC\x81/tr\xC3\xA9s/plain"),
            "/caf\xC3\xA9/tre\xCC\x81s/plain");
  EXPECT_EQ(fileSystem.listedPathForPath("/cafe\xCC\x81/ne\xCC\x81w"), "/caf\xC3\xA9/ne\xCC\x81w");
}

TEST_F(ListingTest, AnASCIIPathIsItsOwnListedPathWithoutALookUp) {
  connect();
  EXPECT_EQ(fileSystem.listedPathForPath("/a.txt"), "/a.txt");
  EXPECT_EQ(fileSystem.listedPathForPath("/"), "/");
  EXPECT_THAT(serverCalls(), IsEmpty());
}

class Invalidation : public ListingTest {
 protected:
  Invalidation() { fileSystem.setInvalidation(&told); }
  RecordedInvalidation told;
};

TEST_F(Invalidation, AFirstListingIsNoNews) {
  connect();
  list("/");
  EXPECT_THAT(told.take(), IsEmpty());
}

TEST_F(Invalidation, AnUnchangedListingIsNoNews) {
  connect();
  list("/");
  makeStale("/");
  list("/");
  EXPECT_THAT(told.take(), IsEmpty());
}

TEST_F(Invalidation, ANewNameIsTold) {
  server.addFolder("/docs");
  connect();
  list("/docs");
  server.addFile("/docs/new.txt", "");
  makeStale("/docs");
  list("/docs");
  EXPECT_THAT(told.take(), ElementsAre("folder /docs"));
}

TEST_F(Invalidation, AGoneNameIsTold) {
  connect();
  list("/");
  server.removeItem("/a.txt");
  makeStale("/");
  list("/");
  EXPECT_THAT(told.take(), ElementsAre("folder /"));
}

TEST_F(Invalidation, WhatWasMadeHereIsNoNews) {
  connect();
  list("/");
  ASSERT_TRUE(fileSystem.createDirectoryAtPath("/new", {}, &error));
  GMUserData file;
  ASSERT_TRUE(fileSystem.createFileAtPath("/new.txt", {}, &file, &error));
  ASSERT_TRUE(fileSystem.createSymbolicLinkAtPath("/link", "a.txt", &error));
  list("/");
  EXPECT_THAT(told.take(), IsEmpty());
}

TEST_F(Invalidation, ALinkInItsPlaceIsToldOnce) {
  connect();
  ASSERT_TRUE(fileSystem.createDirectoryAtPath("/new", {}, &error));
  list("/");
  server.addFile("/other", "");
  makeStale("/");
  list("/");
  EXPECT_THAT(told.take(), ElementsAre("folder /"));
}

}  // namespace
}  // namespace ombra
