// Connections that break, servers that say nothing or nonsense, and calls from other threads.
#include <thread>

#include "tests/http/ClientFixture.h"

namespace ombra {
namespace {

using testing::ElementsAre;

TEST_F(HTTPClientTest, AKeptConnectionThatTheServerClosedIsReplacedWithoutAFailure) {
  serve([](const HTTPSeen&) {
    HTTPReply reply = httpReply(200);
    reply.closes = true;
    return reply;
  });
  EXPECT_EQ(statusOf(request("GET")), 200);
  EXPECT_TRUE(client().isAlive());
  EXPECT_EQ(statusOf(request("GET")), 200);
  EXPECT_EQ(server->connections(), 2);
}

TEST_F(HTTPClientTest, WhatMayHaveArrivedIsNotSentTwiceWhereTwiceIsOnceTooOften) {
  for (const char* method : {"DELETE", "MOVE", "MKCOL", "POST"}) {
    SCOPED_TRACE(method);
    serve([](const HTTPSeen& seen) { return seen.target == "/first" ? httpReply(200) : httpHangUp(); });
    ASSERT_EQ(statusOf(request("GET", "/first")), 200) << error->description();
    EXPECT_EQ(statusOf(request(method, "/second")), 0);
    EXPECT_EQ(code(), kQuarnKitConnectionLost);
    EXPECT_EQ(server->lines().size(), 2u);
    renewClient();
  }
}

TEST_F(HTTPClientTest, WhatChangesNothingIsSentAgainOverANewConnection) {
  serve([](const HTTPSeen& seen) {
    return seen.connection == 1 && seen.target == "/second" ? httpHangUp() : httpReply(200);
  });
  ASSERT_EQ(statusOf(request("GET", "/first")), 200);
  EXPECT_EQ(statusOf(request("PROPFIND", "/second")), 200);
  EXPECT_THAT(server->lines(), ElementsAre("GET /first", "PROPFIND /second", "PROPFIND /second"));
}

TEST_F(HTTPClientTest, ASilentServerIsLostAfterTheLimit) {
  idleLimit = std::chrono::milliseconds(150);
  serve([](const HTTPSeen&) { return httpSilence(); });
  EXPECT_EQ(statusOf(request("GET")), 0);
  EXPECT_EQ(code(), kQuarnKitTimedOut);
  EXPECT_FALSE(client().isAlive());
  EXPECT_EQ(statusOf(request("GET")), 0);
  EXPECT_EQ(code(), kQuarnKitConnectionLost);
  server->waitForRequests(1);  // it may not have looked within the limit
  EXPECT_EQ(server->seen().size(), 1u);
}

// Lets the server speak after it was silent for so many looks at the cancel mark.
class LateAnswer final : public TransferControl {
 public:
  void progress(uint64_t) override {}
  bool shouldCancel() const override {
    if (++iLooks == 4) answer.set_value();
    return false;
  }
  mutable std::promise<void> answer;

