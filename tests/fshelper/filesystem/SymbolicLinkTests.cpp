// Making links, and reading them.
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SymbolicLinks : public FileSystemTest {
 protected:
  SymbolicLinks() { mountPoint.path = "/Volumes/Srv"; }
  void SetUp() override { connectAt("/home/u"); }
  bool make(std::string_view path, std::string_view destination) {
    return fileSystem.createSymbolicLinkAtPath(path, destination, &error);
  }
  std::optional<std::string> readLink(std::string_view path) {
    return fileSystem.destinationOfSymbolicLinkAtPath(path, &error);
  }
  std::optional<std::string> cached(std::string_view path) {
    return ofs_property<std::string>(*fileSystem.nodeForPath(path), kOFSResolvedPath);
  }
};

TEST_F(SymbolicLinks, AMissingPathOrDestinationIsInvalid) {
  EXPECT_FALSE(fileSystem.createSymbolicLinkAtPath(std::nullopt, "x", &error));
  EXPECT_EQ(code(), kEINVAL);
  error = nullptr;
  EXPECT_FALSE(fileSystem.createSymbolicLinkAtPath("/l", std::nullopt, &error));
  EXPECT_EQ(code(), kEINVAL);
}

TEST_F(SymbolicLinks, AnUnknownParentIsNoSuchItem) {
  EXPECT_FALSE(make("/nowhere/l", "x"));
  EXPECT_EQ(code(), kENOENT);
  EXPECT_EQ(server.count("createSymbolicLinkAtPath"), 0u);
}

struct Destination {
  std::string given;
  std::string stored;
};

class StoredLinks : public SymbolicLinks, public ::testing::WithParamInterface<Destination> {};

TEST_P(StoredLinks, HaveTheServersText) {
  ASSERT_TRUE(make("/l", GetParam().given));
  EXPECT_EQ(server.linkTarget("/home/u/l"), GetParam().stored);
}

INSTANTIATE_TEST_SUITE_P(Destinations, StoredLinks,
                         ::testing::Values(Destination{"../b", "../b"},
                                           Destination{"/Volumes/Srv/x", "/home/u/x"},
                                           Destination{"/etc/hosts", "/home/u/etc/hosts"},
                                           Destination{"", ""}));

TEST_F(SymbolicLinks, ARelativeDestinationIsWrittenInTheServersEncoding) {
  server.credentials()->setEncoding("ISO-8859-1");
  ASSERT_TRUE(make("/l", "caf\xC3\xA9"));
  EXPECT_EQ(server.linkTarget("/home/u/l"), "caf\xE9");
}

TEST_F(SymbolicLinks, ANewLinkMarksItsParent) {
  list("/");
  clock.advance(5);
  ASSERT_TRUE(make("/l", "x"));
  EXPECT_TRUE(fileSystem.rootNode()->isExpired());
  EXPECT_EQ(fileSystem.rootNode()->modificationDate(), clock.now());
}

TEST_F(SymbolicLinks, ANewLinkAppearsWithTheNextListingAndForgetsTheVolumesAttributes) {
  list("/");
  fileSystem.attributesOfFileSystemForPath("/", nullptr);
  ASSERT_TRUE(make("/l", "x"));
  EXPECT_EQ(fileSystem._nodeForPath("/l"), nullptr);
  EXPECT_NE(fileSystem.nodeForPath("/l"), nullptr);
  EXPECT_FALSE(fileSystem.rootNode()->userPropertyForKey(kOFSFileSystemAttributes).has_value());
}

TEST_F(SymbolicLinks, WithoutAConnectionTheRefusalIsThatOfAnotherProtocol) {
  list("/");
  server.setAcquisitionFails(true);
  EXPECT_FALSE(make("/l", "x"));
  EXPECT_EQ(code(), kENODEV);
  server.setAcquisitionFails(false);
}

TEST_F(SymbolicLinks, OnSFTPARefusalIsAnInputOutputError) {
  server.fail("createSymbolicLinkAtPath", "/home/u/l", refusal(kQuarnKitItemExists));
  EXPECT_FALSE(make("/l", "x"));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(underlyingCode(), kQuarnKitItemExists);
}

TEST_F(SymbolicLinks, ARefusedLinkMarksNothing) {
  list("/");
  fileSystem.attributesOfFileSystemForPath("/", nullptr);
  clock.advance(5);
  server.fail("createSymbolicLinkAtPath", "/home/u/l", refusal());
  EXPECT_FALSE(make("/l", "x"));
  EXPECT_FALSE(fileSystem.rootNode()->isExpired());
  EXPECT_NE(fileSystem.rootNode()->modificationDate(), clock.now());
  EXPECT_TRUE(fileSystem.rootNode()->userPropertyForKey(kOFSFileSystemAttributes).has_value());
}

TEST_F(SymbolicLinks, OnOtherProtocolsARefusalMeansThatThereAreNone) {
  server.setIsSFTP(false);
  server.fail("createSymbolicLinkAtPath", "/home/u/l", refusal(kQuarnKitNotSupported));
  EXPECT_FALSE(make("/l", "x"));
  EXPECT_EQ(code(), kENODEV);
  EXPECT_EQ(underlyingCode(), kQuarnKitNotSupported);
}

