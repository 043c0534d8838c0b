// Versions and the meaning of a refusal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "remote/QuarnKitError.h"
#include "remote/webdav/DAVContent.h"
#include "remote/webdav/DAVErrors.h"

namespace ombra {
namespace {

using testing::HasSubstr;
using testing::Not;

HTTPResponse responseWith(int status, std::vector<HTTPHeader> headers, std::string body = {}) {
  HTTPResponse response;
  response.status = status;
  response.headers = std::move(headers);
  response.body = std::move(body);
  return response;
}

TEST(DAVVersion, SurvivesItsText) {
  const DAVVersion version =
      DAVVersion::ofResponse(responseWith(206, {{"ETag", "W/\"a\""},
                                                {"Last-Modified", "Sun, 06 Nov 1994 08:49:37 GMT"},
                                                {"Content-Length", "5"},
                                                {"Content-Range", "bytes 5-9/10"}}));
  const DAVVersion again = DAVVersion::fromText(version.text());
  EXPECT_EQ(again.tag, "\"a\"");
  EXPECT_TRUE(again.isWeak);
  EXPECT_EQ(again.date, "Sun, 06 Nov 1994 08:49:37 GMT");
  EXPECT_EQ(again.size, 10u) << "the size of the whole, not of the part";
  const DAVVersion nothing = DAVVersion::fromText(DAVVersion::ofResponse(responseWith(200, {})).text());
  EXPECT_TRUE(nothing.tag.empty());
  EXPECT_FALSE(nothing.size.has_value());
}

TEST(DAVVersion, DiffersOnlyInWhatBothKnow) {
  const auto version = [](const char* tag, const char* date, const char* size) {
    std::vector<HTTPHeader> headers;
    if (*tag != 0) headers.push_back({"ETag", tag});
    if (*date != 0) headers.push_back({"Last-Modified", date});
    if (*size != 0) headers.push_back({"Content-Length", size});
    return DAVVersion::ofResponse(responseWith(200, headers));
  };
  const DAVVersion full = version("\"a\"", "d", "5");
  EXPECT_TRUE(full.agreesWith(full));
  EXPECT_TRUE(full.agreesWith(version("W/\"a\"", "", ""))) << "a tag becomes strong with time";
  EXPECT_TRUE(full.agreesWith(version("", "", "")));
  EXPECT_FALSE(full.agreesWith(version("\"b\"", "d", "5")));
  EXPECT_FALSE(full.agreesWith(version("", "e", "5")));
  EXPECT_FALSE(full.agreesWith(version("\"a\"", "d", "6")));
}

struct RefusalCase {
  DAVRequestKind kind;
  int status;
  QuarnKitErrorCode code;
};

TEST(DAVErrors, OneStatusMeansDifferentThings) {
  using Kind = DAVRequestKind;
  const RefusalCase table[] = {
      {Kind::kLogin, 401, kQuarnKitLoginFailed},
      {Kind::kLogin, 429, kQuarnKitTooManyConnections},
      {Kind::kLogin, 503, kQuarnKitTooManyConnections},
      {Kind::kAttributes, 401, kQuarnKitPermissionDenied},
      {Kind::kAttributes, 404, kQuarnKitNoSuchItem},
      {Kind::kAttributes, 410, kQuarnKitNoSuchItem},
      {Kind::kAttributes, 405, kQuarnKitNotSupported},
      {Kind::kAttributes, 503, kQuarnKitRefused},
      {Kind::kList, 403, kQuarnKitListingNotPermitted},
      {Kind::kList, 404, kQuarnKitNoSuchItem},
      {Kind::kCreateFolder, 405, kQuarnKitItemExists},
      {Kind::kCreateFolder, 409, kQuarnKitNoSuchItem},
      {Kind::kCreateFolder, 403, kQuarnKitPermissionDenied},
      {Kind::kCreateFolder, 507, kQuarnKitOutOfSpace},
      {Kind::kMove, 412, kQuarnKitItemExists},
      {Kind::kMove, 409, kQuarnKitNoSuchItem},
      {Kind::kMove, 423, kQuarnKitPermissionDenied},
      {Kind::kMove, 502, kQuarnKitRefused},
      {Kind::kRemove, 404, kQuarnKitNoSuchItem},
      {Kind::kRemove, 409, kQuarnKitRefused},
      {Kind::kDownload, 412, kQuarnKitItemChanged},
      {Kind::kUpload, 409, kQuarnKitNoSuchItem},
      {Kind::kUpload, 414, kQuarnKitNameInvalid},
      {Kind::kUpload, 507, kQuarnKitOutOfSpace},
      {Kind::kUpload, 500, kQuarnKitRefused},
  };
  for (const RefusalCase& row : table)
    EXPECT_EQ(davError(row.kind, row.status, "/p")->code(), row.code)
        << static_cast<int>(row.kind) << row.status;
}

TEST(DAVErrors, TheServersWordsAreKeptBeneathWithoutTheirMarkup) {
  const NSErrorRef error = davError(
      DAVRequestKind::kUpload,
      responseWith(507, {}, "<d:error><s:message>507 Full</s:message>\nNo room" + std::string(10000, 'x')),
      "/p");
  const std::string words = error->underlyingError()->localizedDescription();
  EXPECT_THAT(words, HasSubstr("507 Full No"));
  EXPECT_THAT(words, Not(HasSubstr("<")));
  EXPECT_LT(words.size(), 400u);
}

TEST(DAVErrors, APageForBrowsersIsNotQuoted) {
  const std::string text =
      "<head><title>401 Unauthorized</title></head><body><p>This server could not verify";
  for (const HTTPResponse& response :
       {responseWith(401, {}, "<!DOCTYPE HTML PUBLIC \"-//IETF//DTD HTML 2.0//EN\">\n<html>" + text),
        responseWith(401, {}, "\r\n<html>" + text),
        responseWith(401, {{"content-type", "text/html; charset=iso-8859-1"}}, text)}) {
    const NSErrorRef error = davError(DAVRequestKind::kLogin, response, "/p");
    EXPECT_EQ(error->underlyingError()->localizedDescription(), "the server answered 401");
  }
}

TEST(DAVErrors, ARedirectNamesTheAddressToUseAndNoSecrets) {
  const NSErrorRef error = davError(
      DAVRequestKind::kList, responseWith(301, {{"Location", "https://other/dav/?token=secret"}}), "/p");
  EXPECT_EQ(error->code(), kQuarnKitRefused);
  EXPECT_THAT(error->localizedDescription(), HasSubstr("https://other/dav/"));
  EXPECT_THAT(error->localizedDescription(), Not(HasSubstr("secret")));
}

}  // namespace
}  // namespace ombra
