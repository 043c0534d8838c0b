// Challenges, and what is answered to them.
#include "remote/http/HTTPAuthenticator.h"
#include "remote/http/HTTPURL.h"
#include "tests/http/ClientFixture.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

TEST(HTTPChallenges, AreReadFromOneHeaderOrMany) {
  const auto two =
      parseHTTPChallenges(R"(Digest realm="a, \"b\"", nonce=abc, Basic realm="c", charset="UTF-8")");
  ASSERT_EQ(two.size(), 2u);
  EXPECT_EQ(two[0].scheme, "digest");
  EXPECT_EQ(two[0].parameters.at("realm"), "a, \"b\"");
  EXPECT_EQ(two[0].parameters.at("nonce"), "abc");
  EXPECT_EQ(two[1].scheme, "basic");
  EXPECT_EQ(two[1].parameters.at("charset"), "UTF-8");
  const auto bare = parseHTTPChallenges("Negotiate, NTLM abc==, Basic");
  ASSERT_EQ(bare.size(), 3u);
  EXPECT_EQ(bare[2].scheme, "basic");
}

TEST(HTTPChallenges, EndWhereTheyCannotBeRead) {
  EXPECT_TRUE(parseHTTPChallenges("").empty());
  EXPECT_TRUE(parseHTTPChallenges("=x").empty());
  EXPECT_EQ(parseHTTPChallenges("Basic realm=\"never ends").size(), 1u);
  std::string many = "Basic ";
  for (int i = 0; i < 1000; ++i) many += "p" + std::to_string(i) + "=x, ";
  EXPECT_LE(parseHTTPChallenges(many).at(0).parameters.size(), 32u);
}

struct DigestCase {
  const char* name;
  const char* password;
  const char* challenge;
  const char* clientNonce;
  const char* target;
  const char* response;
};

class HTTPDigest : public testing::TestWithParam<DigestCase> {};

// The examples of RFC 2617 and RFC 7616, and of the form without a quality of protection reckoned by hand.
TEST_P(HTTPDigest, AnswersAsTheExamplesDo) {
  HTTPAuthenticator authenticator("Mufasa", GetParam().password);
  authenticator.setClientNonce(GetParam().clientNonce);
  ASSERT_TRUE(authenticator.takeChallenges({GetParam().challenge}));
  const std::string text = authenticator.authorization("GET", GetParam().target);
  EXPECT_THAT(text, HasSubstr(std::string("response=\"") + GetParam().response + "\""));
  EXPECT_THAT(text, Not(HasSubstr(GetParam().password)));
}

INSTANTIATE_TEST_SUITE_P(
    Examples, HTTPDigest,
    testing::Values(
        DigestCase{"MD5", "Circle Of Life",
                   R"(Digest realm="testrealm@host.com", qop="auth,auth-int", )"
                   R"(nonce="dcd98b7102dd2f0e8b11d0f600bfb0c093", opaque="5ccc069c403ebaf9f0171e9517f40e41")",
                   "0a4f113b", "/dir/index.html", "6629fae49393a05397450978507c4ef1"},
        DigestCase{"MD5WithoutQuality", "Circle Of Life",
                   R"(Digest realm="testrealm@host.com", nonce="dcd98b7102dd2f0e8b11d0f600bfb0c093")",
                   "0a4f113b", "/dir/index.html", "670fd8c2df070c60b045671b8b24ff02"},
        DigestCase{"NewerMD5", "Circle of Life",
                   R"(Digest realm="http-auth@example.org", qop="auth, auth-int", algorithm=MD5, )"
                   R"(nonce="7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v", )"
                   R"(opaque="FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS")",
                   "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ", "/dir/index.html",
                   "8ca523f5e9506fed4657c9700eebdbec"},
        DigestCase{"SHA256", "Circle of Life",
                   R"(Digest realm="http-auth@example.org", qop="auth, auth-int", algorithm=SHA-256, )"
                   R"(nonce="7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v", )"
                   R"(opaque="FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS")",
                   "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ", "/dir/index.html",
                   "753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1"}),
    [](const auto& test) { return test.param.name; });

TEST(HTTPAuthenticator, CountsRequestsWithANonceAndBeginsAgainWithANewOne) {
  HTTPAuthenticator authenticator("u", "p");
  ASSERT_TRUE(authenticator.takeChallenges({R"(Digest realm="r", nonce="1", qop="auth")"}));
  EXPECT_THAT(authenticator.authorization("GET", "/"), HasSubstr("nc=00000001"));
  EXPECT_THAT(authenticator.authorization("GET", "/"), HasSubstr("nc=00000002"));
  ASSERT_TRUE(authenticator.takeChallenges({R"(Digest realm="r", nonce="2", qop="auth", stale=TRUE)"}));
  EXPECT_THAT(authenticator.authorization("GET", "/"), HasSubstr("nc=00000001"));
}

