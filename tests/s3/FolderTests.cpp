// Folders that come and go by the user's word, and what each operation costs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

#include "remote/QuarnKitError.h"
#include "tests/s3/MemoryStore.h"
#include "tests/support/ConnectionContract.h"
#include "tests/support/TemporaryFile.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

class S3Folders : public testing::Test {
 protected:
  S3Session& session() { return iServer.session(); }
  MemoryStore& store() { return iServer.store(); }

  std::vector<std::string> names(const std::string& path) {
    std::vector<RemoteEntry> entries;
    NSErrorRef error;
    EXPECT_TRUE(session().list(path, &entries, &error)) << (error ? error->description() : "");
    std::vector<std::string> names;
    for (const RemoteEntry& entry : entries)
      names.push_back(entry.name + (entry.type == kNodeTypeFolder ? "/" : ""));
    std::sort(names.begin(), names.end());
    return names;
  }

  bool upload(const std::string& path, const std::string& content) {
    const auto file = temporaryFile(content);
    KeptControl control;
    NSErrorRef error;
    const bool sent = session().upload(*file, path, 0, control, &error);
    EXPECT_TRUE(sent) << (error ? error->description() : "");
    return sent;
  }

  std::string download(const std::string& path) {
    const auto file = temporaryFile();
    KeptControl control;
    std::string version;
    NSErrorRef error;
    EXPECT_TRUE(session().download(path, *file, 0, &version, control, &error))
        << (error ? error->description() : "");
    return contentOf(*file);
  }

  bool isFolder(const std::string& path) {
    bool isDirectory = false;
    EXPECT_TRUE(session().attributes(path, &isDirectory, nullptr).has_value()) << path;
    return isDirectory;
  }

  MemorySession iServer;
  NSErrorRef iError;
};

TEST_F(S3Folders, KeysMakeFoldersWithAndWithoutMarkers) {
  store().put("plain/deep/file", "1");
  store().put("marked/", "");
  store().put("marked/file", "22");
  store().put("top", "333");
  EXPECT_THAT(names("/"), ElementsAre("test/"));
  EXPECT_THAT(names("/test"), ElementsAre("marked/", "plain/", "top"));
  EXPECT_THAT(names("/test/plain"), ElementsAre("deep/"));
  EXPECT_THAT(names("/test/marked"), ElementsAre("file"));
  EXPECT_TRUE(isFolder("/"));
  EXPECT_TRUE(isFolder("/test"));
  EXPECT_TRUE(isFolder("/test/plain/deep"));
  EXPECT_TRUE(isFolder("/test/marked"));
  EXPECT_FALSE(isFolder("/test/top"));
}

TEST_F(S3Folders, KeysThatAreNoPathsAreNotListed) {
  for (const char* key : {"a//b", "/c", "a/./x", "../d", "a/ok", "."}) store().put(key, "x");
  store().put(std::string("a/zero\0byte", 11), "x");
  store().put(std::string("zero\0folder/x", 13), "x");
  EXPECT_THAT(names("/test"), ElementsAre("a/"));
  EXPECT_THAT(names("/test/a"), ElementsAre("ok"));
}

// Both cannot be shown; what lies in the folder would be lost from sight.
TEST_F(S3Folders, AFolderHidesAnObjectOfTheSameName) {
  store().put("both", "object");
  store().put("both/file", "x");
  EXPECT_THAT(names("/test"), ElementsAre("both/"));
}

TEST_F(S3Folders, ListingsOfManyPagesHaveEachNameOnce) {
  store().setPageSize(3);
  for (int i = 0; i < 10; ++i) store().put("f" + std::to_string(i), "");
  for (int i = 0; i < 10; ++i) store().put("g/" + std::to_string(i), "");
  store().put("h/x", "");
  const std::vector<std::string> listed = names("/test");
  EXPECT_EQ(listed.size(), 12u);
  EXPECT_EQ(std::count(listed.begin(), listed.end(), "g/"), 1);
}

TEST_F(S3Folders, AListingThatNeverEndsIsRefused) {
  store().put("a", "");
  store().setIntercept([](const HTTPSeen&) {
    return httpReply(200,
                     "<ListBucketResult><IsTruncated>true</IsTruncated><NextContinuationToken>again"
                     "</NextContinuationToken></ListBucketResult>");
  });
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(session().list("/test", &entries, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitProtocolError}));
}

