#include "frontend/S3Settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "frontend/SharedConfiguration.h"
#include "tests/frontend/Surroundings.h"

namespace ombra {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr auto kAbsent = std::nullopt;

// A home with the usual files, and the variables that a test sets.
class S3Gathered : public testing::Test {
 protected:
  S3Gathered() {
    mkdir((iHome / ".aws").c_str(), 0700);
    iSurroundings.homeFolder = iHome.path();
  }
  void keys(const std::string& text) { writeFile(iHome / ".aws/credentials", text); }
  void configuration(const std::string& text) { writeFile(iHome / ".aws/config", text); }
  void set(const std::string& name, const std::string& value) { iSurroundings.variables[name] = value; }

  const S3Settings& settle(const std::string& url = "s3://bucket") {
    Failure failure;
    const auto parsed = parseRemoteURL(url, &failure);
    EXPECT_TRUE(parsed) << failure.text();
    auto settings = settleS3(*parsed, iOptions, iSurroundings, &iFailure);
    EXPECT_TRUE(settings) << iFailure.text();
    iSettings = settings ? std::move(*settings) : S3Settings();
    return iSettings;
  }
  Failure refused(const std::string& url = "s3://bucket") {
    Failure failure;
    const auto parsed = parseRemoteURL(url, &failure);
    EXPECT_TRUE(parsed) << failure.text();
    EXPECT_FALSE(settleS3(*parsed, iOptions, iSurroundings, &iFailure));
    return iFailure;
  }