TEST_F(SymbolicLinks, TheKnownTextIsThatOfTheListingAndAsksNobody) {
  server.addFile("/home/u/docs/a.txt", "a");
  server.addLink("/home/u/relative", "docs/a.txt");
  server.addLink("/home/u/absolute", "/home/u/docs/a.txt");
  EXPECT_EQ(fileSystem.knownDestinationOfSymbolicLinkAtPath("/relative"), std::nullopt);
  list("/");
  const size_t before = server.calls().size();
  EXPECT_EQ(fileSystem.knownDestinationOfSymbolicLinkAtPath("/relative"), "docs/a.txt");
  EXPECT_EQ(fileSystem.knownDestinationOfSymbolicLinkAtPath("/absolute"), "/docs/a.txt");
  EXPECT_EQ(fileSystem.knownDestinationOfSymbolicLinkAtPath("/docs"), std::nullopt);
  EXPECT_EQ(fileSystem.knownDestinationOfSymbolicLinkAtPath(std::nullopt), std::nullopt);
  EXPECT_EQ(server.calls().size(), before);
}

TEST_F(SymbolicLinks, ReadingAMissingPathIsInvalid) {
  EXPECT_EQ(fileSystem.destinationOfSymbolicLinkAtPath(std::nullopt, &error), std::nullopt);
  EXPECT_EQ(code(), kEINVAL);
  EXPECT_EQ(fileSystem.destinationOfSymbolicLinkAtPath(std::nullopt, nullptr), std::nullopt);
}

TEST_F(SymbolicLinks, ReadingAnUnknownLinkIsNoSuchItem) {
  EXPECT_EQ(readLink("/nowhere"), std::nullopt);
  EXPECT_EQ(code(), kENOENT);
}

TEST_F(SymbolicLinks, TheErrorsOfReadingArePlain) {
  list("/");
  RecordedLog log;
  {
    const TracingOn tracing;
    readLink("/nowhere");
  }
  EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(error->userInfo().count(), 0u);
  EXPECT_EQ(log.linesWith("NSPOSIXErrorDomain 2").size(), 1u);
  EXPECT_EQ(dynamic_cast<const QuarnKitError*>(error.get()), nullptr);
}

TEST_F(SymbolicLinks, ARelativeLinkIsAnsweredUnchangedAndNotCached) {
  server.addFile("/home/u/docs/a", "a");
  server.addLink("/home/u/l", "docs/../docs/a");
  EXPECT_EQ(readLink("/l"), "docs/../docs/a");
  EXPECT_EQ(cached("/l"), std::nullopt);
}

TEST_F(SymbolicLinks, WhatTheListingResolvedIsAnsweredWithoutARequest) {
  server.addFile("/home/u/docs/a", "a");
  server.addLink("/home/u/l", "/home/u/docs/a");
  list("/");
  server.clearCalls();
  EXPECT_EQ(readLink("/l"), "/docs/a");
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

// A link that the listing could not resolve is resolved when it is read.
class UnresolvedLink : public SymbolicLinks {
 protected:
  void list(std::string target) {
    server.addLink("/home/u/l", std::move(target));
    server.fail("resolvePath", "/home/u/l", refusal());
    ASSERT_NE(fileSystem.nodeForPath("/l"), nullptr);
    server.clearCalls();
  }
};

TEST_F(UnresolvedLink, AnAbsoluteLinkToAnExistingItemIsAnsweredLocallyAndCached) {
  server.addFile("/home/u/docs/a", "a");
  list("/home/u/docs/a");
  EXPECT_EQ(readLink("/l"), "/docs/a");
  EXPECT_EQ(cached("/l"), "/docs/a");
  server.clearCalls();
  EXPECT_EQ(readLink("/l"), "/docs/a");
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(UnresolvedLink, AMissingTargetIsTheServersPathOnceAndTheLinksTextFromThenOn) {
  list("/home/u/docs/../gone");
  server.setResolvePathHandler([](std::string_view, std::string* resolved, bool* isDirectory, NSErrorRef*) {
    *resolved = "/home/u/gone";
    *isDirectory = false;
    return true;
  });
  EXPECT_EQ(readLink("/l"), "/home/u/gone");
  EXPECT_EQ(readLink("/l"), "/home/u/docs/../gone");
  EXPECT_EQ(cached("/l"), "/home/u/docs/../gone");
}

TEST_F(UnresolvedLink, WithoutAConnectionNothingIsAnsweredNorRemembered) {
  server.addFile("/home/u/docs/a", "a");
  list("/home/u/docs/a");
  server.setAcquisitionFails(true);
  EXPECT_EQ(readLink("/l"), std::nullopt);
  EXPECT_EQ(error, nullptr);
  server.setAcquisitionFails(false);
  EXPECT_EQ(readLink("/l"), "/docs/a");
}

TEST_F(UnresolvedLink, AFailedResolutionAnswersNothingWithoutAnError) {
  list("/home/u/docs/a");
  server.fail("resolvePath", "/home/u/l", refusal());
  EXPECT_EQ(readLink("/l"), std::nullopt);
  EXPECT_EQ(error, nullptr);
}

TEST_F(SymbolicLinks, ReadingAnotherKindOfItemFailsAConditionAndGoesOn) {
  server.addFile("/home/u/a", "a");
  RecordedLog log;
  EXPECT_EQ(readLink("/a"), std::nullopt);
  EXPECT_THAT(log.lines(), Contains("CONDITION FAILED: node not an alias"));
  EXPECT_EQ(error, nullptr);
}

TEST_F(SymbolicLinks, ReadingTakesNoConnectionForACachedAnswer) {
  server.addLink("/home/u/l", "b");
  list("/");
  server.clearCalls();
  readLink("/l");
  EXPECT_EQ(server.acquireCount(), server.releaseCount());
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

}  // namespace
}  // namespace ombra