TEST(S3EndlessListings, EverNewItemsAreRefusedWhereAFolderIsListedAndMoved) {
  S3Limits limits;
  limits.mostItems = 100;
  MemorySession memory(limits);
  const auto pages = std::make_shared<std::atomic<int>>(0);
  memory.store().setIntercept([pages](const HTTPSeen& seen) -> std::optional<HTTPReply> {
    if (seen.target.find("list-type") == std::string::npos) return std::nullopt;
    const std::string number = std::to_string(++*pages);
    return httpReply(200, "<ListBucketResult><IsTruncated>true</IsTruncated><NextContinuationToken>" +
                              number + "</NextContinuationToken><Contents><Key>f/" + number +
                              "</Key><Size>1</Size></Contents></ListBucketResult>");
  });
  NSErrorRef error;
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(memory.session().list("/test/f", &entries, &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitProtocolError}));
  EXPECT_EQ(pages->exchange(0), 101);
  error = nullptr;
  EXPECT_FALSE(memory.session().move("/test/f", true, "/test/g", &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitProtocolError}));
  EXPECT_EQ(*pages, 101);
}

TEST_F(S3Folders, AListingOfOtherKeysIsRefused) {
  store().setIntercept([](const HTTPSeen&) {
    return httpReply(200,
                     "<ListBucketResult><Contents><Key>elsewhere/x</Key><Size>1</Size></Contents>"
                     "</ListBucketResult>");
  });
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(session().list("/test/here", &entries, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitProtocolError}));
}

TEST_F(S3Folders, WhatIsNoListingIsRefused) {
  const std::string listing =
      "<ListBucketResult><Contents><Key>here/x</Key><Size>1</Size></Contents></ListBucketResult>";
  const std::string table[] = {
      "", "<html>Sign in</html>", listing.substr(0, listing.size() - 5),
      "<!DOCTYPE a [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;\">]>" + listing,
      "<ListBucketResult><Contents><Key>here/x</Key><Size>99999999999999999999</Size></Contents>"
      "</ListBucketResult>"};
  for (const std::string& body : table) {
    store().setIntercept([body](const HTTPSeen&) { return httpReply(200, body); });
    std::vector<RemoteEntry> entries;
    EXPECT_FALSE(session().list("/test/here", &entries, &iError)) << body;
    EXPECT_TRUE(hasCode(iError, {kQuarnKitProtocolError})) << body;
    EXPECT_THAT(entries, IsEmpty()) << body;
  }
}

TEST_F(S3Folders, AnEmptyBucketIsAnEmptyFolder) { EXPECT_THAT(names("/test"), IsEmpty()); }

TEST_F(S3Folders, WhatMayNotBeListedHasItsOwnCode) {
  store().setIntercept([](const HTTPSeen&) { return s3RefusalReply(403, "AccessDenied"); });
  for (const char* path : {"/", "/test", "/test/folder"}) {
    std::vector<RemoteEntry> entries;
    EXPECT_FALSE(session().list(path, &entries, &iError));
    EXPECT_TRUE(hasCode(iError, {kQuarnKitListingNotPermitted})) << path;
  }
}

TEST_F(S3Folders, TheLastFileOfAFolderLeavesItEmptyButThere) {
  store().put("a/plain/file", "x");
  ASSERT_TRUE(session().remove("/test/a/plain/file", false, &iError));
  EXPECT_THAT(names("/test/a/plain"), IsEmpty());
  EXPECT_THAT(store().keys(), ElementsAre("a/plain/"));
}

TEST_F(S3Folders, AFolderThatIsNotEmptyNeedsNoMarker) {
  store().put("a/one", "x");
  store().put("a/two", "x");
  ASSERT_TRUE(session().remove("/test/a/one", false, &iError));
  EXPECT_THAT(store().keys(), ElementsAre("a/two"));
}

TEST_F(S3Folders, TheLastSubfolderLeavesItsParentThere) {
  store().put("a/b/", "");
  ASSERT_TRUE(session().remove("/test/a/b", true, &iError));
  EXPECT_THAT(store().keys(), ElementsAre("a/"));
  ASSERT_TRUE(session().remove("/test/a", true, &iError));
  EXPECT_THAT(store().keys(), IsEmpty());
}

