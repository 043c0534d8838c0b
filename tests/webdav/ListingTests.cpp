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

DAVListing listingOf(const std::vector<std::string>& hrefs, const std::string& path = "/dav") {
  return listingOfDAVResponses(parsed(responsesOf(hrefs)), path);
}

std::vector<std::string> namesIn(const DAVListing& listing) {
  std::vector<std::string> names;
  for (const RemoteEntry& entry : listing.children) names.push_back(entry.name);
  return names;
}

class DAVDialects : public testing::TestWithParam<DAVDialect> {};

TEST_P(DAVDialects, TellTheSameFolder) {
  const DAVDialect& dialect = GetParam();
  const DAVListing listing = listingOfDAVResponses(parsed(dialect.document), dialect.path);
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

TEST(DAVMultistatus, RefusesWhatIsNoSuchDocument) {
  std::string bomb =
      R"(<?xml version="1.0"?><!DOCTYPE lolz [<!ENTITY a "aaaaaaaaaa"><!ENTITY b "&a;&a;&a;&a;">]>)"
      R"(<D:multistatus xmlns:D="DAV:"><D:response><D:href>&b;</D:href></D:response>)"
      R"(</D:multistatus>)";
  const std::pair<std::string, std::string> table[] = {
      {"", "No document element"},
      {"<html><body>Welcome</body></html>", "no answer of a WebDAV server"},
      {R"(<D:multistatus xmlns:D="OTHER:"/>)", "no answer of a WebDAV server"},
      {R"(<D:multistatus xmlns:D="DAV:"><D:response>)", "tags mismatch"},
      {"plain text", "document element"},
      {bomb, "document type"},
      {std::string("\0\0\0\0", 4), "document element"},
      {documentOf(std::string(17'000'000, '<')), "too many elements"},
  };
  for (const auto& [document, why] : table) {
    std::string reason;
    EXPECT_FALSE(parseDAVMultistatus(document, &reason).has_value()) << document.substr(0, 80);
    EXPECT_THAT(reason, HasSubstr(why)) << document.substr(0, 80);
  }
}

TEST(DAVMultistatus, ExpandsNoEntitiesButThoseOfTheLanguage) {
  const auto responses =
      parsed(documentOf("<D:response><D:href>/a&amp;&lt;&#x41;&unknown;</D:href></D:response>"));
  ASSERT_EQ(responses.size(), 1u);
  EXPECT_EQ(responses[0].href, "/a&<A&unknown;");
}

TEST(DAVMultistatus, DeepNestingIsHarmless) {
  std::string deep;
  for (int i = 0; i < 200'000; ++i) deep += "<D:prop>";
  for (int i = 0; i < 200'000; ++i) deep += "</D:prop>";
  EXPECT_TRUE(parsed(documentOf("<D:response>" + deep + "</D:response>")).empty());
}

TEST(DAVMultistatus, NumbersAndDatesThatMakeNoSenseAreNotThere) {
  for (const char* length : {"-1", "5x", "0x5", "", "99999999999999999999", "9223372036854775808", "1e3"}) {
    const auto responses = parsed(documentOf(
        std::string("<D:response><D:href>/a</D:href><D:propstat><D:prop><D:getcontentlength>") + length +
        "</D:getcontentlength><D:getlastmodified>soon</D:getlastmodified><D:creationdate>soon</"
        "D:creationdate>"
        "<D:quota-available-bytes>-3</D:quota-available-bytes></D:prop></D:propstat></D:response>"));
    ASSERT_EQ(responses.size(), 1u) << length;
    EXPECT_FALSE(responses[0].properties.contentLength.has_value()) << length;
    EXPECT_FALSE(responses[0].properties.lastModified.has_value());
    EXPECT_FALSE(responses[0].properties.creationDate.has_value());
    EXPECT_FALSE(responses[0].properties.quotaAvailable.has_value());
  }
}

TEST(DAVMultistatus, OneResponseMayNameSeveralItems) {
  const auto responses =
      parsed(documentOf("<D:response><D:href>/a</D:href><D:href>/b</D:href>"
                        "<D:status>HTTP/1.1 423 Locked</D:status></D:response>"));
  ASSERT_EQ(responses.size(), 2u);
  EXPECT_EQ(responses[0].href, "/a");
  EXPECT_EQ(responses[1].status, 423);
}

TEST(DAVMultistatus, ReadsStatusLines) {
  EXPECT_EQ(statusOfDAVText("HTTP/1.1 404 Not Found"), 404);
  EXPECT_EQ(statusOfDAVText("HTTP/1.1  200"), 200);
  for (const char* text : {"", "404", "HTTP/1.1", "HTTP/1.1 x", "HTTP/1.1 99"})
    EXPECT_EQ(statusOfDAVText(text), 0);
}

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
  EXPECT_THAT(namesIn(listingOfDAVResponses(parsed(document), "/dav")), ElementsAre("there"));
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

TEST(DAVListing, BareNamesLieInTheFolder) {
  EXPECT_THAT(namesIn(listingOf({"/dav/", "a", "b/"})), ElementsAre("a", "b"));
}

}  // namespace
}  // namespace ombra
