// Names, paths in normal form, attributes, and the login itself.
#include "remote/sftp/SFTPProtocol.h"
#include "tests/sftp/SessionFixture.h"

namespace ombra::test {
namespace {

class SFTPNames : public SessionFixture {
 protected:
  std::string realPath(std::string_view path, std::string_view base = "") {
    bool isDirectory = false;
    const auto result = session->realPath(path, base, &isDirectory, &error);
    return result ? *result + (isDirectory ? "/" : "") : "error " + std::to_string(codeOf(error));
  }
};

TEST_F(SFTPNames, LoginPathIsWhereTheServerPutsTheLogin) {
  logIn();
  EXPECT_EQ("/home/user", session->loginPath());
  EXPECT_TRUE(session->isAlive());
}

TEST_F(SFTPNames, LimitsOfTheServerAreUsed) {
  server.readLength = 1000;
  server.addFile("/f", pattern(5000));
  logIn();
  const auto local = makeLocalFile(NSFileHandle::Kind::kScratch);
  ASSERT_TRUE(session->download("/f", *local, 0, nullptr, control, &error));
  EXPECT_GE(peer->countOf(kSFTPRead), 5u);
  EXPECT_EQ(pattern(5000), readLocalFile(*local));
}

TEST_F(SFTPNames, ALimitsRequestThatIsRefusedDoesNoHarm) {
  server.refusals[kSFTPExtended] = {kSFTPStatusOpUnsupported, 0};
  logIn();
  EXPECT_EQ("/home/user", session->loginPath());
}

TEST_F(SFTPNames, RealPathsAreAbsoluteResolvedAndTidy) {
  server.addFolder("/d");
  server.addFile("/d/file", "");
  server.addLink("/link", "d");
  logIn();
  EXPECT_EQ("/d/", realPath("/d/"));
  EXPECT_EQ("/d/", realPath("//d/./../d"));
  EXPECT_EQ("/d/file", realPath("file", "/d"));
  EXPECT_EQ("/home/user/", realPath("."));
  EXPECT_EQ("/d/", realPath("/link"));
  EXPECT_EQ("//", realPath("/"));
  EXPECT_EQ("error 14", realPath("/d/missing"));
}

TEST_F(SFTPNames, HomesAreExpandedByTheServer) {
  server.addFolder("/home/other");
  logIn();
  EXPECT_EQ("/home/user/", realPath("~"));
  EXPECT_EQ("/home/other/", realPath("~other", "/d"));
  EXPECT_EQ("error 14", realPath("~/missing"));
}

TEST_F(SFTPNames, WithoutTheExtensionTheHomeIsTheLoginFolder) {
  server.extensions.clear();
  server.addFolder("/home/user/sub");
  logIn();
  EXPECT_EQ("/home/user/", realPath("~"));
  EXPECT_EQ("/home/user/sub/", realPath("~/sub"));
  EXPECT_EQ("error 14", realPath("~other"));
}

TEST_F(SFTPNames, FileNamesAreBytes) {
  const std::string name = "/na\xffme \xc3\xa9\xe2\x80\x8b\n\"";
  logIn();
  ASSERT_TRUE(session->createFolder(name, &error));
  EXPECT_NE(nullptr, server.item(name));
  std::vector<RemoteEntry> entries;
  ASSERT_TRUE(session->list("/", &entries, &error));
  EXPECT_TRUE(std::any_of(entries.begin(), entries.end(),
                          [&](const RemoteEntry& entry) { return entry.name == name.substr(1); }));
}

TEST_F(SFTPNames, NamesThatCannotBeSentAreRefusedHere) {
  logIn();
  const size_t before = peer->requests().size();
  for (const std::string& path : {std::string(), std::string("/a\0b", 4), std::string(20000, 'x')}) {
    EXPECT_FALSE(session->createFolder(path, &error));
    EXPECT_EQ(kQuarnKitNameInvalid, codeOf(error));
    EXPECT_FALSE(session->remove(path, false, &error));
    EXPECT_FALSE(session->move("/a", false, path, &error));
    EXPECT_FALSE(session->createSymbolicLink("/a", path, &error));
    EXPECT_FALSE(session->attributes(path, nullptr, &error));
  }
  EXPECT_EQ(before, peer->requests().size());
}

TEST_F(SFTPNames, CreatingWhatIsThereSaysSo) {
  server.addFile("/f", "");
  logIn();
  EXPECT_FALSE(session->createFolder("/f", &error));
  EXPECT_EQ(kQuarnKitItemExists, codeOf(error));
  EXPECT_FALSE(session->createSymbolicLink("/f", "x", &error));
  EXPECT_EQ(kQuarnKitItemExists, codeOf(error));
}

TEST_F(SFTPNames, ARefusalThatIsNotExplainedByWhatIsThereStaysARefusal) {
  server.refusals[kSFTPMkdir] = {kSFTPStatusFailure, 0};
  logIn();
  EXPECT_FALSE(session->createFolder("/new", &error));
  EXPECT_EQ(kQuarnKitRefused, codeOf(error));
}

TEST_F(SFTPNames, ALinksTextIsStoredUnchanged) {
  logIn();
  ASSERT_TRUE(session->createSymbolicLink("/link", "../x//y/", &error));
  EXPECT_EQ("../x//y/", server.content("/link"));
}

TEST_F(SFTPNames, AMoveReplacesTheDestinationAtOnceWhereTheServerCan) {
  server.addFile("/a", "new");
  server.addFile("/b", "old");
  logIn();
  ASSERT_TRUE(session->move("/a", false, "/b", &error));
  EXPECT_EQ("new", server.content("/b"));
  EXPECT_EQ(0u, peer->countOf(kSFTPRename));
}

TEST_F(SFTPNames, AMoveOntoSomethingSaysSoWhereTheServerCannotReplace) {
  server.extensions.clear();
  server.addFile("/a", "new");
  server.addFile("/b", "old");
  logIn();
  EXPECT_FALSE(session->move("/a", false, "/b", &error));
  EXPECT_EQ(kQuarnKitItemExists, codeOf(error));
  EXPECT_TRUE(session->move("/a", false, "/c", &error));
  EXPECT_FALSE(session->move("/a", false, "/d", &error));
  EXPECT_EQ(kQuarnKitNoSuchItem, codeOf(error));
}

TEST_F(SFTPNames, AMoveOntoAFullFolderSaysSo) {
  server.addFolder("/a");
  server.addFolder("/b");
  server.addFile("/b/f", "");
  logIn();
  EXPECT_FALSE(session->move("/a", true, "/b", &error));
  EXPECT_EQ(kQuarnKitFolderNotEmpty, codeOf(error));
}

// A gateway may copy the whole file for it.
TEST_F(SFTPNames, AMoveMayTakeLongerThanTheLimitOfSilence) {
  server.addFile("/from", "abc");
  idleLimit = std::chrono::milliseconds(200);
  logIn();
  server.batch = SIZE_MAX;
  // After more than twice the limit.
  int waits = 0;
  peer->setWhenIdle([&](PeerTransport& to) {
    if (++waits > 5) server.flush(to);
  });
  EXPECT_TRUE(session->move("/from", false, "/to", &error)) << error->description();
  EXPECT_NE(nullptr, server.item("/to"));
  // Other calls have the common limit again.
  waits = 0;
  EXPECT_FALSE(session->remove("/to", false, &error));
  EXPECT_EQ(kQuarnKitTimedOut, codeOf(error));
}

TEST_F(SFTPNames, AMoveThatIsNeverAnsweredEnds) {
  server.addFile("/from", "abc");
  idleLimit = std::chrono::milliseconds(200);
  logIn();
  server.batch = SIZE_MAX;
  peer->setWhenIdle([](PeerTransport&) {});
  EXPECT_FALSE(session->move("/from", false, "/to", &error));
  EXPECT_EQ(kQuarnKitTimedOut, codeOf(error));
}

TEST_F(SFTPNames, RemovalTellsWhatStandsInItsWay) {
  server.addFolder("/d");
  server.addFile("/d/f", "");
  server.addLink("/link", "d");
  logIn();
  EXPECT_FALSE(session->remove("/d", true, &error));
  EXPECT_EQ(kQuarnKitFolderNotEmpty, codeOf(error));
  EXPECT_FALSE(session->remove("/missing", false, &error));
  EXPECT_EQ(kQuarnKitNoSuchItem, codeOf(error));
  EXPECT_TRUE(session->remove("/link", false, &error));
  EXPECT_NE(nullptr, server.item("/d")) << "a link is removed, not what it leads to";
  EXPECT_TRUE(session->remove("/d/f", false, &error));
  EXPECT_TRUE(session->remove("/d", true, &error));
}

TEST_F(SFTPNames, AttributesFollowLinks) {
  server.addFile("/f", "abc", 99);
  server.addLink("/link", "f");
  logIn();
  bool isDirectory = true;
  const auto attributes = session->attributes("/link", &isDirectory, &error);
  ASSERT_TRUE(attributes);
  EXPECT_EQ(3u, attributes->fileSize);
  EXPECT_FALSE(isDirectory);
  EXPECT_FALSE(session->attributes("/missing", nullptr, &error));
  EXPECT_EQ(kQuarnKitNoSuchItem, codeOf(error));
}

TEST_F(SFTPNames, TheVolumesSizesAreBytes) {
  server.freeBytes = 512 * 300;
  logIn();
  const auto attributes = session->fileSystemAttributes("/", &error);
  ASSERT_TRUE(attributes);
  EXPECT_EQ(512u * 1000, attributes->systemSize);
  EXPECT_EQ(512u * 300, attributes->systemFreeSize);
}

TEST_F(SFTPNames, WithoutTheExtensionTheVolumeIsUnknown) {
  server.extensions.clear();
  logIn();
  EXPECT_FALSE(session->fileSystemAttributes("/", &error));
  EXPECT_EQ(kQuarnKitNotSupported, codeOf(error));
}

// A change that cannot be made there is forgiven by whoever copies; a disk that takes no change is not.
TEST_F(SFTPNames, AChangeOnAReadOnlyVolumeIsRefusedAndNotJustUnsupported) {
  server.addFile("/f", "abc");
  server.refusals[kSFTPSetstat] = {kSFTPStatusFailure, 0};
  logIn();
  NSFileAttributes wanted;
  wanted.posixPermissions = 0600;
  EXPECT_FALSE(session->changeAttributes(wanted, "/f", &error));
  EXPECT_EQ(kQuarnKitAttributeChangeNotSupported, codeOf(error));
  server.isReadOnly = true;
  error = nullptr;
  EXPECT_FALSE(session->changeAttributes(wanted, "/f", &error));
  EXPECT_EQ(kQuarnKitReadOnly, codeOf(error));
}

TEST_F(SFTPNames, ModeAndDateAreSetInOneRequest) {
  server.addFile("/f", "abc");
  logIn();
  NSFileAttributes wanted;
  wanted.posixPermissions = 0100600;
  wanted.modificationDate = NSDate::dateWithNanoseconds(1234999999999);
  wanted.fileSize = 1;  // no attribute that is set this way
  const size_t before = peer->requests().size();
  ASSERT_TRUE(session->changeAttributes(wanted, "/f", &error));
  EXPECT_EQ(before + 1, peer->requests().size());
  EXPECT_EQ(0100600u, server.item("/f")->mode);
  EXPECT_EQ(1234u, server.item("/f")->date);
  EXPECT_EQ("abc", server.content("/f"));
}

TEST_F(SFTPNames, NothingToChangeAsksNothing) {
  logIn();
  const size_t before = peer->requests().size();
  NSFileAttributes nothing;
  nothing.fileSize = 5;
  EXPECT_TRUE(session->changeAttributes(nothing, "/missing", &error));
  EXPECT_EQ(before, peer->requests().size());
}

// Servers apply the mode before the owner, and a change of owner takes the set-ID bits away.
TEST_F(SFTPNames, OwnerAndModeTogetherBothHold) {
  server.addFile("/f", "");
  logIn();
  NSFileAttributes wanted;
  wanted.ownerAccountID = 7;
  wanted.groupOwnerAccountID = 8;
  wanted.posixPermissions = 06755;
  wanted.modificationDate = NSDate::dateWithTimeIntervalSince1970(4242);
  server.batch = SIZE_MAX;
  const size_t before = peer->waits();
  ASSERT_TRUE(session->changeAttributes(wanted, "/f", &error)) << error->description();
  EXPECT_EQ(1u, peer->waits() - before) << "the requests need not wait for each other";
  EXPECT_EQ(0106755u, server.item("/f")->mode);
  EXPECT_EQ(7u, server.item("/f")->owner);
  EXPECT_EQ(8u, server.item("/f")->group);
  EXPECT_EQ(4242u, server.item("/f")->date);
}

TEST_F(SFTPNames, ARefusedOwnerIsToldAlsoWhenTheModeIsSet) {
  server.addFile("/f", "");
  server.refuseOwner = true;
  logIn();
  NSFileAttributes wanted;
  wanted.ownerAccountID = 7;
  wanted.groupOwnerAccountID = 8;
  wanted.posixPermissions = 0600;
  EXPECT_FALSE(session->changeAttributes(wanted, "/f", &error));
  EXPECT_EQ(kQuarnKitPermissionDenied, codeOf(error));
}

TEST_F(SFTPNames, ACreationDateAloneCannotBeSet) {
  server.addFile("/f", "");
  logIn();
  NSFileAttributes wanted;
  wanted.creationDate = NSDate::dateWithTimeIntervalSince1970(4242);
  EXPECT_FALSE(session->changeAttributes(wanted, "/f", &error));
  EXPECT_EQ(kQuarnKitAttributeChangeNotSupported, codeOf(error));
  // Beside others it does not keep them from being set.
  wanted.posixPermissions = 0600;
  error = nullptr;
  EXPECT_TRUE(session->changeAttributes(wanted, "/f", &error));
  EXPECT_EQ(0100600u, server.item("/f")->mode);
}

TEST_F(SFTPNames, AnOwnerAloneKeepsTheGroup) {
  server.addFile("/f", "");
  logIn();
  NSFileAttributes wanted;
  wanted.ownerAccountID = 7;
  ASSERT_TRUE(session->changeAttributes(wanted, "/f", &error));
  const PeerRequest& last = peer->requests().back();
  EXPECT_EQ(hex(str("/f") + u32(kSFTPAttributeOwner) + u32(7) + u32(20)), hex(last.body));
}

TEST_F(SFTPNames, WhatTheServerCannotChangeIsCode17) {
  server.addFile("/f", "");
  server.refusals[kSFTPSetstat] = {kSFTPStatusFailure, 0};
  logIn();
  NSFileAttributes wanted;
  wanted.posixPermissions = 0600;
  EXPECT_FALSE(session->changeAttributes(wanted, "/f", &error));
  EXPECT_EQ(kQuarnKitAttributeChangeNotSupported, codeOf(error));
  wanted.modificationDate = NSDate::dateWithTimeIntervalSince1970(-1);
  EXPECT_FALSE(session->changeAttributes(wanted, "/f", &error));
  EXPECT_EQ(kQuarnKitAttributeChangeNotSupported, codeOf(error)) << "the protocol has no such date";
  wanted.modificationDate = NSDate::dateWithTimeIntervalSince1970(5e9);
  EXPECT_FALSE(session->changeAttributes(wanted, "/f", &error));
  EXPECT_EQ(kQuarnKitAttributeChangeNotSupported, codeOf(error));
}

TEST_F(SFTPNames, TheDateOfALinkIntoNowhereIsSetOnTheLink) {
  server.addLink("/link", "nothing");
  logIn();
  NSFileAttributes wanted;
  wanted.modificationDate = NSDate::dateWithTimeIntervalSince1970(4242);
  ASSERT_TRUE(session->changeAttributes(wanted, "/link", &error)) << error->description();
  EXPECT_EQ(4242u, server.item("/link")->date);
}

}  // namespace
}  // namespace ombra::test
