// Paths, endpoints, sizes of parts, what sessions remember.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <utility>

#include "remote/Session.h"
#include "remote/s3/S3Digest.h"
#include "remote/s3/S3Endpoint.h"
#include "remote/s3/S3Engine.h"
#include "remote/s3/S3Knowledge.h"
#include "remote/s3/S3PartBuffer.h"
#include "remote/s3/S3PartSizes.h"
#include "remote/s3/S3Path.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

TEST(S3Path, NamesABucketAndAKey) {
  struct Case {
    std::string path, bucket, key, prefix, parent;
  };
  const std::vector<Case> table{{"/", "", "", "", "/"},
                                {"/b", "b", "", "", "/"},
                                {"/b/", "b", "", "", "/"},
                                {"/b/k", "b", "k", "k/", "/b"},
                                {"/b/a/k", "b", "a/k", "a/k/", "/b/a"},
                                {"//b//a/./k/", "b", "a/k", "a/k/", "/b/a"},
                                {"/b/a/../k", "b", "k", "k/", "/b"},
                                {"/../../b/..a/...", "b", "..a/...", "..a/.../", "/b/..a"},
                                {"/b/x/../../..", "", "", "", "/"}};
  for (const Case& known : table) {
    const S3Path path = S3Path::parse(known.path);
    EXPECT_EQ(path.bucket, known.bucket) << known.path;
    EXPECT_EQ(path.key, known.key) << known.path;
    EXPECT_EQ(path.prefix(), known.prefix) << known.path;
    EXPECT_EQ(path.parent().text(), known.parent) << known.path;
    EXPECT_EQ(S3Path::parse(path.text()), path) << known.path;
  }
}

struct EndpointCase {
  std::string address;
  int port;
  std::string endpoint, region, pathStyle;
  std::string bucket;
  std::string origin, path;
};

TEST(S3Endpoint, TellsWhereARequestGoes) {
  const std::vector<EndpointCase> table{
      {"", 0, "", "", "", "bucket", "https://bucket.s3.us-east-1.amazonaws.com", "/k%20y"},
      {"s3.amazonaws.com", 0, "", "eu-west-1", "", "bucket", "https://bucket.s3.eu-west-1.amazonaws.com",
       "/k%20y"},
      {"s3.amazonaws.com", 0, "", "cn-north-1", "", "bucket", "https://bucket.s3.cn-north-1.amazonaws.com.cn",
       "/k%20y"},
      {"s3.amazonaws.com", 0, "", "", "1", "bucket", "https://s3.us-east-1.amazonaws.com", "/bucket/k%20y"},
      {"s3.eu-west-3.amazonaws.com", 0, "", "", "", "bucket", "https://bucket.s3.eu-west-3.amazonaws.com",
       "/k%20y"},
      {"", 0, "", "", "", "with.dots", "https://s3.us-east-1.amazonaws.com", "/with.dots/k%20y"},
      {"", 0, "", "", "", "Capital_", "https://s3.us-east-1.amazonaws.com", "/Capital_/k%20y"},
      {"s3.example.com", 0, "", "", "", "bucket", "https://s3.example.com", "/bucket/k%20y"},
      {"s3.example.com", 9000, "", "", "", "bucket", "https://s3.example.com:9000", "/bucket/k%20y"},
      {"ignored", 1, "http://127.0.0.1:9000", "", "", "bucket", "http://127.0.0.1:9000", "/bucket/k%20y"},
      {"ignored", 1, "https://s3.example.com/", "", "0", "bucket", "https://bucket.s3.example.com", "/k%20y"},
      {"ignored", 1, "http://[::1]:9000", "", "", "bucket", "http://[::1]:9000", "/bucket/k%20y"}};
  for (const EndpointCase& known : table) {
    KCCredentials credentials;
    credentials.setAddress(known.address);
    credentials.setPort(known.port);
    for (const auto& [key, value] :
         {std::pair{"endpoint", known.endpoint}, {"region", known.region}, {"pathStyle", known.pathStyle}}) {
      if (!value.empty()) credentials.setOption(key, value);
    }
    const auto endpoint = S3Endpoint::fromCredentials(credentials);
    ASSERT_TRUE(endpoint.has_value()) << known.endpoint;
    const S3Endpoint::Target target = endpoint->target(known.bucket, "k y", endpoint->region());
    EXPECT_EQ(target.origin, known.origin) << known.address << known.endpoint;
    EXPECT_EQ(target.path, known.path) << known.address << known.endpoint;
    EXPECT_EQ("http" + std::string(endpoint->isEncrypted() ? "s" : "") + "://" + target.host, target.origin);
  }
}

