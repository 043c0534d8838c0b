// Answers 207 that come in pieces, and what is no such answer.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>

#include "remote/webdav/DAVMultistatus.h"
#include "tests/webdav/Dialects.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// What is cut at every byte, between some, and not at all.
constexpr size_t kPieceLengths[] = {1, 2, 3, 7, 1000, SIZE_MAX};

struct Told {
  std::vector<std::string> hrefs;
  std::vector<DAVResponse> responses;
  std::string reason;  // empty when it was read to its end
};

Told toldBy(std::string_view document, size_t piece) {
  Told told;
  DAVMultistatusReader reader([&told](DAVResponse response) {
    told.hrefs.push_back(response.href);
    told.responses.push_back(std::move(response));
  });
  for (size_t at = 0; at < document.size(); at += std::min(piece, document.size() - at))
    reader.add(document.substr(at, piece));
  const bool isRead = reader.finish();
  told.reason = reader.reason();
  EXPECT_EQ(isRead, told.reason.empty());
  return told;
}

std::vector<DAVResponse> responsesIn(const std::string& document) {
  const Told told = toldBy(document, SIZE_MAX);
  EXPECT_EQ(told.reason, "") << document.substr(0, 200);
  return told.responses;
}

std::string answerWith(const std::string& inside) {
  return R"(<?xml version="1.0"?><D:multistatus xmlns:D="DAV:">)" + inside + "</D:multistatus>";
}

std::string itemAt(const std::string& href) {
  return "<D:response><D:href>" + href + "</D:href></D:response>";
}

class DAVDialectPieces : public testing::TestWithParam<DAVDialect> {};

TEST_P(DAVDialectPieces, TellTheSame) {
  const std::string document = GetParam().document;
  const Told whole = toldBy(document, SIZE_MAX);
  ASSERT_EQ(whole.responses.size(), 3u) << whole.reason;
  for (const size_t piece : kPieceLengths) {
    const Told told = toldBy(document, piece);
    EXPECT_EQ(told.reason, "") << piece;
    EXPECT_EQ(told.hrefs, whole.hrefs) << piece;
    EXPECT_EQ(told.responses.at(1).properties.contentLength, 5u) << piece;
  }
}

TEST_P(DAVDialectPieces, AreRefusedWhereverTheyBreakOff) {
  const std::string document = GetParam().document;
  const size_t end = document.rfind("</") + document.substr(document.rfind("</")).find('>');
  for (size_t length = 0; length <= end; ++length)
    EXPECT_NE(toldBy(document.substr(0, length), SIZE_MAX).reason, "");
}

INSTANTIATE_TEST_SUITE_P(Servers, DAVDialectPieces, testing::ValuesIn(davDialects()),
                         [](const auto& test) { return test.param.name; });

