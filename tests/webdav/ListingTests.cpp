// Answers to PROPFIND as tables of bytes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "remote/TemporaryNames.h"
#include "remote/webdav/DAVListing.h"
#include "remote/webdav/DAVMultistatus.h"
#include "tests/webdav/Dialects.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// 2026-11-21 10:21:25 UTC
constexpr NSDate kListedDate = NSDate::dateWithNanoseconds(1'795'256'485'000'000'000);

std::vector<DAVResponse> parsed(const std::string& document) {
  std::string reason;
  const auto responses = parseDAVMultistatus(document, &reason);
  EXPECT_TRUE(responses.has_value()) << reason;
  return responses.value_or(std::vector<DAVResponse>());
}

std::string documentOf(const std::string& inside) {
  return R"(<?xml version="1.0"?><D:multistatus xmlns:D="DAV:">)" + inside + "</D:multistatus>";
}

// A response for each path; those with a slash at the end are folders.
std::string responsesOf(const std::vector<std::string>& hrefs) {
  std::string text;
  for (const std::string& href : hrefs) {
    const char* type = href.ends_with('/') ? "<D:collection/>" : "";
    text += "<D:response><D:href>" + href + "</D:href><D:propstat><D:prop><D:resourcetype>" + type +
            "</D:resourcetype></D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>";
  }
  return documentOf(text);
}

DAVListing listingIn(const std::string& document, const std::string& path) {
  DAVListingBuilder builder(path);
  for (DAVResponse& response : parsed(document)) builder.add(std::move(response));
  return builder.finish();
}

DAVListing listingOf(const std::vector<std::string>& hrefs, const std::string& path = "/dav") {
  return listingIn(responsesOf(hrefs), path);
}

std::vector<std::string> namesIn(const DAVListing& listing) {
  std::vector<std::string> names;
  for (const RemoteEntry& entry : listing.children) names.push_back(entry.name);
  return names;
}

class DAVDialects : public testing::TestWithParam<DAVDialect> {};

TEST_P(DAVDialects, TellTheSameFolder) {
  const DAVDialect& dialect = GetParam();
  const DAVListing listing = listingIn(dialect.document, dialect.path);
  ASSERT_TRUE(listing.hasSelf);
  EXPECT_TRUE(listing.self.properties.isCollection);
  ASSERT_THAT(namesIn(listing), ElementsAre(dialect.fileName, "sub"));
  const RemoteEntry& file = listing.children[0];
  EXPECT_EQ(file.type, kNodeTypeFile);
  EXPECT_EQ(file.attributes.fileType, NSFileTypeValue::NSFileTypeRegular);
  EXPECT_EQ(file.attributes.fileSize, 5u);
  EXPECT_EQ(file.attributes.modificationDate, kListedDate);
  EXPECT_EQ(file.attributes.creationDate, dialect.tellsCreation ? std::optional(kListedDate) : std::nullopt);
  const RemoteEntry& folder = listing.children[1];
  EXPECT_EQ(folder.type, kNodeTypeFolder);
  EXPECT_EQ(folder.attributes.fileType, NSFileTypeValue::NSFileTypeDirectory);
  EXPECT_FALSE(folder.attributes.fileSize.has_value()) << "the length of a folder means nothing";
}

INSTANTIATE_TEST_SUITE_P(Servers, DAVDialects, testing::ValuesIn(davDialects()),
                         [](const auto& test) { return test.param.name; });

TEST(DAVListing, LeavesOutWhatLiesElsewhereAndWhatCannotBeShown) {
  const DAVListing listing =
      listingOf({"/dav/", "/dav/good", "/other/x", "/dav/a/b", "/dav/..", "/dav/.", "/dav/a%2Fb",
                 "/dav/a%00b", "/", "", "/davx", "/dav/%2e%2e", "http://elsewhere/dav/also"});
  EXPECT_THAT(namesIn(listing), ElementsAre("good", "also"));
  EXPECT_TRUE(listing.hasSelf);
}

TEST(DAVListing, NeverListsTheNamesOfUploads) {
  const std::string name = makeTemporaryName();
  EXPECT_TRUE(isTemporaryName(name));
  EXPECT_THAT(name, testing::StartsWith(".ombra-upload-"));
  for (const char* other : {".ombra-upload-", ".ombra-upload-notes", "x.ombra-upload-", ""})
    EXPECT_FALSE(isTemporaryName(other)) << other;
  const DAVListing listing = listingOf({"/dav/", "/dav/" + name, "/dav/.ombra-upload-notes"});
  EXPECT_THAT(namesIn(listing), ElementsAre(".ombra-upload-notes"));
}