TEST(S3Endpoint, FindsTheRegionInTheNameOfTheHost) {
  const std::vector<std::pair<std::string, std::string>> table{
      {"s3.eu-central-1.amazonaws.com", "eu-central-1"},
      {"s3-eu-west-1.amazonaws.com", "eu-west-1"},
      {"s3.us-west-004.backup.example", "us-west-004"},
      {"s3.example.com", "us-east-1"},
      {"storage.example-1.com", "us-east-1"},
      {"127.0.0.1", "us-east-1"}};
  for (const auto& [host, region] : table) {
    KCCredentials credentials;
    credentials.setAddress(host);
    EXPECT_EQ(S3Endpoint::fromCredentials(credentials)->region(), region) << host;
    credentials.setOption("region", "told");
    EXPECT_EQ(S3Endpoint::fromCredentials(credentials)->region(), "told") << host;
  }
}

TEST(S3Endpoint, RefusesWhatIsNoEndpoint) {
  for (const char* text :
       {"ftp://host", "host:9000", "http://", "https://host/path", "https://user@host", "x y"}) {
    KCCredentials credentials;
    credentials.setOption("endpoint", text);
    EXPECT_FALSE(S3Endpoint::fromCredentials(credentials).has_value()) << text;
  }
}

// A region from a server becomes part of a host name.
TEST(S3Endpoint, TakesNoServersWordForMoreThanARegion) {
  EXPECT_TRUE(S3Endpoint::isRegion("us-gov-west-1"));
  for (const char* text : {"", "evil.example/", "a.b", "-x", "EU", "a b", "a\r\nb"}) {
    EXPECT_FALSE(S3Endpoint::isRegion(text)) << text;
  }
  EXPECT_FALSE(S3Endpoint::isRegion(std::string(65, 'a')));
}

TEST(S3PartSizes, TenThousandPartsOfAStreamHoldTheLongestObject) {
  constexpr uint64_t kFirst = uint64_t{5} << 20;
  uint64_t sum = 0;
  uint64_t before = 0;
  for (uint32_t number = 1; number <= kS3MostParts; ++number) {
    const uint64_t size = s3StreamPartSize(number, kFirst);
    EXPECT_GE(size, before);
    EXPECT_LE(size, kS3LongestPart);
    sum += before = size;
  }
  EXPECT_EQ(s3StreamPartSize(1, kFirst), kFirst);
  EXPECT_GE(sum, kS3LongestObject);
}

TEST(S3PartSizes, PartsOfKnownLengthAreNeverTooMany) {
  constexpr uint64_t kWanted = uint64_t{32} << 20;
  for (const uint64_t length : {uint64_t{1}, kWanted * 10000, kWanted * 10000 + 1, kS3LongestObject}) {
    const uint64_t part = s3PartSize(length, kWanted);
    EXPECT_LE((length + part - 1) / part, kS3MostParts) << length;
    EXPECT_GE(part, kWanted);
    EXPECT_LE(part, kS3LongestPart);
  }
  EXPECT_EQ(s3PartSize(kWanted * 10000, kWanted), kWanted);
}

// A stream that gives `content` in pieces of up to 777 bytes.
class Given {
 public:
  explicit Given(std::string content) : iContent(std::move(content)) {}
  size_t operator()(std::byte* target, size_t capacity) {
    const size_t count = std::min({capacity, size_t{777}, iContent.size() - iTaken});
    std::copy_n(reinterpret_cast<const std::byte*>(iContent.data()) + iTaken, count, target);
    iTaken += count;
    return count;
  }

 private:
  std::string iContent;
  size_t iTaken = 0;
};

std::string wholeBody(HTTPBody& body) {
  std::string content;
  std::array<std::byte, 999> piece;
  for (size_t count = 0; (count = body.source(piece.data(), piece.size())) > 0;)
    content.append(reinterpret_cast<const char*>(piece.data()), count);
  return content;
}

// Worked out by hand from the digests of "first part" and "second".
TEST(S3Digest, TheTagOfAnObjectFollowsFromThoseOfItsParts) {
  const std::vector<std::string> tags = {"\"550cf6b6e60f65a0e3104a26e70fea42\"",
                                         "A9F0E61A137D86AA9DB53465E0801612"};
  EXPECT_EQ(s3TagOfParts(tags), "\"93f26da1291790e1134809a03511cd15-2\"");
  for (const char* other :
       {"", "\"\"", "\"550cf6b6e60f65a0e3104a26e70fea4\"", "\"550cf6b6e60f65a0e3104a26e70fea4x\"",
        "\"550cf6b6e60f65a0e3104a26e70fea42-2\""}) {
    EXPECT_FALSE(s3TagOfParts(std::vector<std::string>{tags[0], other})) << other;
  }
}