TEST(HTTPAuthenticator, PrefersWhatHidesThePasswordBest) {
  HTTPAuthenticator authenticator("u", "p");
  ASSERT_TRUE(
      authenticator.takeChallenges({R"(Basic realm="r")", R"(Digest realm="r", nonce="1", algorithm=MD5)",
                                    R"(Digest realm="r", nonce="2", algorithm=SHA-256)"}));
  EXPECT_THAT(authenticator.authorization("GET", "/"), HasSubstr("algorithm=SHA-256"));
}

TEST(HTTPAuthenticator, DoesNotAnswerWhatItCannot) {
  HTTPAuthenticator authenticator("u", "p");
  for (const char* challenge :
       {"", "Negotiate", R"(Digest realm="r", nonce="1", algorithm=SHA-512-256)", R"(Digest realm="r")",
        R"(Digest realm="r", nonce="1", qop="auth-int")", "Digest realm=\"a\x01\", nonce=\"1\""}) {
    EXPECT_FALSE(authenticator.takeChallenges({challenge})) << challenge;
    EXPECT_EQ(authenticator.authorization("GET", "/"), "");
  }
}

TEST(HTTPAuthenticator, NeverGivesThePasswordAwayAfterItsDigestWasRefused) {
  HTTPAuthenticator authenticator("u", "p");
  ASSERT_TRUE(authenticator.takeChallenges({R"(Digest realm="r", nonce="1")"}));
  EXPECT_FALSE(authenticator.takeChallenges({R"(Basic realm="r")"}));
  EXPECT_THAT(authenticator.authorization("GET", "/"), testing::StartsWith("Digest "));
}

class HTTPLoginTest : public HTTPClientTest {
 protected:
  HTTPLoginTest() {
    authentication = HTTPAuthentication::basicOrDigest;
    credentials->setUsername("user");
    credentials->setPassword(kPassword);
  }
  // Takes requests with the right header alone.
  void serveBasic() {
    serve([](const HTTPSeen& seen) {
      if (seen.header("authorization") == "Basic dXNlcjp0aGUtcGFzc3dvcmQ=") return httpReply(200, "in");
      return httpReply(401, "", "WWW-Authenticate: Basic realm=\"r\"\r\n");
    });
  }
  // Takes a nonce so often.
  void serveDigest(int requestsPerNonce) {
    const auto count = std::make_shared<int>(0);
    serve([requestsPerNonce, count](const HTTPSeen& seen) {
      const std::string nonce = "nonce=\"" + std::to_string(*count / requestsPerNonce) + "\"";
      const bool isKnown = seen.header("authorization").find(nonce) != std::string::npos;
      if (isKnown) {
        ++*count;
        return httpReply(200, "in");
      }
      const std::string stale = seen.header("authorization").empty() ? "" : ", stale=true";
      return httpReply(401, "",
                       "WWW-Authenticate: Digest realm=\"r\", qop=\"auth\", " + nonce + stale + "\r\n");
    });
  }
};

TEST_F(HTTPLoginTest, ThePasswordIsSentOnlyOnceTheServerHasAskedAndWithEachRequestThen) {
  serveBasic();
  EXPECT_EQ(statusOf(request("GET", "/1")), 200);
  EXPECT_EQ(statusOf(request("GET", "/2")), 200);
  EXPECT_THAT(server->lines(), ElementsAre("GET /1", "GET /1", "GET /2"));
  EXPECT_EQ(server->seen().at(0).header("authorization"), "");
  EXPECT_EQ(server->connections(), 1);
}

TEST_F(HTTPLoginTest, AWrongPasswordIsTriedOnce) {
  credentials->setPassword("another");
  serveBasic();
  EXPECT_EQ(statusOf(request("GET")), 401);
  EXPECT_EQ(server->seen().size(), 2u);
}

TEST_F(HTTPLoginTest, WithoutAUserNothingIsAnswered) {
  credentials->setUsername(std::nullopt);
  serveBasic();
  EXPECT_EQ(statusOf(request("GET")), 401);
  EXPECT_EQ(server->seen().size(), 1u);
}