 private:
  mutable int iLooks = 0;
};

TEST_F(HTTPClientTest, ARequestMayHaveMorePatienceThanTheLimit) {
  idleLimit = std::chrono::milliseconds(100);
  LateAnswer late;
  serve([&](const HTTPSeen&) {
    HTTPReply reply;
    reply.later = httpReply(201).bytes;
    reply.when = late.answer.get_future().share();
    return reply;
  });
  HTTPRequest move = request("MOVE");
  move.patience = std::chrono::seconds(20);
  move.control = &late;
  EXPECT_EQ(statusOf(move), 201);
}

TEST_F(HTTPClientTest, CancellationEndsTheRequestAndTheNextOneWorks) {
  serve([](const HTTPSeen& seen) { return seen.target == "/slow" ? httpSilence() : httpReply(200); });
  HTTPRequest slow = request("GET", "/slow");
  slow.control = &control;
  std::thread cancels([&] {
    server->waitForRequests(1);
    control.cancelled = true;
  });
  EXPECT_EQ(statusOf(slow), 0);
  EXPECT_EQ(code(), kQuarnKitCancelled);
  cancels.join();
  EXPECT_TRUE(client().isAlive());
  EXPECT_EQ(statusOf(request("GET", "/next")), 200);
}

TEST_F(HTTPClientTest, AnInterruptEndsTheRunningRequestAndEveryLaterOne) {
  serve([](const HTTPSeen&) { return httpSilence(); });
  client();
  std::thread interrupts([&] {
    server->waitForRequests(1);
    client().interrupt();
  });
  EXPECT_EQ(statusOf(request("GET")), 0);
  EXPECT_EQ(code(), kQuarnKitConnectionLost);
  interrupts.join();
  EXPECT_FALSE(client().isAlive());
  EXPECT_EQ(statusOf(request("GET")), 0);
  EXPECT_EQ(server->seen().size(), 1u);
}

TEST_F(HTTPClientTest, ATakerEndsTheRequest) {
  serve([](const HTTPSeen&) { return httpReply(200, std::string(3'000'000, 'x')); });
  HTTPRequest get = request("GET");
  int calls = 0;
  get.take = [&](const HTTPResponse&, std::span<const std::byte>) { return ++calls < 2; };
  EXPECT_EQ(statusOf(get), 0);
  EXPECT_EQ(code(), kQuarnKitCancelled);
  EXPECT_EQ(calls, 2);
}

TEST_F(HTTPClientTest, ABodyThatBreaksOffIsALostConnectionAndItsBytesWereTaken) {
  serve([](const HTTPSeen&) {
    HTTPReply reply = httpReply(200, std::string(1000, 'x'));
    reply.bytes.resize(reply.bytes.size() - 400);
    reply.closes = true;
    return reply;
  });
  HTTPRequest get = request("GET");
  size_t taken = 0;
  get.take = [&](const HTTPResponse&, std::span<const std::byte> piece) {
    taken += piece.size();
    return true;
  };
  EXPECT_EQ(statusOf(get), 0);
  EXPECT_EQ(code(), kQuarnKitConnectionLost);
  EXPECT_EQ(taken, 600u);
}

TEST_F(HTTPClientTest, ChunksThatBreakOffAreALostConnection) {
  serve([](const HTTPSeen&) {
    HTTPReply reply;
    reply.bytes = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n";
    reply.closes = true;
    return reply;
  });
  EXPECT_EQ(statusOf(request("GET")), 0);
  EXPECT_EQ(code(), kQuarnKitConnectionLost);
}

struct Nonsense {
  std::string name;
  std::string bytes;
};

class HTTPClientNonsense : public HTTPClientTest, public testing::WithParamInterface<Nonsense> {};

TEST_P(HTTPClientNonsense, IsAProtocolError) {
  serve([](const HTTPSeen&) {
    HTTPReply reply;
    reply.bytes = GetParam().bytes;
    reply.closes = true;
    return reply;
  });
  HTTPRequest get = request("GET");
  get.longestBody = 1000;
  EXPECT_EQ(statusOf(get), 0);
  EXPECT_EQ(code(), kQuarnKitProtocolError) << error->description();
}

std::string manyHeaders() {
  std::string text = "HTTP/1.1 200 OK\r\n";
  for (int i = 0; i < 2000; ++i) text += "X: y\r\n";
  return text + "\r\n";
}

INSTANTIATE_TEST_SUITE_P(
    Answers, HTTPClientNonsense,
    testing::Values(Nonsense{"AnotherProtocol", "220 ftp.example.org ready\r\n"},
                    Nonsense{"ManyHeaders", manyHeaders()},
                    Nonsense{"ALongHeader",
                             "HTTP/1.1 200 OK\r\nX: " + std::string(300'000, 'x') + "\r\n\r\n"},
                    Nonsense{"ALengthThatNothingHas",
                             "HTTP/1.1 200 OK\r\nContent-Length: "
                             "99999999999999999999\r\n\r\nhello"},
                    Nonsense{"ALengthBeyondAllOffsets",
                             "HTTP/1.1 200 OK\r\nContent-Length: "
                             "9223372036854775808\r\n\r\nhello"},
                    Nonsense{"ANegativeLength", "HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\nhello"},
                    Nonsense{"ALengthInWords", "HTTP/1.1 200 OK\r\nContent-Length: five\r\n\r\nhello"},
                    Nonsense{"ALongBody", httpReply(200, std::string(1001, 'x')).bytes},
                    Nonsense{"ALongBodyOfUnknownLength", "HTTP/1.1 200 OK\r\n\r\n" + std::string(5000, 'x')}),
    [](const auto& test) { return test.param.name; });

TEST_F(HTTPClientTest, ALengthThatMakesNoSenseIsRefusedWhereThereIsNoBodyToo) {
  serve([](const HTTPSeen&) {
    HTTPReply reply;
    reply.bytes = "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\n\r\n";
    return reply;
  });
  EXPECT_EQ(statusOf(request("HEAD")), 0);
  EXPECT_EQ(code(), kQuarnKitProtocolError);
}

TEST_F(HTTPClientTest, ALongErrorDocumentIsCut) {
  serve([](const HTTPSeen&) { return httpReply(500, std::string(200'000, 'x')); });
  EXPECT_EQ(statusOf(request("GET")), 500);
  EXPECT_EQ(response.body.size(), 64u * 1024u);
  EXPECT_EQ(statusOf(request("GET")), 500);
  EXPECT_EQ(server->connections(), 1);
}

TEST_F(HTTPClientTest, AnEndlessErrorDocumentIsNotReadToItsEnd) {
  serve([](const HTTPSeen&) { return httpReply(500, std::string(30'000'000, 'x')); });
  EXPECT_EQ(statusOf(request("GET")), 500);
  EXPECT_EQ(response.body.size(), 64u * 1024u);
}

TEST_F(HTTPClientTest, AServerThatCannotBeReachedIsTold) {
  serve([](const HTTPSeen&) { return httpReply(200); });
  server->stop();
  EXPECT_EQ(statusOf(request("GET")), 0);
  EXPECT_EQ(code(), kQuarnKitCouldNotConnect);
  EXPECT_TRUE(client().isAlive());
}

TEST_F(HTTPClientTest, AServerThatIsGoneAfterItAnsweredIsALostConnection) {
  serve([](const HTTPSeen&) { return httpReply(200); });
  EXPECT_EQ(statusOf(request("GET")), 200);
  server->stop();
  EXPECT_EQ(statusOf(request("GET")), 0);
  EXPECT_EQ(code(), kQuarnKitConnectionLost);
}

TEST_F(HTTPClientTest, ASourceThatFailsNeverLooksLikeAWholeBody) {
  serve([](const HTTPSeen&) { return httpReply(201); });
  for (const bool tellsLength : {true, false}) {
    HTTPRequest put = request("PUT");
    put.body = HTTPBody{};
    if (tellsLength) put.body->length = 1'000'000;
    int calls = 0;
    put.body->source = [&](std::byte* buffer, size_t) -> size_t {
      *buffer = std::byte{'x'};
      return ++calls == 1 ? 1 : kHTTPSourceFailed;
    };
    EXPECT_EQ(statusOf(put), 0);
    EXPECT_EQ(code(), kQuarnKitCancelled);
    server->waitForRequests(tellsLength ? 1 : 2);
    EXPECT_FALSE(server->seen().back().hasWholeBody);
  }
}

TEST_F(HTTPClientTest, ASourceThatEndsBeforeItsLengthFails) {
  serve([](const HTTPSeen&) { return httpReply(201); });
  HTTPRequest put = request("PUT");
  put.body = pieces("short", true, false);
  put.body->length = 10;
  EXPECT_EQ(statusOf(put), 0);
  EXPECT_EQ(code(), kQuarnKitCancelled);
}

TEST_F(HTTPClientTest, ARefusalBeforeTheEndOfTheBodyIsTheAnswer) {
  serve([](const HTTPSeen&) { return httpReply(201); });
  server->setBeforeBody([](const HTTPSeen&) { return httpReply(411, "", "Connection: close\r\n"); });
  HTTPRequest put = request("PUT");
  put.body = pieces(std::string(1'000'000, 'x'), false, false);
  EXPECT_EQ(statusOf(put), 411);
}

TEST_F(HTTPClientTest, ARefusalOfWhatAskedLeaveComesBeforeTheSourceIsAsked) {
  serve([](const HTTPSeen&) { return httpReply(201); });
  server->setBeforeBody([](const HTTPSeen&) { return httpReply(411, "", "Connection: close\r\n"); });
  int asked = 0;
  HTTPRequest put = request("PUT");
  put.body = HTTPBody{};
  put.body->source = [&asked](std::byte*, size_t) -> size_t {
    ++asked;
    return 0;
  };
  put.asksLeave = true;
  EXPECT_EQ(statusOf(put), 411);
  EXPECT_EQ(asked, 0);
}

TEST_F(HTTPClientTest, OtherSchemesAreRefused) {
  serve([](const HTTPSeen&) { return httpReply(200); });
  for (const char* url :
       {"file:///etc/passwd", "ftp://127.0.0.1/", "http://user@127.0.0.1/", "http://", "x"}) {
    HTTPRequest get = request("GET");
    get.url = url;
    EXPECT_EQ(statusOf(get), 0) << url;
    EXPECT_EQ(code(), kQuarnKitProtocolError) << url;
  }
}

}  // namespace
}  // namespace ombra