  TemporaryFolder iHome;
  S3Options iOptions;
  S3Surroundings iSurroundings;
  S3Settings iSettings;
  Failure iFailure;
};

TEST_F(S3Gathered, TheKeyOfTheURLWinsOverAllOthers) {
  set("AWS_ACCESS_KEY_ID", "ENV");
  set("AWS_SECRET_ACCESS_KEY", "env-secret");
  set("AWS_SESSION_TOKEN", "env-token");
  settle("s3://KEY:se%2Fcret@bucket");
  EXPECT_EQ(iSettings.accessKey, "KEY");
  EXPECT_EQ(iSettings.secret, "se/cret");
  EXPECT_EQ(iSettings.sessionToken, kAbsent) << "it belongs to another key";
}

TEST_F(S3Gathered, AKeyOfTheURLAloneIsLeftToBeAskedFor) {
  settle("s3://KEY@bucket");
  EXPECT_EQ(iSettings.accessKey, "KEY");
  EXPECT_EQ(iSettings.secret, kAbsent);
}

TEST_F(S3Gathered, TheEnvironmentWinsOverTheFiles) {
  keys("[default]\naws_access_key_id = FILE\naws_secret_access_key = file-secret\n");
  set("AWS_ACCESS_KEY_ID", "ENV");
  set("AWS_SECRET_ACCESS_KEY", "env-secret");
  set("AWS_SESSION_TOKEN", "env-token");
  settle();
  EXPECT_EQ(iSettings.accessKey, "ENV");
  EXPECT_EQ(iSettings.secret, "env-secret");
  EXPECT_EQ(iSettings.sessionToken, "env-token");
}

TEST_F(S3Gathered, HalfAKeyInTheEnvironmentCountsForNothing) {
  keys("[default]\naws_access_key_id = FILE\naws_secret_access_key = file-secret\n");
  set("AWS_ACCESS_KEY_ID", "ENV");
  EXPECT_EQ(settle().accessKey, "FILE");
}

TEST_F(S3Gathered, ANamedProfileWinsOverTheEnvironment) {
  keys(
      "[default]\naws_access_key_id = DEFAULT\naws_secret_access_key = d\n"
      "[work]\naws_access_key_id = WORK\naws_secret_access_key = w\naws_session_token = t\n");
  set("AWS_ACCESS_KEY_ID", "ENV");
  set("AWS_SECRET_ACCESS_KEY", "e");
  iOptions.profile = "work";
  settle();
  EXPECT_EQ(iSettings.accessKey, "WORK");
  EXPECT_EQ(iSettings.secret, "w");
  EXPECT_EQ(iSettings.sessionToken, "t");
}

TEST_F(S3Gathered, TheProfileOfTheEnvironmentIsTakenInsteadOfTheDefault) {
  keys(
      "[default]\naws_access_key_id = DEFAULT\naws_secret_access_key = d\n"
      "[work]\naws_access_key_id = WORK\naws_secret_access_key = w\n");
  EXPECT_EQ(settle().accessKey, "DEFAULT");
  set("AWS_PROFILE", "work");
  EXPECT_EQ(settle().accessKey, "WORK");
}

TEST_F(S3Gathered, AProfileMayStandInTheConfigurationAlone) {
  configuration(
      "[profile work]\naws_access_key_id = WORK\naws_secret_access_key = w\nregion = eu-central-1\n"
      "endpoint_url = https://s3.example\ns3 =\n  addressing_style = path\n");
  iOptions.profile = "work";
  settle();
  EXPECT_EQ(iSettings.accessKey, "WORK");
  EXPECT_EQ(iSettings.region, "eu-central-1");
  EXPECT_EQ(iSettings.endpoint, "https://s3.example:443");
  EXPECT_EQ(iSettings.pathStyle, true);
}

TEST_F(S3Gathered, OtherFilesAreNamedByTheEnvironment) {
  writeFile(iHome / "k", "[default]\naws_access_key_id = K\naws_secret_access_key = s\n");
  writeFile(iHome / "c", "[default]\nregion = from-c\n");
  set("AWS_SHARED_CREDENTIALS_FILE", iHome / "k");
  set("AWS_CONFIG_FILE", "~/c");
  EXPECT_EQ(settle().accessKey, "K");
  EXPECT_EQ(iSettings.region, "from-c");
}

TEST_F(S3Gathered, TheRegionComesFromOptionThenEnvironmentThenProfile) {
  configuration("[default]\nregion = profile-1\n");
  EXPECT_EQ(settle("s3://K:s@b").region, "profile-1");
  set("AWS_DEFAULT_REGION", "default-1");
  EXPECT_EQ(settle("s3://K:s@b").region, "default-1");
  set("AWS_REGION", "region-1");
  EXPECT_EQ(settle("s3://K:s@b").region, "region-1");
  iOptions.region = "option-1";
  EXPECT_EQ(settle("s3://K:s@b").region, "option-1");
}

TEST_F(S3Gathered, TheEndpointComesFromOptionThenEnvironmentThenProfile) {
  configuration("[default]\nendpoint_url = http://plain\nservices = mine\n");
  EXPECT_EQ(settle("s3://K:s@b").endpoint, "http://plain:80");
  configuration(
      "[default]\nendpoint_url = http://plain\nservices = mine\n"
      "[services mine]\nother =\n  endpoint_url = http://other\ns3 =\n  endpoint_url = http://service\n");
  EXPECT_EQ(settle("s3://K:s@b").endpoint, "http://service:80");
  set("AWS_ENDPOINT_URL", "http://env");
  EXPECT_EQ(settle("s3://K:s@b").endpoint, "http://env:80");
  set("AWS_ENDPOINT_URL_S3", "http://env-s3");
  EXPECT_EQ(settle("s3://K:s@b").endpoint, "http://env-s3:80");
  iOptions.endpoint = "http://option";
  EXPECT_EQ(settle("s3://K:s@b").endpoint, "http://option:80");
}

struct Endpoint {
  const char* text;
  const char* endpoint;
  const char* address;
  int port;
  bool isEncrypted;
};

TEST_F(S3Gathered, AnEndpointGivesAddressPortAndWhetherThereIsTLS) {
  const Endpoint table[] = {
      {"https://s3.example", "https://s3.example:443", "s3.example", 443, true},
      {"HTTPS://s3.example:8443/", "https://s3.example:8443", "s3.example", 8443, true},
      {"http://127.0.0.1:9000", "http://127.0.0.1:9000", "127.0.0.1", 9000, false},
      {"http://[::1]:9000", "http://[::1]:9000", "::1", 9000, false},
  };
  for (const Endpoint& row : table) {
    iOptions.endpoint = row.text;
    settle("s3://K:s@b");
    EXPECT_EQ(iSettings.endpoint, row.endpoint);
    EXPECT_EQ(iSettings.address, row.address);
    EXPECT_EQ(iSettings.port, row.port);
    EXPECT_EQ(iSettings.isEncrypted, row.isEncrypted);
  }
}

TEST_F(S3Gathered, WithoutAnEndpointTheServerIsAmazons) {
  settle("s3://K:s@b");
  EXPECT_EQ(iSettings.endpoint, kAbsent);
  EXPECT_EQ(iSettings.address, "s3.amazonaws.com");
  EXPECT_EQ(iSettings.port, 0);
  EXPECT_EQ(iSettings.pathStyle, kAbsent);
}

TEST_F(S3Gathered, WhatIsNoEndpointIsRefused) {
  for (const char* text : {"s3.example", "127.0.0.1:9000", "ftp://s3.example", "https://", "https://a/b",
                           "https://u:p@a", "https://a b", "https://a?x", "https://a:0"}) {
    iOptions.endpoint = text;
    EXPECT_EQ(refused("s3://K:s@b").code, kExitUsage) << text;
    EXPECT_THAT(iFailure.text(), HasSubstr("endpoint")) << text;
  }
}

TEST_F(S3Gathered, WhatIsNoRegionIsRefused) {
  for (const char* text : {"eu central", "evil.example/", "a@b", "a\nb"}) {
    iOptions.region = text;
    EXPECT_EQ(refused("s3://K:s@b").code, kExitUsage) << text;
  }
}

TEST_F(S3Gathered, WithoutAKeyAllPlacesAreNamed) {
  EXPECT_EQ(refused().code, kExitLoginRefused);
  for (const char* part : {"AWS_ACCESS_KEY_ID", "--profile", "s3://KEY@bucket", "default"})
    EXPECT_THAT(iFailure.text(), HasSubstr(part));
}

TEST_F(S3Gathered, AWayToAKeyThatIsNotSupportedIsNamed) {
  configuration("[profile work]\nsso_session = firm\n");
  iOptions.profile = "work";
  EXPECT_EQ(refused().code, kExitLoginRefused);
  EXPECT_THAT(iFailure.text(), HasSubstr("sso_session"));
  EXPECT_THAT(iFailure.text(), HasSubstr("AWS_SESSION_TOKEN"));
}

TEST_F(S3Gathered, AProfileThatDoesNotExistIsRefused) {
  iOptions.profile = "wrok";
  EXPECT_EQ(refused("s3://K:s@b").code, kExitUsage);
  EXPECT_THAT(iFailure.text(), HasSubstr("“wrok”"));
  iOptions.profile.reset();
  set("AWS_PROFILE", "wrok");
  EXPECT_EQ(refused("s3://K:s@b").code, kExitUsage);
}

TEST_F(S3Gathered, NoFailureShowsASecret) {
  keys("[default]\naws_secret_access_key = hunter2\n");
  EXPECT_THAT(refused().text(), Not(HasSubstr("hunter2")));
}

TEST(SharedConfiguration, IsReadWithCommentsAndNestedLines) {
  const SharedConfiguration read(
      "before = nothing\n"
      "# comment\n; comment\n"
      "[ one ]\r\n"
      "a=1\r\n"
      "  b =  2 # comment\n"
      "c = x#y;z ; comment\n"
      "empty =\n"
      "a = 3\n"
      "nonsense\n"
      "[two]\n"
      "s3 =\n"
      "    inner = in\n"
      "\tother=out\n"
      "plain = p\n"
      "    stray = s\n"
      "[one]\n"
      "d = 4");
  EXPECT_TRUE(read.hasSection("one"));
  EXPECT_FALSE(read.hasSection(""));
  EXPECT_FALSE(read.hasSection("three"));
  const auto value = [&read](const char* section, const char* name) {
    const std::string* found = read.value(section, name);
    return found == nullptr ? std::string("(none)") : *found;
  };
  EXPECT_EQ(value("one", "a"), "3");
  EXPECT_EQ(value("one", "b"), "2");
  EXPECT_EQ(value("one", "c"), "x#y;z");
  EXPECT_EQ(value("one", "empty"), "(none)");
  EXPECT_EQ(value("one", "d"), "4");
  EXPECT_EQ(value("two", "s3.inner"), "in");
  EXPECT_EQ(value("two", "s3.other"), "out");
  EXPECT_EQ(value("two", "stray"), "s");
  EXPECT_EQ(value("", "before"), "(none)");
}

TEST(SharedConfiguration, OfAMissingFileOrAFolderIsEmpty) {
  const TemporaryFolder folder;
  EXPECT_FALSE(SharedConfiguration::ofFile(folder / "none").hasSection("a"));
  EXPECT_FALSE(SharedConfiguration::ofFile(folder.path()).hasSection("a"));
}

TEST(SharedConfiguration, IsReadToItsFirstMiBAlone) {
  const SharedConfiguration read("[a]\nx = 1\n#" + std::string(1 << 20, 'x') + "\n[b]\n");
  EXPECT_TRUE(read.hasSection("a"));
  EXPECT_FALSE(read.hasSection("b"));
}

}  // namespace
}  // namespace ombra