TEST_F(HTTPLoginTest, ANewNonceIsTakenAndTheBodySentAgain) {
  serveDigest(2);
  EXPECT_EQ(statusOf(request("GET", "/1")), 200);
  EXPECT_EQ(statusOf(request("GET", "/2")), 200);
  HTTPRequest put = request("PUT", "/3");
  put.body = pieces("content", true, true);
  EXPECT_EQ(statusOf(put), 200);
  EXPECT_THAT(server->lines(), ElementsAre("GET /1", "GET /1", "GET /2", "PUT /3", "PUT /3"));
  EXPECT_EQ(server->seen().back().body, "content");
}

TEST_F(HTTPLoginTest, WhatCanBeSentOnceOnlyIsSentAfterTheServerWasAskedForANonce) {
  serveDigest(2);
  EXPECT_EQ(statusOf(request("GET", "/1")), 200);
  EXPECT_EQ(statusOf(request("GET", "/2")), 200);
  HTTPRequest put = request("PUT", "/3");
  put.body = pieces("content", false, false);
  EXPECT_EQ(statusOf(put), 200);
  EXPECT_THAT(server->lines(), ElementsAre("GET /1", "GET /1", "GET /2", "OPTIONS /3", "PUT /3"));
}

TEST_F(HTTPLoginTest, AFurtherConnectionNeedNotBeAskedByTheSameServer) {
  facts = std::make_shared<HTTPLoginFacts>();
  serveBasic();
  EXPECT_EQ(statusOf(request("GET", "/1")), 200);
  renewClient();
  EXPECT_EQ(statusOf(request("GET", "/2")), 200);
  EXPECT_THAT(server->lines(), ElementsAre("GET /1", "GET /1", "GET /2"));
}

TEST_F(HTTPLoginTest, AnotherServerIsNotSentThePasswordUnasked) {
  facts = std::make_shared<HTTPLoginFacts>();
  serveBasic();
  EXPECT_EQ(statusOf(request("GET", "/1")), 200);
  renewClient();
  const auto first = std::move(server);  // keeps its port
  serveBasic();
  EXPECT_EQ(statusOf(request("GET", "/2")), 200);
  ASSERT_EQ(server->seen().size(), 2u);
  EXPECT_EQ(server->seen().front().header("authorization"), "");
}

TEST_F(HTTPLoginTest, APasswordThatWasRefusedIsNotSentUnasked) {
  facts = std::make_shared<HTTPLoginFacts>();
  credentials->setPassword("another");
  serveBasic();
  EXPECT_EQ(statusOf(request("GET", "/1")), 401);
  renewClient();
  EXPECT_EQ(statusOf(request("GET", "/2")), 401);
  EXPECT_EQ(server->seen().at(2).header("authorization"), "");
}

TEST_F(HTTPLoginTest, APasswordThatIsNoLongerTakenIsSentOnceByEachConnection) {
  facts = std::make_shared<HTTPLoginFacts>();
  facts->tookPassword(HTTPURL::parse((serveBasic(), request("GET")).url)->origin());
  credentials->setPassword("another");
  EXPECT_EQ(statusOf(request("GET", "/1")), 401);
  EXPECT_EQ(server->seen().size(), 1u);
  renewClient();
  EXPECT_EQ(statusOf(request("GET", "/2")), 401);
  EXPECT_EQ(server->seen().at(1).header("authorization"), "");
}

TEST_F(HTTPLoginTest, AServerThatOnceOfferedDigestIsNeverSentThePasswordUnasked) {
  facts = std::make_shared<HTTPLoginFacts>();
  serveDigest(100);
  EXPECT_EQ(statusOf(request("GET", "/1")), 200);
  facts->tookPassword(HTTPURL::parse(request("GET").url)->origin());
  renewClient();
  EXPECT_EQ(statusOf(request("GET", "/2")), 200);
  EXPECT_EQ(server->seen().at(2).header("authorization"), "");
  for (const HTTPSeen& seen : server->seen())
    EXPECT_THAT(seen.header("authorization"), Not(HasSubstr("Basic")));
}

TEST_F(HTTPLoginTest, TheTranscriptNeverHoldsThePasswordInAnyForm) {
  for (const bool isVerbose : {false, true}) {
    credentials->setUseVerboseLogging(isVerbose);
    renewClient();
    serveBasic();
    EXPECT_EQ(statusOf(request("GET", "/1")), 200);
    renewClient();
    serveDigest(100);
    EXPECT_EQ(statusOf(request("GET", "/2")), 200);
    const std::string text = transcript->text();
    EXPECT_THAT(text, HasSubstr("> Authorization: ***\n"));
    for (const char* secret : {kPassword, "dXNlcjp0aGUtcGFzc3dvcmQ", "response="})
      EXPECT_THAT(text, Not(HasSubstr(secret)));
  }
}

}  // namespace
}  // namespace ombra