TEST(S3PartBuffer, GivesWhatItTookFromMemoryAndFromAFile) {
  std::string content;
  for (size_t at = 0; at < 100000; ++at) content += static_cast<char>('a' + at % 23);
  for (const uint64_t memory : {uint64_t{1} << 20, uint64_t{10}, uint64_t{0}}) {
    S3PartBuffer buffer(S3PartBuffer::Hashing::kWanted, memory);
    const S3PartBuffer::Next next = Given(content);
    NSErrorRef error;
    for (const auto& [start, isLast] : {std::pair{size_t{0}, false}, {size_t{60000}, true}}) {
      const std::string part = content.substr(start, 60000);
      buffer.clear();
      for (const uint64_t size : {uint64_t{10000}, uint64_t{60000}}) {
        ASSERT_TRUE(buffer.fill(
            next, size, [] { return true; }, &error));
      }
      EXPECT_EQ(buffer.length(), part.size());
      EXPECT_EQ(buffer.isLast(), isLast);
      EXPECT_EQ(buffer.hash(), s3SHA256(part));
      HTTPBody body = buffer.body();
      EXPECT_EQ(body.length, part.size());
      for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(wholeBody(body), part);
        EXPECT_TRUE(body.rewind());
      }
    }
  }
}

TEST(S3PartBuffer, HashesOnlyWhereThatIsWanted) {
  S3PartBuffer buffer(S3PartBuffer::Hashing::kNotWanted);
  NSErrorRef error;
  ASSERT_TRUE(buffer.fill(
      Given("content"), 100, [] { return true; }, &error));
  EXPECT_EQ(buffer.length(), 7u);
  EXPECT_EQ(buffer.hash(), "");
}

TEST(S3Knowledge, ForgetsFoldersAfterAMinute) {
  ManualClock clock;
  S3Knowledge knowledge;
  const S3Path folder = S3Path::parse("/b/f");
  EXPECT_EQ(knowledge.folder(folder), S3Knowledge::Folder::kUnknown);
  knowledge.noteFolder(folder, true);
  clock.advance(30);
  knowledge.noteFolder(folder, false);
  EXPECT_EQ(knowledge.folder(folder), S3Knowledge::Folder::kMarked);
  clock.advance(40);
  EXPECT_EQ(knowledge.folder(folder), S3Knowledge::Folder::kThere) << "its marker was seen too long ago";
  clock.advance(30);
  EXPECT_EQ(knowledge.folder(folder), S3Knowledge::Folder::kUnknown);
}

TEST(S3Knowledge, RemembersObjectsForAMinute) {
  ManualClock clock;
  S3Knowledge knowledge;
  const S3Path seen = S3Path::parse("/b/f/x");
  EXPECT_FALSE(knowledge.hasSeenObject(seen));
  knowledge.forgetObject(seen);
  knowledge.noteObject(seen);
  EXPECT_TRUE(knowledge.hasSeenObject(seen));
  for (const char* other : {"/b/f/y", "/b2/f/x", "/b/f"})
    EXPECT_FALSE(knowledge.hasSeenObject(S3Path::parse(other))) << other;
  knowledge.forgetObject(seen);
  EXPECT_FALSE(knowledge.hasSeenObject(seen));
  knowledge.noteObject(seen);
  clock.advance(61);
  EXPECT_FALSE(knowledge.hasSeenObject(seen)) << "it may be gone by now";
}

TEST(S3Knowledge, ForgetsWhatLiesBelowButNotWhatIsNamedAlike) {
  S3Knowledge knowledge;
  for (const char* path : {"/b/f", "/b/f/g", "/b/f/g/h", "/b/f2", "/b/f-x", "/b2/f"})
    knowledge.noteFolder(S3Path::parse(path), false);
  knowledge.forgetFolders(S3Path::parse("/b/f"));
  for (const char* path : {"/b/f", "/b/f/g", "/b/f/g/h"})
    EXPECT_EQ(knowledge.folder(S3Path::parse(path)), S3Knowledge::Folder::kUnknown) << path;
  for (const char* path : {"/b/f2", "/b/f-x", "/b2/f"})
    EXPECT_EQ(knowledge.folder(S3Path::parse(path)), S3Knowledge::Folder::kThere) << path;
}

TEST(S3Engine, TellsWhatItsProtocolCanDo) {
  registerS3Engine();
  KCCredentials credentials;
  credentials.setProtocol(kProtocolS3);
  const auto engine = EngineRegistry::engineForCredentials(credentials);
  ASSERT_NE(engine, nullptr);
  EXPECT_FALSE(engine->supportsUploadByteOffset());
  EXPECT_TRUE(engine->keepsNamesOfNewItems());
  EXPECT_EQ(engine->sessionCap(), 16);
}

}  // namespace
}  // namespace ombra
