// What servers answer, byte by byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "remote/s3/S3Answers.h"
#include "remote/s3/S3Documents.h"
#include "remote/s3/S3Errors.h"

namespace ombra {
namespace {

using testing::ElementsAre;

std::vector<std::string> keysOf(const S3Listing& listing) {
  std::vector<std::string> keys;
  for (const S3ListedObject& object : listing.objects) keys.push_back(object.key);
  return keys;
}

HTTPResponse response(int status, const std::string& body, std::vector<HTTPHeader> headers = {}) {
  HTTPResponse result;
  result.status = status;
  result.body = body;
  result.headers = std::move(headers);
  return result;
}

TEST(S3Answers, ListingsOfAmazonAreRead) {
  const auto listing = s3Listing(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<ListBucketResult "
      "xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><Name>quotes</Name><Prefix>a/</Prefix>"
      "<NextContinuationToken>1ueGcxLPRx1Tr/XYExHnhbYLgveDs2J/wm36Hy4vbOwM=</NextContinuationToken>"
      "<KeyCount>3</KeyCount><MaxKeys>2</MaxKeys><Delimiter>/</Delimiter><EncodingType>url</EncodingType>"
      "<IsTruncated>true</IsTruncated>"
      "<Contents><Key>a/happy+face%2B%C3%A9%26.jpg</Key><LastModified>2014-11-21T19:40:05.000Z</LastModified>"
      "<ETag>&quot;70ee1738b6b21e2c8a43f3a5ab0eee71&quot;</ETag><Size>434234</Size>"
      "<StorageClass>STANDARD</StorageClass></Contents>"
      "<CommonPrefixes><Prefix>a/b+c/</Prefix></CommonPrefixes></ListBucketResult>");
  ASSERT_TRUE(listing.has_value());
  EXPECT_THAT(keysOf(*listing), ElementsAre("a/happy face+é&.jpg"));
  EXPECT_EQ(listing->objects[0].size, 434234u);
  EXPECT_EQ(listing->objects[0].modificationDate, NSDate::dateWithTimeIntervalSince1970(1416598805));
  EXPECT_THAT(listing->prefixes, ElementsAre("a/b c/"));
  EXPECT_TRUE(listing->isTruncated);
  EXPECT_EQ(listing->nextToken, "1ueGcxLPRx1Tr/XYExHnhbYLgveDs2J/wm36Hy4vbOwM=");
}

// A server that does not know the encoding does not say it: then nothing is decoded.
TEST(S3Answers, NamesThatAreNotEncodedStandForThemselves) {
  const auto listing = s3Listing(
      "<ListBucketResult><IsTruncated>false</IsTruncated><Contents><Key>a+b%20&amp;c</Key><Size>0</Size>"
      "</Contents><Contents><Key> </Key><Size>1</Size></Contents></ListBucketResult>");
  ASSERT_TRUE(listing.has_value());
  EXPECT_THAT(keysOf(*listing), ElementsAre("a+b%20&c", " "));
}

TEST(S3Answers, PrefixesOfNamesDoNotMatter) {
  const auto listing = s3Listing(
      "<s:ListBucketResult xmlns:s=\"urn:x\"><s:Contents><s:Key>k</s:Key><s:Size>7</s:Size></s:Contents>"
      "</s:ListBucketResult>");
  ASSERT_TRUE(listing.has_value());
  EXPECT_EQ(listing->objects.at(0).size, 7u);
}

TEST(S3Answers, WhatIsNoListingIsNotTakenForOne) {
  const std::vector<std::string> table{
      "",
      "not XML at all",
      "<html><body>Please log in to this network</body></html>",
      "<ListBucketResult><Contents><Key>a</Key><Size>1</Size></Contents>",
      "<ListBucketResult><Contents><Key>a</Key></Contents></ListBucketResult>",
      "<ListBucketResult><Contents><Key></Key><Size>1</Size></Contents></ListBucketResult>",
      "<ListBucketResult><Contents><Key>a</Key><Size>-1</Size></Contents></ListBucketResult>",
      "<ListBucketResult><Contents><Key>a</Key><Size>1 GB</Size></Contents></ListBucketResult>",
      "<ListBucketResult><Contents><Key>a</Key><Size>9223372036854775808</Size></Contents></"
      "ListBucketResult>",
      "<ListBucketResult><Contents><Key>a</Key><Size>99999999999999999999999</Size></Contents></"
      "ListBucketResult>",
      "<ListBucketResult><IsTruncated>true</IsTruncated></ListBucketResult>",
      "<Error><Code>AccessDenied</Code></Error>"};
  for (const std::string& document : table) EXPECT_FALSE(s3Listing(document).has_value()) << document;
}

TEST(S3Answers, EntitiesAreThoseOfTheLanguageAlone) {
  const auto listing = s3Listing(
      "<ListBucketResult><Contents><Key>&lt;&#x41;&b;&f;</Key><Size>1</Size></Contents></ListBucketResult>");
  ASSERT_TRUE(listing.has_value());
  EXPECT_THAT(keysOf(*listing), ElementsAre("<A&b;&f;"));
}

// Entities of a document's own would make it grow, or bring in what lies elsewhere.
TEST(S3Answers, DocumentsWithATypeOfTheirOwnAreRefused) {
  const std::string entities =
      "[<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;\"><!ENTITY f SYSTEM "
      "\"file:///etc/passwd\">]";
  for (const std::string& type : {"<!DOCTYPE b " + entities + ">", std::string("<!DOCTYPE b>"),
                                  "<?xml version=\"1.0\"?>\n<!-- b -->\n<!DOCTYPE b " + entities + ">\n"}) {
    EXPECT_FALSE(s3Listing(type + "<ListBucketResult><Contents><Key>&b;&f;</Key><Size>1</Size></Contents>"
                                  "</ListBucketResult>")
                     .has_value())
        << type;
    EXPECT_FALSE(s3Buckets(type + "<ListAllMyBucketsResult/>").has_value()) << type;
    EXPECT_FALSE(s3IsCompleted(type + "<CompleteMultipartUploadResult/>")) << type;
  }
  EXPECT_FALSE(s3Listing("<ListBucketResult><!DOCTYPE b></ListBucketResult>").has_value());
  EXPECT_TRUE(s3Listing("<?xml version=\"1.0\"?>\n<!-- b -->\n<ListBucketResult/>").has_value());
}

TEST(S3Answers, DeepNestingIsSurvived) {
  std::string document = "<ListBucketResult>";
  for (int i = 0; i < 200000; ++i) document += "<a>";
  EXPECT_FALSE(s3Listing(document).has_value());
  for (int i = 0; i < 200000; ++i) document += "</a>";
  EXPECT_TRUE(s3Listing(document + "</ListBucketResult>").has_value());
}

TEST(S3Answers, BucketsAreRead) {
  const auto buckets = s3Buckets(
      "<ListAllMyBucketsResult "
      "xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><Owner><ID>1</ID></Owner><Buckets>"
      "<Bucket><Name>one</Name><CreationDate>2006-02-03T16:45:09.000Z</CreationDate></Bucket>"
      "<Bucket><Name>two</Name></Bucket></Buckets></ListAllMyBucketsResult>");
  ASSERT_TRUE(buckets.has_value());
  ASSERT_EQ(buckets->size(), 2u);
  EXPECT_EQ(buckets->at(0).name, "one");
  EXPECT_EQ(buckets->at(0).creationDate, NSDate::dateWithTimeIntervalSince1970(1138985109));
  EXPECT_FALSE(buckets->at(1).creationDate.has_value());
  EXPECT_EQ(s3Buckets("<ListAllMyBucketsResult/>")->size(), 0u);
  EXPECT_FALSE(s3Buckets("<ListAllMyBucketsResult><Buckets><Bucket/></Buckets></ListAllMyBucketsResult>"));
}

TEST(S3Answers, UploadsCopiesAndRemovalsAreRead) {
  EXPECT_EQ(s3UploadId("<InitiateMultipartUploadResult><Bucket>b</Bucket><UploadId>VXBsb2FkIElE</UploadId>"
                       "</InitiateMultipartUploadResult>"),
            "VXBsb2FkIElE");
  EXPECT_FALSE(s3UploadId("<InitiateMultipartUploadResult/>").has_value());
  EXPECT_EQ(s3CopiedTag("<CopyObjectResult><ETag>&quot;9b2c&quot;</ETag></CopyObjectResult>"), "\"9b2c\"");
  EXPECT_EQ(s3CopiedTag("<CopyPartResult><ETag>plain</ETag></CopyPartResult>"), "plain");
  EXPECT_FALSE(s3CopiedTag("<CopyObjectResult/>").has_value());
  EXPECT_TRUE(s3IsCompleted("<CompleteMultipartUploadResult><ETag>x</ETag></CompleteMultipartUploadResult>"));
  EXPECT_FALSE(s3IsCompleted("<Error><Code>InternalError</Code></Error>"));
  EXPECT_EQ(s3DeleteResult("<DeleteResult><Deleted><Key>a</Key></Deleted></DeleteResult>")->failures, 0u);
  const auto partly = s3DeleteResult(
      "<DeleteResult><Error><Key>gone</Key><Code>NoSuchKey</Code></Error><Error><Key>b</Key>"
      "<Code>AccessDenied</Code><Message>Access Denied</Message></Error></DeleteResult>");
  EXPECT_EQ(partly->failures, 1u) << "what was gone already was removed";
  EXPECT_EQ(partly->firstCode, "AccessDenied");
}

TEST(S3Answers, RefusalsTellTheirCodeAndTheBucketsRegion) {
  const S3Refusal body = s3Refusal(
      response(400,
               "<Error><Code>AuthorizationHeaderMalformed</Code><Message>expecting 'eu-west-1'</Message>"
               "<Region>eu-west-1</Region><RequestId>1</RequestId></Error>"));
  EXPECT_EQ(body.code, "AuthorizationHeaderMalformed");
  EXPECT_EQ(body.region, "eu-west-1");
  const S3Refusal head = s3Refusal(response(301, "", {{"x-amz-bucket-region", "eu-central-1"}}));
  EXPECT_EQ(head.code, "");
  EXPECT_EQ(head.region, "eu-central-1");
  const S3Refusal empty =
      s3Refusal(response(403, "<Error><Code>AccessDenied</Code><Message></Message></Error>"));
  EXPECT_EQ(empty.message, "");
  EXPECT_TRUE(s3LateRefusal(response(200, "\n  <Error><Code>InternalError</Code></Error>")).has_value());
  EXPECT_FALSE(s3LateRefusal(response(200, "<CopyObjectResult/>")).has_value());
}

TEST(S3Errors, CodesHaveTheirMeaning) {
  struct Case {
    int status;
    std::string code;
    QuarnKitErrorCode expected;
  };
  const std::vector<Case> table{{404, "NoSuchKey", kQuarnKitNoSuchItem},
                                {404, "NoSuchBucket", kQuarnKitNoSuchItem},
                                {404, "", kQuarnKitNoSuchItem},
                                {403, "InvalidAccessKeyId", kQuarnKitLoginFailed},
                                {403, "SignatureDoesNotMatch", kQuarnKitLoginFailed},
                                {400, "ExpiredToken", kQuarnKitLoginFailed},
                                {403, "AccessDenied", kQuarnKitPermissionDenied},
                                {403, "", kQuarnKitPermissionDenied},
                                {403, "QuotaExceeded", kQuarnKitOutOfSpace},
                                {507, "", kQuarnKitOutOfSpace},
                                {400, "KeyTooLongError", kQuarnKitNameInvalid},
                                {412, "PreconditionFailed", kQuarnKitItemChanged},
                                {501, "NotImplemented", kQuarnKitNotSupported},
                                {503, "SlowDown", kQuarnKitTooManyConnections},
                                {500, "InternalError", kQuarnKitRefused},
                                {418, "Whatever", kQuarnKitRefused}};
  for (const Case& known : table) {
    const NSErrorRef error = s3Error({known.status, known.code, "", ""}, "/b/k");
    EXPECT_TRUE(QuarnKitError::isCode(error, known.expected)) << known.status << known.code;
  }
  EXPECT_TRUE(QuarnKitError::isCode(s3ListingError({403, "AccessDenied", "", ""}, "/b"),
                                    kQuarnKitListingNotPermitted));
}

TEST(S3Errors, TextsHoldWhatTheServerSaid) {
  EXPECT_THAT(s3Error({403, "AccessDenied", "Access Denied", ""}, "/b/k")->localizedDescription(),
              testing::HasSubstr("/b/k: AccessDenied (Access Denied)"));
  EXPECT_THAT(s3Error({403, "AccessDenied", "", ""}, "/b/k")->localizedDescription(),
              testing::HasSubstr("/b/k: AccessDenied"));
  EXPECT_THAT(s3Error({502, "", "", ""}, "/b/k")->localizedDescription(),
              testing::HasSubstr("/b/k: the server answers 502"));
}

TEST(S3Documents, KeysAndTagsAreEscaped) {
  EXPECT_EQ(
      s3CompleteDocument({"\"a&b\"", "c"}),
      "<CompleteMultipartUpload xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><Part><PartNumber>1"
      "</PartNumber><ETag>&quot;a&amp;b&quot;</ETag></Part><Part><PartNumber>2</PartNumber><ETag>c</ETag>"
      "</Part></CompleteMultipartUpload>");
  EXPECT_EQ(s3DeleteDocument({"<a>\t"}),
            "<Delete "
            "xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><Quiet>true</Quiet><Object><Key>&lt;a&gt;&#9;"
            "</Key></Object></Delete>");
  EXPECT_TRUE(s3FitsDocument("ünï\tcode\r\n"));
  EXPECT_FALSE(s3FitsDocument("bell\a"));
}

}  // namespace
}  // namespace ombra