TEST_F(S3Folders, AMoveLeavesItsOldFolderThere) {
  store().put("old/file", "x");
  store().put("new/", "");
  ASSERT_TRUE(session().move("/test/old/file", false, "/test/new/file", &iError));
  EXPECT_THAT(store().keys(), ElementsAre("new/", "new/file", "old/"));
}

TEST_F(S3Folders, OnlyEmptyFoldersAreRemoved) {
  store().put("unmarked/file", "x");
  store().put("marked/", "");
  store().put("marked/file", "x");
  for (const char* path : {"/test/unmarked", "/test/marked"}) {
    EXPECT_FALSE(session().remove(path, true, &iError));
    EXPECT_TRUE(hasCode(iError, {kQuarnKitFolderNotEmpty})) << path;
  }
  EXPECT_EQ(store().keys().size(), 3u);
}

TEST_F(S3Folders, AFolderIsNotMadeOverAnything) {
  store().put("object", "x");
  store().put("unmarked/file", "x");
  // What is named alike comes before the folder in the server's order.
  for (int i = 0; i < 30; ++i) store().put("many-" + std::to_string(i), "x");
  store().put("many/file", "x");
  for (const char* path : {"/test/object", "/test/unmarked", "/test/many"}) {
    EXPECT_FALSE(session().createFolder(path, &iError));
    EXPECT_TRUE(hasCode(iError, {kQuarnKitItemExists})) << path;
  }
  EXPECT_TRUE(session().createFolder("/test/man", &iError));
}

TEST_F(S3Folders, BucketsAreNeitherMadeNorRemovedNorWritten) {
  const auto file = temporaryFile("x");
  KeptControl control;
  const auto next = [](std::byte*, size_t) { return size_t{0}; };
  (void)store().asked();
  EXPECT_FALSE(session().createFolder("/new", &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitPermissionDenied}));
  EXPECT_FALSE(session().remove("/test", true, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitPermissionDenied}));
  EXPECT_FALSE(session().move("/test", true, "/test2", &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitPermissionDenied}));
  EXPECT_FALSE(session().upload(*file, "/file", 0, control, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitPermissionDenied}));
  EXPECT_FALSE(session().stream(next, "/", control, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitPermissionDenied}));
  EXPECT_FALSE(session().download("/test", *file, 0, nullptr, control, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitRefused}));
  EXPECT_THAT(store().asked(), IsEmpty());
}

TEST_F(S3Folders, AMissingBucketIsAMissingItem) {
  EXPECT_FALSE(session().attributes("/other", nullptr, &iError).has_value());
  EXPECT_TRUE(hasCode(iError, {kQuarnKitNoSuchItem}));
  std::vector<RemoteEntry> entries;
  EXPECT_FALSE(session().list("/other", &entries, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitNoSuchItem}));
}

TEST_F(S3Folders, WhatTheProtocolLacksIsToldWithoutAQuestion) {
  EXPECT_FALSE(session().createSymbolicLink("/test/l", "t", &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitNotSupported}));
  EXPECT_FALSE(session().fileSystemAttributes("/test", &iError).has_value());
  EXPECT_TRUE(hasCode(iError, {kQuarnKitNotSupported}));
  EXPECT_FALSE(session().changeAttributes({}, "/test/x", &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitAttributeChangeNotSupported}));
  EXPECT_THAT(store().asked(), IsEmpty());
}