// What is not shown is nevertheless lost when a folder is taken away with all that is in it.
TEST(DAVListing, AFolderIsEmptyOnlyWhenNothingButUploadsIsInIt) {
  EXPECT_FALSE(listingOf({"/dav/"}).holdsItems);
  EXPECT_FALSE(listingOf({"/dav/", "/dav/" + makeTemporaryName()}).holdsItems);
  EXPECT_TRUE(listingOf({"/dav/", "/dav/a"}).holdsItems);
  EXPECT_TRUE(listingOf({"/dav/", "/dav/a%2Fb"}).holdsItems);
  EXPECT_TRUE(listingOf({"/dav/", "/elsewhere/a"}).holdsItems);
}

TEST(DAVListing, ItemsThatVanishedMeanwhileAreNotListed) {
  const std::string gone =
      "<D:response><D:href>/dav/gone</D:href><D:status>HTTP/1.1 404 Not Found</D:status></D:response>";
  std::string document = responsesOf({"/dav/", "/dav/there"});
  document.insert(document.rfind("</D:multistatus>"), gone);
  EXPECT_THAT(namesIn(listingIn(document, "/dav")), ElementsAre("there"));
}

TEST(DAVListing, TheRootHasNoName) {
  for (const char* root : {"/", "http://server", "http://server/"}) {
    const DAVListing listing = listingOf({root, "/a", "/b/"}, "/");
    EXPECT_TRUE(listing.hasSelf) << root;
    EXPECT_THAT(namesIn(listing), ElementsAre("a", "b")) << root;
  }
}

TEST(DAVListing, AnItemAloneIsTheItemUnlessItLiesInTheFolder) {
  const DAVListing proxied = listingOf({"/inside/"});
  EXPECT_TRUE(proxied.hasSelf);
  EXPECT_THAT(namesIn(proxied), IsEmpty());
  const DAVListing child = listingOf({"/dav/a"});
  EXPECT_FALSE(child.hasSelf);
  EXPECT_FALSE(listingOf({}).hasSelf);
}

TEST(DAVListing, TheFolderMayComeAfterItsItems) {
  const DAVListing asked = listingOf({"/dav/a", "/", "/other/x", "/dav/", "/other/y", "/dav/b"});
  EXPECT_TRUE(asked.hasSelf);
  EXPECT_EQ(asked.self.href, "/dav/");
  EXPECT_THAT(namesIn(asked), ElementsAre("a", "b"));
  const DAVListing proxied = listingOf({"/inside/a", "/inside/", "/inside/b"});
  EXPECT_TRUE(proxied.hasSelf);
  EXPECT_EQ(proxied.self.href, "/inside/");
  EXPECT_THAT(namesIn(proxied), ElementsAre("a", "b"));
  EXPECT_TRUE(proxied.holdsItems);
}

TEST(DAVListing, AnotherFolderIsTheOneOnlyIfAllElseLiesInIt) {
  for (const std::vector<std::string>& hrefs :
       std::vector<std::vector<std::string>>{{"/inside/", "/inside/a", "/else/b"},
                                             {"/inside/a", "/inside/b"},
                                             {"/inside/", "/inside/a/b"},
                                             {"a", "b"}}) {
    const DAVListing listing = listingOf(hrefs);
    EXPECT_FALSE(listing.hasSelf) << hrefs[0];
    EXPECT_TRUE(listing.holdsItems) << hrefs[0];
  }
  const DAVListing empty = listingOf({"/inside/", "/inside/" + makeTemporaryName()});
  EXPECT_TRUE(empty.hasSelf);
  EXPECT_FALSE(empty.holdsItems);
}

TEST(DAVListing, AnAnswerThatDoesNotEndIsRefused) {
  const std::string document = responsesOf({"/dav/", "/dav/a"});
  std::string reason;
  DAVListingReader whole("/dav", document.size());
  EXPECT_TRUE(whole.add(document));
  EXPECT_TRUE(whole.finish(&reason).has_value()) << reason;
  DAVListingReader cut("/dav", document.size() - 1);
  EXPECT_TRUE(cut.add(document.substr(0, 100)));
  EXPECT_FALSE(cut.add(document.substr(100)));
  EXPECT_FALSE(cut.finish(&reason).has_value());
  EXPECT_EQ(reason, "the answer is too long");
}

TEST(DAVListing, BareNamesLieInTheFolder) {
  EXPECT_THAT(namesIn(listingOf({"/dav/", "a", "b/"})), ElementsAre("a", "b"));
}

}  // namespace
}  // namespace ombra
