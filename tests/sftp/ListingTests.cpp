// Listing folders, and where the links in them lead.
#include "remote/sftp/SFTPProtocol.h"
#include "tests/sftp/SessionFixture.h"

namespace ombra::test {
namespace {

class SFTPListing : public SessionFixture {
 protected:
  std::vector<RemoteEntry> list(const std::string& path) {
    std::vector<RemoteEntry> entries;
    EXPECT_TRUE(session->list(path, &entries, &error)) << error->description();
    return entries;
  }
  RemoteEntry entryNamed(const std::vector<RemoteEntry>& entries, const std::string& name) {
    for (const RemoteEntry& entry : entries) {
      if (entry.name == name) return entry;
    }
    ADD_FAILURE() << name << " is not listed";
    return {};
  }
};

TEST_F(SFTPListing, HasTypesAndAttributesInTheServersOrder) {
  server.addFolder("/d");
  server.addFile("/d/a", "12345", 77);
  server.addFolder("/d/b");
  server.addLink("/d/c", "a");
  logIn();
  const auto entries = list("/d");
  ASSERT_EQ(3u, entries.size());
  EXPECT_EQ("a", entries[0].name);
  EXPECT_EQ(kNodeTypeFile, entries[0].type);
  EXPECT_EQ(5u, entries[0].attributes.fileSize);
  EXPECT_EQ(0644, entries[0].attributes.posixPermissions);
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(77), entries[0].attributes.modificationDate);
  EXPECT_EQ(kNodeTypeFolder, entries[1].type);
  EXPECT_EQ(kNodeTypeAlias, entries[2].type);
  EXPECT_FALSE(entries[0].targetPath.has_value());
  EXPECT_FALSE(entries[0].resolution.has_value());
}

TEST_F(SFTPListing, IsCompleteHoweverRepliesAreCutOrOrdered) {
  server.addFolder("/d");
  for (int i = 0; i < 250; ++i) server.addFile("/d/file" + std::to_string(1000 + i), "x");
  server.addLink("/d/link", "file1000");
  server.namesPerReply = 7;
  for (const size_t cut : {size_t{1}, size_t{2}, size_t{3}, size_t{5}, size_t{1000}}) {
    server.batch = 1;
    logIn(cut);
    EXPECT_EQ(251u, list("/d").size()) << cut;
    TearDown();
  }
  logIn();
  server.batch = 5;
  const auto entries = list("/d");
  ASSERT_EQ(251u, entries.size());
  EXPECT_EQ("file1000", entries.front().name);
  EXPECT_EQ("link", entries.back().name);
}

TEST_F(SFTPListing, KeepsSeveralRequestsInFlightOnOneHandle) {
  server.addFolder("/d");
  for (int i = 0; i < 2000; ++i) server.addFile("/d/" + std::to_string(i), "");
  server.namesPerReply = 10;
  logIn();
  // Answers only when the client can do nothing more: each wait is a round trip.
  server.batch = SIZE_MAX;
  const size_t before = peer->waits();
  EXPECT_EQ(2000u, list("/d").size());
  EXPECT_LT(peer->waits() - before, 40u) << "200 replies were fetched nearly one by one";
}

TEST_F(SFTPListing, OfASmallFolderWithLinksTakesThreeRoundTrips) {
  server.addFolder("/d");
  for (int i = 0; i < 20; ++i) server.addLink("/d/l" + std::to_string(i), "/home");
  logIn();
  server.batch = SIZE_MAX;
  const size_t before = peer->waits();
  EXPECT_EQ(20u, list("/d").size());
  EXPECT_EQ(3u, peer->waits() - before);
}

TEST_F(SFTPListing, TellsWhereLinksLead) {
  server.addFolder("/d");
  server.addFolder("/d/sub");
  server.addFile("/d/sub/file", "abc");
  server.addLink("/d/toFile", "sub/file");
  server.addLink("/d/toFolder", "../d/sub/");
  server.addLink("/d/absolute", "/home/user");
  server.addLink("/d/chain", "toFile");
  logIn();
  const auto entries = list("/d");
  const RemoteEntry toFile = entryNamed(entries, "toFile");
  ASSERT_TRUE(toFile.resolution);
  EXPECT_EQ("sub/file", toFile.targetPath);
  EXPECT_TRUE(toFile.resolution->resolved);
  EXPECT_TRUE(toFile.resolution->exists);
  EXPECT_FALSE(toFile.resolution->isDirectory);
  EXPECT_EQ("/d/sub/file", toFile.resolution->resolvedPath);
  ASSERT_TRUE(toFile.resolution->attributes);
  EXPECT_EQ(3u, toFile.resolution->attributes->fileSize);
  const RemoteEntry toFolder = entryNamed(entries, "toFolder");
  EXPECT_EQ("../d/sub/", toFolder.targetPath) << "a link's text is not to be tidied up";
  EXPECT_EQ("/d/sub", toFolder.resolution->resolvedPath);
  EXPECT_TRUE(toFolder.resolution->isDirectory);
  EXPECT_EQ("/home/user", entryNamed(entries, "absolute").resolution->resolvedPath);
  EXPECT_EQ("/d/sub/file", entryNamed(entries, "chain").resolution->resolvedPath);
}

TEST_F(SFTPListing, TellsCirclesFromLinksIntoNowhere) {
  server.addFolder("/d");
  server.addLink("/d/self", "self");
  server.addLink("/d/one", "two");
  server.addLink("/d/two", "one");
  server.addLink("/d/gone", "nothing");
  server.addLink("/d/farGone", "no/such/way/../x");
  logIn();
  const auto entries = list("/d");
  for (const char* name : {"self", "one", "two"}) {
    const RemoteEntry entry = entryNamed(entries, name);
    ASSERT_TRUE(entry.resolution) << name;
    EXPECT_FALSE(entry.resolution->resolved) << name;
    EXPECT_TRUE(entry.targetPath.has_value()) << name;
  }
  const RemoteEntry gone = entryNamed(entries, "gone");
  ASSERT_TRUE(gone.resolution);
  EXPECT_TRUE(gone.resolution->resolved);
  EXPECT_FALSE(gone.resolution->exists);
  EXPECT_FALSE(gone.resolution->isDirectory);
  EXPECT_EQ("/d/nothing", gone.resolution->resolvedPath);
  EXPECT_FALSE(gone.resolution->attributes);
  EXPECT_EQ("/d/no/such/x", entryNamed(entries, "farGone").resolution->resolvedPath);
}

TEST_F(SFTPListing, FollowsLinksItselfWhereTheServerOnlyTidiesPathsUp) {
  server.resolvesLexically = true;
  server.addFolder("/d");
  server.addFile("/d/file", "abc");
  server.addLink("/d/link", "../d/file");
  server.addLink("/d/gone", "nothing");
  server.addLink("/d/self", "self");
  logIn();
  const auto entries = list("/d");
  EXPECT_EQ("/d/file", entryNamed(entries, "link").resolution->resolvedPath);
  EXPECT_TRUE(entryNamed(entries, "link").resolution->exists);
  EXPECT_EQ("/d/nothing", entryNamed(entries, "gone").resolution->resolvedPath);
  EXPECT_FALSE(entryNamed(entries, "self").resolution->resolved);
}

TEST_F(SFTPListing, FollowsChainsToTheirEndWhereTheServerOnlyTidiesPathsUp) {
  server.resolvesLexically = true;
  server.addFolder("/d");
  server.addFolder("/other");
  server.addFolder("/srv");
  server.addFile("/srv/file", "abc");
  server.addLink("/other/second", "../srv/file");
  server.addLink("/d/chain", "../other/second");
  server.addLink("/d/folder", "../other/toFolder");
  server.addLink("/other/toFolder", "/srv");
  logIn();
  const auto entries = list("/d");
  const RemoteEntry chain = entryNamed(entries, "chain");
  EXPECT_EQ("../other/second", chain.targetPath);
  ASSERT_TRUE(chain.resolution);
  EXPECT_EQ("/srv/file", chain.resolution->resolvedPath);
  EXPECT_TRUE(chain.resolution->isFinal);
  EXPECT_TRUE(chain.resolution->exists);
  ASSERT_TRUE(chain.resolution->attributes);
  EXPECT_EQ(3u, chain.resolution->attributes->fileSize);
  const RemoteEntry folder = entryNamed(entries, "folder");
  ASSERT_TRUE(folder.resolution);
  EXPECT_EQ("/srv", folder.resolution->resolvedPath);
  EXPECT_TRUE(folder.resolution->isDirectory);
}

TEST_F(SFTPListing, FollowsChainsOfManyLinksTogether) {
  server.resolvesLexically = true;
  server.addFolder("/d");
  server.addFolder("/other");
  for (int i = 0; i < 20; ++i) {
    server.addLink("/d/l" + std::to_string(i), "../other/l" + std::to_string(i));
    server.addLink("/other/l" + std::to_string(i), "/home");
  }
  logIn();
  server.batch = SIZE_MAX;
  const size_t before = peer->waits();
  const auto entries = list("/d");
  // Opening, reading, and one per step of the longest chain.
  EXPECT_EQ(5u, peer->waits() - before);
  for (const RemoteEntry& entry : entries) EXPECT_EQ("/home", entry.resolution->resolvedPath) << entry.name;
}

TEST_F(SFTPListing, LeavesHostileNamesToThePoolAndAsksNothingAboutThem) {
  logIn();
  const std::string hostile =
      packet(std::string(1, kSFTPName) + u32(9) + u32(3) + str("..") + str("") + attrs(0040755, 0) +
             str("../../etc/passwd") + str("") + attrs(0120777, 0) + str(std::string_view("a\0b", 3)) +
             str("") + attrs(0120777, 0));
  PeerTransport* transport = nullptr;
  auto owned = std::make_unique<PeerTransport>([&](const PeerRequest& request, PeerTransport& to) {
    if (request.type == kSFTPInit) to.send(versionReply());
    if (request.type == kSFTPRealpath) to.send(nameReply(request.id, "/"));
    if (request.type == kSFTPOpendir) to.send(handleReply(request.id, "h"));
    if (request.type == kSFTPReaddir && to.countOf(kSFTPReaddir) == 1) {
      std::string reply = hostile;
      reply.replace(5, 4, u32(request.id));
      to.send(reply);
    } else if (request.type == kSFTPReaddir) {
      to.send(statusReply(request.id, kSFTPStatusEOF));
    }
  });
  transport = owned.get();
  SessionEnvironment environment;
  environment.transcript = transcript;
  SFTPSession other(std::move(owned), environment);
  ASSERT_TRUE(other.logIn(&error));
  std::vector<RemoteEntry> entries;
  ASSERT_TRUE(other.list("/d", &entries, &error));
  EXPECT_EQ(3u, entries.size());
  EXPECT_EQ(0u, transport->countOf(kSFTPReadlink)) << "a name with a slash would be asked for elsewhere";
}

// A folder with one link, on a server that says whatever it likes about it.
class SFTPHostileLinks : public SessionFixture {
 protected:
  // `name` and `text` of the link, and of every item that is asked about on the way; `exists`: the server
  // says that it leads to something.
  RemoteEntry listLink(const std::string& name, const std::string& text, bool exists) {
    auto owned = std::make_unique<PeerTransport>([=](const PeerRequest& request, PeerTransport& to) {
      const std::string gone = statusReply(request.id, kSFTPStatusNoSuchFile);
      if (request.type == kSFTPInit) to.send(versionReply());
      if (request.type == kSFTPRealpath)
        to.send(to.requests().size() < 3 ? nameReply(request.id, "/") : gone);
      if (request.type == kSFTPOpendir) to.send(handleReply(request.id, "h"));
      if (request.type == kSFTPClose) to.send(statusReply(request.id, kSFTPStatusOK));
      if (request.type == kSFTPReadlink) to.send(nameReply(request.id, text));
      if (request.type == kSFTPStat) to.send(exists ? attrsReply(request.id, attrs(0100644, 3)) : gone);
      if (request.type == kSFTPLstat) to.send(gone);
      if (request.type != kSFTPReaddir) return;
      const bool isFirst = to.countOf(kSFTPReaddir) == 1;
      const std::string link = str(name) + str("") + attrs(0120777, 0);
      to.send(isFirst ? packet(std::string(1, kSFTPName) + u32(request.id) + u32(1) + link)
                      : statusReply(request.id, kSFTPStatusEOF));
    });
    PeerTransport* const transport = owned.get();
    SessionEnvironment environment;
    environment.transcript = transcript;
    SFTPSession other(std::move(owned), environment);
    EXPECT_TRUE(other.logIn(&error));
    std::vector<RemoteEntry> entries;
    EXPECT_TRUE(other.list("/d", &entries, &error)) << error->description();
    for (const PeerRequest& request : transport->requests()) {
      longest = std::max(longest, request.body.size());
    }
    return entries.empty() ? RemoteEntry() : entries.front();
  }
  size_t longest = 0;  // request
  const size_t longestAllowed = 16 * 1024 + 4;
};

TEST_F(SFTPHostileLinks, AChainWhosePathGrowsLeadsNowhere) {
  const RemoteEntry entry = listLink("l", std::string(6000, 'x') + "/l", true);
  ASSERT_TRUE(entry.resolution);
  EXPECT_FALSE(entry.resolution->resolved);
  EXPECT_GT(longest, 12000u) << "as long as it can be a path it is followed";
  EXPECT_LE(longest, longestAllowed);
}

TEST_F(SFTPHostileLinks, AWalkWhosePathGrowsLeadsNowhere) {
  for (const std::string& text : {std::string(6000, 'x') + "/l", std::string(20000, 'x')}) {
    const RemoteEntry entry = listLink("l", text, false);
    ASSERT_TRUE(entry.resolution);
    EXPECT_FALSE(entry.resolution->resolved);
    EXPECT_LE(longest, longestAllowed);
  }
}

TEST_F(SFTPHostileLinks, ANameThatIsTooLongForAPathIsNotAskedAbout) {
  const RemoteEntry entry = listLink(std::string(20000, 'n'), "target", true);
  EXPECT_EQ(20000u, entry.name.size());
  EXPECT_FALSE(entry.resolution);
  EXPECT_LE(longest, longestAllowed);
}

TEST_F(SFTPListing, TellsTypesByTheLongNameWhereAttributesHaveNoMode) {
  auto owned = std::make_unique<PeerTransport>([&](const PeerRequest& request, PeerTransport& to) {
    if (request.type == kSFTPInit) to.send(versionReply());
    if (request.type == kSFTPRealpath) to.send(nameReply(request.id, "/"));
    if (request.type == kSFTPOpendir) to.send(handleReply(request.id, "h"));
    if (request.type == kSFTPReaddir && to.countOf(kSFTPReaddir) == 1) {
      to.send(packet(std::string(1, kSFTPName) + u32(request.id) + u32(2) + str("sub") +
                     str("drwxr-xr-x 2 a b sub") + u32(0) + str("file") + str("-rw-r--r-- 1 a b file") +
                     u32(0)));
    } else if (request.type == kSFTPReaddir) {
      to.send(statusReply(request.id, kSFTPStatusEOF));
    }
  });
  SessionEnvironment environment;
  environment.transcript = transcript;
  SFTPSession other(std::move(owned), environment);
  ASSERT_TRUE(other.logIn(&error));
  std::vector<RemoteEntry> entries;
  ASSERT_TRUE(other.list("/d", &entries, &error));
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ(kNodeTypeFolder, entries[0].type);
  EXPECT_EQ(NSFileTypeValue::NSFileTypeDirectory, entries[0].attributes.fileType);
  EXPECT_EQ(kNodeTypeFile, entries[1].type);
}

// A mode without type bits, which the protocol does not promise, says nothing of the type.
TEST_F(SFTPListing, TellsTypesByTheLongNameWhereModesHaveNoType) {
  auto owned = std::make_unique<PeerTransport>([&](const PeerRequest& request, PeerTransport& to) {
    if (request.type == kSFTPInit) to.send(versionReply());
    if (request.type == kSFTPRealpath) to.send(nameReply(request.id, "/"));
    if (request.type == kSFTPOpendir) to.send(handleReply(request.id, "h"));
    if (request.type == kSFTPReaddir && to.countOf(kSFTPReaddir) == 1) {
      to.send(packet(std::string(1, kSFTPName) + u32(request.id) + u32(2) + str("sub") +
                     str("drwxr-xr-x 2 a b sub") + attrs(0755, 0) + str("file") +
                     str("-rw-r--r-- 1 a b file") + attrs(0644, 3)));
    } else if (request.type == kSFTPReaddir) {
      to.send(statusReply(request.id, kSFTPStatusEOF));
    }
  });
  SessionEnvironment environment;
  environment.transcript = transcript;
  SFTPSession other(std::move(owned), environment);
  ASSERT_TRUE(other.logIn(&error));
  std::vector<RemoteEntry> entries;
  ASSERT_TRUE(other.list("/d", &entries, &error));
  ASSERT_EQ(2u, entries.size());
  EXPECT_EQ(kNodeTypeFolder, entries[0].type);
  EXPECT_EQ(NSFileTypeValue::NSFileTypeDirectory, entries[0].attributes.fileType);
  EXPECT_EQ(0755, entries[0].attributes.posixPermissions);
  EXPECT_EQ(kNodeTypeFile, entries[1].type);
}

// As an end is told by servers that do not say "end of file".
TEST_F(SFTPListing, EndsWithAnEmptyReply) {
  auto owned = std::make_unique<PeerTransport>([&](const PeerRequest& request, PeerTransport& to) {
    if (request.type == kSFTPInit) to.send(versionReply());
    if (request.type == kSFTPRealpath) to.send(nameReply(request.id, "/"));
    if (request.type == kSFTPOpendir) to.send(handleReply(request.id, "h"));
    if (request.type == kSFTPReaddir && to.countOf(kSFTPReaddir) == 1) {
      to.send(packet(std::string(1, kSFTPName) + u32(request.id) + u32(1) + str("file") + str("") +
                     attrs(0100644, 3)));
    } else if (request.type == kSFTPReaddir) {
      to.send(packet(std::string(1, kSFTPName) + u32(request.id) + u32(0)));
    }
    if (to.countOf(kSFTPReaddir) > 1000) to.hangUp();
  });
  SessionEnvironment environment;
  environment.transcript = transcript;
  SFTPSession other(std::move(owned), environment);
  ASSERT_TRUE(other.logIn(&error));
  std::vector<RemoteEntry> entries;
  ASSERT_TRUE(other.list("/d", &entries, &error)) << "the server was asked on and on";
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ("file", entries[0].name);
}

// An open folder cannot be removed or renamed on some servers.
TEST_F(SFTPListing, LeavesNoFolderOpen) {
  server.addFolder("/d");
  server.addFile("/d/file", "");
  logIn();
  list("/d");
  EXPECT_EQ(0u, server.openHandles());
  server.refusals[kSFTPReaddir] = {kSFTPStatusPermissionDenied, 0};
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(session->list("/d", &entries, &error));
  EXPECT_EQ(0u, server.openHandles()) << "after a failure";
}

TEST_F(SFTPListing, FailsWithTheCodesThatTheProgramTests) {
  server.addFolder("/secret");
  server.forbidden.insert("/secret");
  server.addFile("/file", "");
  logIn();
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(session->list("/secret", &entries, &error));
  EXPECT_EQ(kQuarnKitListingNotPermitted, codeOf(error));
  EXPECT_FALSE(session->list("/missing", &entries, &error));
  EXPECT_EQ(kQuarnKitNoSuchItem, codeOf(error));
  EXPECT_FALSE(session->list("/file", &entries, &error));
  EXPECT_EQ(kQuarnKitNotAFolder, codeOf(error));
  EXPECT_FALSE(session->list(std::string_view("/a\0b", 4), &entries, &error));
  EXPECT_EQ(kQuarnKitNameInvalid, codeOf(error));
}

TEST_F(SFTPListing, ThatBreaksOffInTheMiddleIsAFailure) {
  server.addFolder("/d");
  for (int i = 0; i < 100; ++i) server.addFile("/d/" + std::to_string(i), "");
  server.namesPerReply = 10;
  server.refusals[kSFTPReaddir] = {kSFTPStatusPermissionDenied, 4};
  logIn();
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(session->list("/d", &entries, &error));
  EXPECT_EQ(kQuarnKitListingNotPermitted, codeOf(error));
}

TEST_F(SFTPListing, OfAnEmptyFolderIsEmpty) {
  server.addFolder("/d");
  logIn();
  std::vector<RemoteEntry> entries(3);
  EXPECT_TRUE(session->list("/d", &entries, &error));
  EXPECT_TRUE(entries.empty());
}

class SFTPLinks : public SessionFixture {};

TEST_F(SFTPLinks, ResolveInOneRoundTrip) {
  server.addFile("/file", "abc");
  server.addLink("/link", "file");
  logIn();
  server.batch = SIZE_MAX;
  const size_t before = peer->waits();
  const auto resolution = session->resolveLink("/link", &error);
  ASSERT_TRUE(resolution);
  EXPECT_EQ(1u, peer->waits() - before);
  EXPECT_EQ("/file", resolution->resolvedPath);
  EXPECT_TRUE(resolution->exists);
}

TEST_F(SFTPLinks, APathThatIsNoLinkIsAnsweredItself) {
  server.addFolder("/real");
  server.addFile("/real/file", "abc");
  server.addLink("/way", "real");
  logIn();
  auto resolution = session->resolveLink("/way/file", &error);
  ASSERT_TRUE(resolution);
  EXPECT_EQ("/way/file", resolution->resolvedPath) << "only the last component is looked at";
  EXPECT_TRUE(resolution->resolved);
  EXPECT_TRUE(resolution->exists);
  resolution = session->resolveLink("/real/", &error);
  ASSERT_TRUE(resolution);
  EXPECT_EQ("/real", resolution->resolvedPath);
  EXPECT_TRUE(resolution->isDirectory);
}

TEST_F(SFTPLinks, APathThatDoesNotExistIsAnsweredItself) {
  logIn();
  const auto resolution = session->resolveLink("/no/such/thing", &error);
  ASSERT_TRUE(resolution);
  EXPECT_TRUE(resolution->resolved);
  EXPECT_FALSE(resolution->exists);
  EXPECT_EQ("/no/such/thing", resolution->resolvedPath);
  EXPECT_EQ(nullptr, error) << "a success leaves the slot alone";
}

TEST_F(SFTPLinks, ACircleIsNotResolved) {
  server.addLink("/a", "b/c");
  server.addLink("/b", "a");
  logIn();
  const auto resolution = session->resolveLink("/a", &error);
  ASSERT_TRUE(resolution);
  EXPECT_FALSE(resolution->resolved);
}

TEST_F(SFTPLinks, ALinkIntoNowhereIsWhatTheServerWouldCreate) {
  server.addLink("/a", "/home/user/new");
  logIn();
  const auto resolution = session->resolveLink("/a", &error);
  ASSERT_TRUE(resolution);
  EXPECT_TRUE(resolution->resolved);
  EXPECT_FALSE(resolution->exists);
  EXPECT_EQ("/home/user/new", resolution->resolvedPath);
}

TEST_F(SFTPLinks, OneStepIsNotMistakenForTheEndWhereTheServerOnlyTidiesPathsUp) {
  server.resolvesLexically = true;
  server.addFile("/srv", "abc");
  server.addLink("/second", "srv");
  server.addLink("/first", "second");
  logIn();
  auto resolution = session->resolveLink("/first", &error);
  ASSERT_TRUE(resolution);
  EXPECT_EQ("/second", resolution->resolvedPath);
  EXPECT_FALSE(resolution->isFinal);
  resolution = session->resolveLink(resolution->resolvedPath, &error);
  ASSERT_TRUE(resolution);
  EXPECT_EQ("/srv", resolution->resolvedPath);
}

TEST_F(SFTPLinks, ALostConnectionIsAFailure) {
  logIn();
  peer->hangUp();
  EXPECT_FALSE(session->resolveLink("/a", &error));
  EXPECT_EQ(kQuarnKitConnectionLost, codeOf(error));
}

}  // namespace
}  // namespace ombra::test