// What each costs, in round trips, once the folder is known.
TEST_F(S3Folders, OperationsCostAsFewRoundTripsAsTheyCan) {
  ASSERT_TRUE(session().createFolder("/test/f", &iError));
  EXPECT_EQ(store().asked().size(), 2u) << "is there anything of that name; the marker";
  EXPECT_TRUE(isFolder("/test/f"));
  EXPECT_THAT(store().asked(), IsEmpty()) << "it has just been made";
  ASSERT_TRUE(upload("/test/f/file", "content"));
  EXPECT_THAT(store().asked(), ElementsAre("PUT /test/f/file"));
  EXPECT_EQ(download("/test/f/file"), "content");
  EXPECT_THAT(store().asked(), ElementsAre("GET /test/f/file"));
  EXPECT_FALSE(isFolder("/test/f/file"));
  EXPECT_THAT(store().asked(), ElementsAre("HEAD /test/f/file"));
  EXPECT_TRUE(isFolder("/test/f"));
  EXPECT_EQ(store().asked().size(), 1u) << "a known folder";
  (void)names("/test/f");
  EXPECT_EQ(store().asked().size(), 1u) << "a listing";
  ASSERT_TRUE(session().move("/test/f/file", false, "/test/f/new", &iError));
  EXPECT_THAT(store().asked(), ElementsAre("PUT /test/f/new", "DELETE /test/f/file"));
  ASSERT_TRUE(session().remove("/test/f/new", false, &iError));
  EXPECT_THAT(store().asked(), ElementsAre("HEAD /test/f/new", "DELETE /test/f/new"));
  ASSERT_TRUE(upload("/test/f/again", "content"));
  EXPECT_THAT(store().asked(), ElementsAre("PUT /test/f/again"));
  ASSERT_TRUE(session().remove("/test/f/again", false, &iError));
  EXPECT_THAT(store().asked(), ElementsAre("DELETE /test/f/again")) << "it was there a moment ago";
  ASSERT_TRUE(session().remove("/test/f", true, &iError));
  EXPECT_EQ(store().asked().size(), 2u) << "is it empty; the marker";
}

TEST_F(S3Folders, ListedFoldersAreKnownToOtherSessionsToo) {
  store().put("a/b/file", "x");
  (void)names("/test/a");
  const auto other = iServer.makeSession();
  (void)store().asked();
  const auto file = temporaryFile("x");
  KeptControl control;
  ASSERT_TRUE(other->upload(*file, "/test/a/b/new", 0, control, &iError));
  EXPECT_THAT(store().asked(), ElementsAre("PUT /test/a/b/new"));
}

TEST_F(S3Folders, WhatWasListedIsRemovedWithoutAQuestionOnce) {
  store().put("file", "x");
  store().put("other", "x");
  (void)names("/test");
  (void)store().asked();
  ASSERT_TRUE(session().remove("/test/file", false, &iError));
  EXPECT_THAT(store().asked(), ElementsAre("DELETE /test/file"));
  EXPECT_FALSE(session().remove("/test/file", false, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitNoSuchItem}));
}

TEST_F(S3Folders, WhatIsFoundToBeMissingCannotBeRemoved) {
  store().put("file", "x");
  store().put("other", "x");
  (void)names("/test");
  store().remove("file");
  EXPECT_FALSE(session().attributes("/test/file", nullptr, &iError));
  EXPECT_FALSE(session().remove("/test/file", false, &iError));
  EXPECT_TRUE(hasCode(iError, {kQuarnKitNoSuchItem}));
}

TEST_F(S3Folders, AFolderThatWasMadeIsLookedAtAfterAnyOtherRequest) {
  ASSERT_TRUE(session().createFolder("/test/f", &iError));
  store().remove("f/");
  EXPECT_FALSE(session().attributes("/test/x", nullptr, &iError));
  EXPECT_FALSE(session().attributes("/test/f", nullptr, &iError));
  ASSERT_TRUE(session().createFolder("/test/g", &iError));
  (void)names("/test");
  store().remove("g/");
  EXPECT_FALSE(session().attributes("/test/g", nullptr, &iError));
}

// The login has looked at it already.
TEST_F(S3Folders, FindingTheStartFolderAfterTheLoginCostsNothing) {
  for (const std::string start : {"/test", "/test/deep"}) {
    MemorySession other({}, [&start](KCCredentials& credentials) { credentials.setInitialPath(start); });
    bool isDirectory = false;
    if (start == "/test/deep") other.store().put("deep/file", "x");
    const auto session = other.makeSession();
    ASSERT_TRUE(session->logIn(&iError)) << start;
    EXPECT_EQ(session->realPath(start, "/", &isDirectory, &iError), start);
    EXPECT_TRUE(isDirectory);
    EXPECT_EQ(other.store().asked().size(), 1u) << start;
  }
  // A folder without anything in it was not seen.
  EXPECT_FALSE(session().realPath("/test/nothing", "/", nullptr, &iError));
}