TEST(DAVMultistatus, RefusesWhatIsNoSuchDocument) {
  const std::string bomb =
      R"(<?xml version="1.0"?><!DOCTYPE lolz [<!ENTITY a "aaaaaaaaaa"><!ENTITY b "&a;&a;&a;&a;">]>)"
      R"(<D:multistatus xmlns:D="DAV:"><D:response><D:href>&b;</D:href></D:response>)"
      R"(</D:multistatus>)";
  const std::string item = itemAt("/a");
  const std::pair<std::string, std::string> table[] = {
      {"", "no document element"},
      {"<html><body>Welcome</body></html>", "no answer of a WebDAV server"},
      {R"(<D:multistatus xmlns:D="OTHER:"/>)", "no answer of a WebDAV server"},
      {R"(<D:multistatus xmlns:D="DAV:"><D:response>)", "ends too early"},
      {"plain text", "document element"},
      {"<!-- a remark -->", "document element"},
      {bomb, "document type"},
      {answerWith("<!DOCTYPE a>"), "document type"},
      {answerWith(item + "<!ENTITY a 'b'>"), "document type"},
      {std::string("\0\0\0\0", 4), "document element"},
      {answerWith(item + std::string("\0", 1)), "zero byte"},
      {answerWith(item + std::string("<D:response>\0</D:response>", 26)), "zero byte"},
      {answerWith(std::string(100'000, '<')), "not well-formed"},
      {answerWith("<!-x-><D:response/>"), "not well-formed"},
      {answerWith("<D:response></D:href>"), "mismatch"},
      {answerWith("<D:response><D:href></D:response></D:href>"), "mismatch"},
      {answerWith("<D:response a=b/>"), "attribute"},
      {answerWith("<D:response <D:href/>"), "start element"},
      {answerWith("<5/>"), "tag type"},
      {answerWith("<?5 ?>"), "instruction"},
      {answerWith("</D:multistatus>"), "without its start"},
      {answerWith(item) + answerWith(item), "goes on after its end"},
      {answerWith(item) + "<br />", "goes on after its end"},
      {answerWith(item) + "<!-- no end", "ends too early"},
      {R"(<D:multistatus xmlns:D="DAV:"></multistatus>)", "mismatch"},
      {R"(<D:multistatus xmlns:D="DAV:">)" + item + "</D:multistatus", "ends too early"},
      {R"(<D:multistatus xmlns:D="DAV:"></</D:multistatus>)", "mismatch"},
      {R"(<D:multistatus xmlns:D="DAV:"></ D:multistatus>)", "mismatch"},
      {"</D:multistatus>", "without its start"},
  };
  for (const auto& [document, why] : table) {
    for (const size_t piece : kPieceLengths) {
      EXPECT_THAT(toldBy(document, piece).reason, HasSubstr(why)) << document.substr(0, 120) << ", " << piece;
    }
  }
}

TEST(DAVMultistatus, RefusesWhatIsLongerThanItMayBe) {
  const std::pair<std::string, std::string> table[] = {
      {"<!--" + std::string(XMLCutter::kLongestOpening, ' ') + "-->" + answerWith(""),
       "begins with too much"},
      {std::string(XMLCutter::kLongestOpening + 1, ' '), "too"},
      {answerWith(itemAt(std::string(XMLCutter::kLongestElement, 'x'))), "element that is too long"},
      {answerWith("<!--" + std::string(XMLCutter::kLongestElement, ' ') + "-->"), "element that is too long"},
  };
  for (const auto& [document, why] : table)
    EXPECT_THAT(toldBy(document, 100'000).reason, HasSubstr(why)) << document.substr(0, 80);
}

TEST(DAVMultistatus, RefusesMoreItemsThanAnyFolderHas) {
  size_t count = 0;
  const auto take = [&count](DAVResponse) { ++count; };
  const std::string item = itemAt("/a");
  DAVMultistatusReader three(take, 3);
  EXPECT_TRUE(three.add(answerWith(item + item + item)));
  EXPECT_TRUE(three.finish());
  EXPECT_EQ(count, 3u);
  DAVMultistatusReader two(take, 2);
  EXPECT_FALSE(two.add(answerWith(item + item + item)));
  EXPECT_FALSE(two.finish());
  EXPECT_THAT(two.reason(), HasSubstr("too many items"));
}

TEST(DAVMultistatus, MarksInQuotesRemarksAndTextAreNoTags) {
  const std::string document =
      "<!-- <D:multistatus> --><?pi <x> ?><D:multistatus a='>' b=\"</D:multistatus>\" xmlns:D=\"DAV:\">"
      "<!-- <D:response> -- -> --->text ><D:response c='/'><!--</D:response>-->"
      "<D:href><![CDATA[/a]>]]]]></D:href><?pi </D:response>?></D:response>"
      "<![CDATA[<D:response>]]>" +
      itemAt("/b") + "</D:multistatus \n>text<!-- <x> --><?pi <y> ?>\n";
  for (const size_t piece : kPieceLengths) {
    const Told told = toldBy(document, piece);
    EXPECT_EQ(told.reason, "") << piece;
    EXPECT_THAT(told.hrefs, ElementsAre("/a]>]]", "/b")) << piece;
  }
}

TEST(DAVMultistatus, NamespacesOfTheRootHoldForEveryResponse) {
  const std::string document =
      "<a:multistatus xmlns:a='DAV:' xmlns:b='OTHER:' xmlns='DAV:'><response><href>/1</href></response>"
      "<b:response><a:href>/no</a:href></b:response><c:response "
      "xmlns:c='DAV:'><c:href>/2</c:href></c:response>"
      "<response xmlns='OTHER:'><a:href>/no</a:href></response><b:response xmlns:b='DAV:'><b:href>/3</b:href>"
      "</b:response></a:multistatus>";
  for (const size_t piece : kPieceLengths)
    EXPECT_THAT(toldBy(document, piece).hrefs, ElementsAre("/1", "/2", "/3")) << piece;
}

TEST(DAVMultistatus, AnEmptyRootIsADocument) {
  for (const char* document :
       {"<D:multistatus xmlns:D='DAV:'/>", "<multistatus xmlns='DAV:'></multistatus >\n"}) {
    for (const size_t piece : kPieceLengths) {
      const Told told = toldBy(document, piece);
      EXPECT_EQ(told.reason, "") << document;
      EXPECT_THAT(told.hrefs, IsEmpty());
    }
  }
}

TEST(DAVMultistatus, AZeroByteBehindTheEndEndsTheDocument) {
  const std::string document = answerWith(itemAt("/a")) + std::string("\0<x", 3);
  for (const size_t piece : kPieceLengths)
    EXPECT_THAT(toldBy(document, piece).hrefs, ElementsAre("/a")) << piece;
}

TEST(DAVMultistatus, ReadsTheEncodingsThatADocumentMayHave) {
  const std::string name = "/\xC3\xA9";
  std::string wide = "\xFF\xFE";
  for (const char c : answerWith(itemAt("/e"))) wide.append({c, '\0'});
  const std::string accented =
      R"(<?xml version="1.0" encoding="ISO-8859-1"?><D:multistatus xmlns:D="DAV:">)" + itemAt("/\xE9") +
      itemAt("/\xE9") + "</D:multistatus>";
  for (const size_t piece : kPieceLengths) {
    EXPECT_THAT(toldBy(accented, piece).hrefs, ElementsAre(name, name)) << piece;
    EXPECT_THAT(toldBy(wide, piece).hrefs, ElementsAre("/e")) << piece;
  }
  wide.resize(wide.size() - 2);
  EXPECT_NE(toldBy(wide, 1).reason, "");
}

// Of a long folder no more is in memory than what is being read.
TEST(DAVMultistatus, HoldsLittleOfALongAnswer) {
  constexpr size_t kItems = 4000;
  constexpr size_t kMost = 512 * 1024;
  const std::string item = itemAt("/dav/" + std::string(700, 'x'));
  const auto inUse = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
  size_t count = 0;
  size_t most = 0;
  DAVMultistatusReader reader([&](DAVResponse) {
    ++count;
    most = std::max(most, inUse());
  });
  const size_t before = inUse();
  reader.add(R"(<D:multistatus xmlns:D="DAV:">)");
  for (size_t i = 0; i < kItems; ++i) reader.add(item);
  reader.add("</D:multistatus>");
  EXPECT_TRUE(reader.finish());
  EXPECT_EQ(count, kItems);
  EXPECT_LT(most, before + kMost) << "of " << kItems * item.size();
}

TEST(DAVMultistatus, ExpandsNoEntitiesButThoseOfTheLanguage) {
  const auto responses =
      responsesIn(answerWith("<D:response><D:href>/a&amp;&lt;&#x41;&unknown;</D:href></D:response>"));
  ASSERT_EQ(responses.size(), 1u);
  EXPECT_EQ(responses[0].href, "/a&<A&unknown;");
}

TEST(DAVMultistatus, DeepNestingIsHarmless) {
  std::string deep;
  for (int i = 0; i < 200'000; ++i) deep += "<D:prop>";
  for (int i = 0; i < 200'000; ++i) deep += "</D:prop>";
  EXPECT_TRUE(responsesIn(answerWith("<D:response>" + deep + "</D:response>")).empty());
}

TEST(DAVMultistatus, NumbersAndDatesThatMakeNoSenseAreNotThere) {
  for (const char* length : {"-1", "5x", "0x5", "", "99999999999999999999", "9223372036854775808", "1e3"}) {
    const auto responses = responsesIn(answerWith(
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
      responsesIn(answerWith("<D:response><D:href>/a</D:href><D:href>/b</D:href>"
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

}  // namespace
}  // namespace ombra