TEST_F(S3Folders, MountingAStartFolderIsOneRequest) {
  for (const std::string start : {"/test", "/test/deep"}) {
    MemorySession other({}, [&start](KCCredentials& credentials) { credentials.setInitialPath(start); });
    other.store().put("deep/file", "x");
    const auto session = other.makeFirstSession();
    ASSERT_TRUE(session->logIn(&iError)) << start;
    std::vector<RemoteEntry> entries;
    ASSERT_TRUE(session->list(start, &entries, &iError)) << start;
    ASSERT_EQ(entries.size(), 1u) << start;
    EXPECT_EQ(entries[0].name, start == "/test" ? "deep" : "file");
    EXPECT_EQ(other.store().asked().size(), 1u) << start;
  }
}

TEST_F(S3Folders, TheListingThatCameWithTheLoginIsShownOnce) {
  MemorySession other({}, [](KCCredentials& credentials) { credentials.setInitialPath("/test"); });
  other.store().put("file", "x");
  const auto session = other.makeFirstSession();
  ASSERT_TRUE(session->logIn(&iError));
  std::vector<RemoteEntry> entries;
  ASSERT_TRUE(session->list("/test", &entries, &iError));
  other.store().remove("file");
  entries.clear();
  ASSERT_TRUE(session->list("/test", &entries, &iError));
  EXPECT_TRUE(entries.empty());
}

TEST_F(S3Folders, TheListingThatCameWithTheLoginIsNotShownAfterAChange) {
  MemorySession other({}, [](KCCredentials& credentials) { credentials.setInitialPath("/test"); });
  const auto session = other.makeFirstSession();
  ASSERT_TRUE(session->logIn(&iError));
  ASSERT_TRUE(session->createFolder("/test/new", &iError));
  std::vector<RemoteEntry> entries;
  ASSERT_TRUE(session->list("/test", &entries, &iError));
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].name, "new");
}

TEST_F(S3Folders, TheListingThatCameWithTheLoginIsNotShownAfterAChangeByAnotherSession) {
  MemorySession other({}, [](KCCredentials& credentials) { credentials.setInitialPath("/test"); });
  const auto knowledge = std::make_shared<S3Knowledge>();
  const auto first = other.makeSession(knowledge);
  ASSERT_TRUE(first->logIn(&iError));
  ASSERT_TRUE(other.makeSession(knowledge)->createFolder("/test/new", &iError));
  std::vector<RemoteEntry> entries;
  ASSERT_TRUE(first->list("/test", &entries, &iError));
  EXPECT_EQ(entries.size(), 1u);
}

// Whoever mounts lists the start folder once; later sessions only log in.
TEST_F(S3Folders, LaterLoginsAskForASingleName) {
  MemorySession other({}, [](KCCredentials& credentials) { credentials.setInitialPath("/test"); });
  ASSERT_TRUE(other.makeSession()->logIn(&iError));
  EXPECT_THAT(other.store().asked(), ElementsAre(HasSubstr("max-keys=1")));
  ASSERT_TRUE(other.makeFirstSession()->logIn(&iError));
  EXPECT_THAT(other.store().asked(), ElementsAre(Not(HasSubstr("max-keys=1"))));
}

TEST_F(S3Folders, AStreamOfLessThanAPartIsOneRequest) {
  KeptControl control;
  std::string content = "streamed";
  const auto next = [&content](std::byte* buffer, size_t capacity) {
    const size_t count = std::min(capacity, content.size());
    std::copy_n(reinterpret_cast<const std::byte*>(content.data()), count, buffer);
    content.erase(0, count);
    return count;
  };
  ASSERT_TRUE(session().stream(next, "/test/file", control, &iError));
  EXPECT_THAT(store().asked(), ElementsAre("PUT /test/file"));
  EXPECT_EQ(store().content("file"), "streamed");
}

TEST_F(S3Folders, RealPathsAreFoundByNameAlone) {
  store().put("a/b/file", "x");
  bool isDirectory = false;
  EXPECT_EQ(session().realPath("../b/./file", "/test/a/c", &isDirectory, nullptr), "/test/a/b/file");
  EXPECT_FALSE(isDirectory);
  EXPECT_EQ(session().realPath("~/test/a", "/x", &isDirectory, nullptr), "/test/a");
  EXPECT_TRUE(isDirectory);
  EXPECT_EQ(session().realPath("~", "/x", &isDirectory, nullptr), "/");
}

}  // namespace
}  // namespace ombra
