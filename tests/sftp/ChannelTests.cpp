// Requests and replies: order, nonsense, silence, transcript.
#include "remote/sftp/SFTPChannel.h"

#include <gtest/gtest.h>

#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SFTPRequests.h"
#include "tests/sftp/SessionFixture.h"

namespace ombra::test {
namespace {

using Handler = PeerTransport::Handler;

class SFTPChannelTest : public ::testing::Test {
 protected:
  // A channel to a peer that answers with `handler`, after a version reply of its own.
  void make(Handler handler, std::string greeting = versionReply()) {
    auto transport = std::make_unique<PeerTransport>([=](const PeerRequest& request, PeerTransport& to) {
      if (request.type == kSFTPInit) {
        to.send(greeting);
      } else {
        handler(request, to);
      }
    });
    peer = transport.get();
    channel =
        std::make_unique<SFTPChannel>(std::move(transport), transcript, std::chrono::seconds(10), kIdleLimit);
    requests = std::make_unique<SFTPRequests>(*channel);
  }

  // Twice as long as a wait.
  static constexpr std::chrono::milliseconds kIdleLimit{200};

  PeerTransport* peer = nullptr;
  std::shared_ptr<LineTranscript> transcript = std::make_shared<LineTranscript>();
  std::unique_ptr<SFTPChannel> channel;
  std::unique_ptr<SFTPRequests> requests;
  NSErrorRef error;
};

const Handler kSilent = [](const PeerRequest&, PeerTransport&) {};

TEST_F(SFTPChannelTest, OpensWithVersionThree) {
  make(kSilent, versionReply({{"posix-rename@openssh.com", "1"}}));
  ASSERT_TRUE(channel->open(&error));
  ASSERT_EQ(1u, peer->requests().size());
  EXPECT_EQ(hex(std::string("\0\0\0\5\1\0\0\0\3", 9)), hex(peer->requests()[0].bytes));
  EXPECT_TRUE(channel->hasExtension("posix-rename@openssh.com", "1"));
  EXPECT_FALSE(channel->hasExtension("posix-rename@openssh.com", "2"));
  EXPECT_FALSE(channel->hasExtension("limits@openssh.com", "1"));
}

TEST_F(SFTPChannelTest, OpensHoweverTheVersionReplyIsCut) {
  for (size_t cut = 1; cut < 10; ++cut) {
    make(kSilent, versionReply({{"a@b", "1"}}));
    peer->setCut(cut);
    EXPECT_TRUE(channel->open(&error)) << cut;
  }
}

struct BadGreeting {
  const char* what;
  std::string bytes;
  QuarnKitErrorCode code;
};

TEST_F(SFTPChannelTest, RefusesGreetingsThatAreNone) {
  const BadGreeting table[] = {
      {"text of a login script", "Welcome to the machine\n", kQuarnKitProtocolError},
      {"version 2", packet(std::string(1, kSFTPVersion) + u32(2)), kQuarnKitNotSupported},
      {"a status first", statusReply(0, 0), kQuarnKitProtocolError},
      {"a version without its number", packet(std::string(1, kSFTPVersion)), kQuarnKitProtocolError},
      {"half an extension", packet(std::string(1, kSFTPVersion) + u32(3) + str("a")), kQuarnKitProtocolError},
      {"an empty packet", u32(0), kQuarnKitProtocolError},
      {"nothing", "", kQuarnKitConnectionLost},
  };
  for (const BadGreeting& row : table) {
    make(kSilent, row.bytes);
    error = nullptr;
    EXPECT_FALSE(channel->open(&error)) << row.what;
    EXPECT_EQ(row.code, codeOf(error)) << row.what;
  }
}

TEST_F(SFTPChannelTest, NamesALoginScriptAsTheLikelyReasonForText) {
  make(kSilent, "Welcome");
  EXPECT_FALSE(channel->open(&error));
  EXPECT_NE(std::string::npos, error->localizedDescription().find("\"Welc\""))
      << error->localizedDescription();
  EXPECT_NE(std::string::npos, error->localizedDescription().find("login script"));
}

TEST_F(SFTPChannelTest, ReportsWhatKeptTheTransportFromOpening) {
  make(kSilent);
  peer->openError = QuarnKitError::errorWithCode(kQuarnKitLoginFailed);
  EXPECT_FALSE(channel->open(&error));
  EXPECT_EQ(kQuarnKitLoginFailed, codeOf(error));
}

// The wire form of each request, byte for byte.
TEST_F(SFTPChannelTest, RequestsHaveTheirExactBytes) {
  make(kSilent);
  ASSERT_TRUE(channel->open(&error));
  SFTPAttributes size;
  size.size = 9;
  const auto request = [](uint8_t type, uint32_t id, const std::string& body) {
    return packet(std::string(1, static_cast<char>(type)) + u32(id) + body);
  };
  std::vector<std::string> expected = {
      request(kSFTPOpen, 1, str("/a") + u32(1) + u32(0)),
      request(kSFTPClose, 2, str("h")),
      request(kSFTPRead, 3, str("h") + u64(1ull << 40) + u32(77)),
      request(kSFTPOpendir, 4, str("/a")),
      request(kSFTPReaddir, 5, str("h")),
      request(kSFTPStat, 6, str("/a")),
      request(kSFTPLstat, 7, str("/a")),
      request(kSFTPFstat, 8, str("h")),
      request(kSFTPSetstat, 9, str("/a") + u32(1) + u64(9)),
      request(kSFTPFsetstat, 10, str("h") + u32(1) + u64(9)),
      request(kSFTPRealpath, 11, str("/a")),
      request(kSFTPReadlink, 12, str("/a")),
      request(kSFTPMkdir, 13, str("/a") + u32(0)),
      request(kSFTPRmdir, 14, str("/a")),
      request(kSFTPRemove, 15, str("/a")),
      request(kSFTPRename, 16, str("/a") + str("/b")),
      request(kSFTPSymlink, 17, str("target") + str("/link")),
      request(kSFTPExtended, 18, str("posix-rename@openssh.com") + str("/a") + str("/b")),
      request(kSFTPExtended, 19, str("statvfs@openssh.com") + str("/a")),
      request(kSFTPExtended, 20, str("limits@openssh.com")),
      request(kSFTPExtended, 21, str("expand-path@openssh.com") + str("~")),
      request(kSFTPExtended, 22, str("lsetstat@openssh.com") + str("/a") + u32(1) + u64(9)),
      request(kSFTPWrite, 23, str("h") + u64(5) + str("data")),
  };
  requests->open("/a", kSFTPOpenRead);
  requests->close("h");
  requests->read("h", 1ull << 40, 77);
  requests->opendir("/a");
  requests->readdir("h");
  requests->stat("/a");
  requests->lstat("/a");
  requests->fstat("h");
  requests->setstat("/a", size);
  requests->fsetstat("h", size);
  requests->realpath("/a");
  requests->readlink("/a");
  requests->mkdir("/a");
  requests->rmdir("/a");
  requests->remove("/a");
  requests->rename("/a", "/b");
  requests->symlink("target", "/link");
  requests->posixRename("/a", "/b");
  requests->statvfs("/a");
  requests->limits();
  requests->expandPath("~");
  requests->lsetstat("/a", size);
  const std::span<std::byte> room = channel->beginWrite("h", 5, 100);
  ASSERT_EQ(100u, room.size());
  std::copy_n(reinterpret_cast<const std::byte*>("data"), 4, room.begin());
  channel->finishWrite(4);
  peer->setCut(7);
  while (channel->outgoingSize() > 0) ASSERT_TRUE(channel->pump(std::chrono::milliseconds(0), &error));
  ASSERT_EQ(expected.size() + 1, peer->requests().size()) << "something extra was sent";
  for (size_t i = 0; i < expected.size(); ++i)
    EXPECT_EQ(hex(expected[i]), hex(peer->requests()[i + 1].bytes)) << i;
}

TEST_F(SFTPChannelTest, KeepsRepliesUntilTheyAreAskedForInWhateverOrderTheyCome) {
  std::vector<uint32_t> seen;
  make([&](const PeerRequest& request, PeerTransport& to) {
    seen.push_back(request.id);
    if (seen.size() < 3) return;
    for (auto id = seen.rbegin(); id != seen.rend(); ++id)
      to.send(handleReply(*id, "h" + std::to_string(*id)));
  });
  ASSERT_TRUE(channel->open(&error));
  const uint32_t first = requests->opendir("/1");
  const uint32_t second = requests->opendir("/2");
  const uint32_t third = requests->opendir("/3");
  for (const uint32_t id : {first, second, third}) {
    const auto reply = channel->wait(id, &error);
    ASSERT_TRUE(reply);
    EXPECT_EQ("h" + std::to_string(id), parseSFTPHandle(*reply));
  }
}

TEST_F(SFTPChannelTest, DropsTheReplyOfAnAbandonedRequestWheneverItComes) {
  make([](const PeerRequest& request, PeerTransport& to) { to.send(statusReply(request.id, 0)); });
  ASSERT_TRUE(channel->open(&error));
  const uint32_t early = requests->remove("/a");
  channel->abandon(early);
  const uint32_t late = requests->remove("/b");
  const uint32_t kept = requests->remove("/c");
  ASSERT_TRUE(channel->wait(kept, &error));
  EXPECT_TRUE(channel->hasReply(late));
  channel->abandon(late);
  EXPECT_FALSE(channel->hasReply(early));
  EXPECT_FALSE(channel->take(late));
  EXPECT_TRUE(channel->pump(std::chrono::milliseconds(0), &error));
}

struct BadReply {
  const char* what;
  std::function<std::string(uint32_t)> bytes;
};

TEST_F(SFTPChannelTest, FailsForGoodOnRepliesThatBelongToNothing) {
  const BadReply table[] = {
      {"another number", [](uint32_t id) { return statusReply(id + 1, 0); }},
      {"the same twice", [](uint32_t id) { return statusReply(id, 0) + statusReply(id, 0); }},
      {"no number", [](uint32_t) { return packet("e"); }},
      {"an impossible length", [](uint32_t) { return u32(0x7fffffff) + "x"; }},
      {"a second version", [](uint32_t) { return versionReply(); }},
  };
  for (const BadReply& row : table) {
    make([&](const PeerRequest& request, PeerTransport& to) { to.send(row.bytes(request.id)); });
    ASSERT_TRUE(channel->open(&error));
    const uint32_t id = requests->remove("/a");
    error = nullptr;
    while (channel->pump(std::chrono::milliseconds(1), &error)) {
    }
    EXPECT_EQ(kQuarnKitProtocolError, codeOf(error)) << row.what;
    NSErrorRef later;
    EXPECT_FALSE(channel->wait(id + 7, &later)) << row.what;
    EXPECT_EQ(error, later) << row.what;
  }
}

TEST_F(SFTPChannelTest, TimesOutWhenTheServerIsSilent) {
  make(kSilent);
  peer->setWhenIdle([](PeerTransport&) {});
  ASSERT_TRUE(channel->open(&error));
  EXPECT_FALSE(channel->wait(requests->remove("/a"), &error));
  EXPECT_EQ(kQuarnKitTimedOut, codeOf(error));
}

TEST_F(SFTPChannelTest, AServerThatTricklesIsNotSilent) {
  // Ten bytes a time, each half of the limit after the one before: slower than the limit as a whole.
  std::string reply;
  make([&](const PeerRequest& request, PeerTransport&) {
    reply = handleReply(request.id, std::string(40, 'h'));
  });
  peer->setWhenIdle([&](PeerTransport& to) {
    to.send(reply.substr(0, 10));
    reply.erase(0, std::min<size_t>(10, reply.size()));
  });
  ASSERT_TRUE(channel->open(&error));
  const auto begin = peer->now();
  EXPECT_TRUE(channel->wait(requests->opendir("/a"), &error));
  EXPECT_GT(peer->now() - begin, 2 * kIdleLimit);
}

TEST_F(SFTPChannelTest, TheWholeLoginIsLimitedHoweverMuchTheServerTrickles) {
  // A version packet of 900,000 bytes, one byte at each wait: never silent, and never done within the limit.
  auto transport = std::make_unique<PeerTransport>(kSilent);
  transport->send(u32(900000) + std::string(1, kSFTPVersion) + u32(3));
  transport->setWhenIdle([](PeerTransport& to) { to.send("x"); });
  channel = std::make_unique<SFTPChannel>(std::move(transport), transcript, std::chrono::seconds(2),
                                          std::chrono::seconds(60));
  EXPECT_FALSE(channel->open(&error));
  EXPECT_EQ(kQuarnKitTimedOut, codeOf(error));
}

TEST_F(SFTPChannelTest, APauseBetweenRequestsIsNoSilence) {
  make([](const PeerRequest& request, PeerTransport& to) { to.send(statusReply(request.id, 0)); });
  peer->setWhenIdle([](PeerTransport&) {});
  ASSERT_TRUE(channel->open(&error));
  peer->letPass(2 * kIdleLimit);
  EXPECT_TRUE(channel->pump(std::chrono::milliseconds(0), &error)) << "an idle session is alive";
  EXPECT_TRUE(channel->wait(requests->remove("/a"), &error));
}

TEST_F(SFTPChannelTest, APauseWithAbandonedRequestsUnderWayIsNoSilence) {
  std::string late;
  make([&](const PeerRequest& request, PeerTransport&) { late += statusReply(request.id, 0); });
  peer->setWhenIdle([&](PeerTransport& to) { to.send(std::exchange(late, "")); });
  ASSERT_TRUE(channel->open(&error));
  channel->abandon(requests->remove("/a"));
  ASSERT_TRUE(channel->pump(std::chrono::milliseconds(0), &error));
  peer->letPass(2 * kIdleLimit);
  EXPECT_TRUE(channel->wait(requests->remove("/b"), &error));
}

TEST_F(SFTPChannelTest, WhatArrivedWhileThisThreadSleptIsTakenBeforeTheLimitCounts) {
  make([](const PeerRequest& request, PeerTransport& to) { to.send(statusReply(request.id, 0)); });
  ASSERT_TRUE(channel->open(&error));
  const uint32_t id = requests->remove("/a");
  peer->letPass(2 * kIdleLimit);
  EXPECT_TRUE(channel->wait(id, &error));
}

TEST_F(SFTPChannelTest, AnInterruptEndsARunningWaitAndEveryLaterOne) {
  make(kSilent);
  peer->setWhenIdle([&](PeerTransport&) { channel->interrupt(); });
  ASSERT_TRUE(channel->open(&error));
  EXPECT_FALSE(channel->wait(requests->remove("/a"), &error));
  EXPECT_EQ(kQuarnKitConnectionLost, codeOf(error));
  EXPECT_FALSE(channel->wait(requests->remove("/b"), &error));
  EXPECT_EQ(kQuarnKitConnectionLost, codeOf(error));
}

TEST_F(SFTPChannelTest, TheTranscriptHasALineForEachRequestAndReplyAndNoContent) {
  transcript->enabled = true;
  make([](const PeerRequest& request, PeerTransport& to) {
    to.send(request.type == kSFTPRead ? dataReply(request.id, "TOPSECRET")
                                      : statusReply(request.id, 3, "No \"way\""));
  });
  ASSERT_TRUE(channel->open(&error));
  ASSERT_TRUE(channel->wait(requests->open("/a", kSFTPOpenRead), &error));
  ASSERT_TRUE(channel->wait(requests->read("h", 5, 9), &error));
  const std::vector<std::pair<std::string, bool>> expected = {
      {"init version=3\n", true},
      {"version version=3\n", false},
      {"open id=1 \"/a\" flags=read\n", true},
      {"status id=1 permission-denied \"No \\\"way\\\"\"\n", false},
      {"read id=2 handle=68 offset=5 length=9\n", true},
      {"data id=2 length=9\n", false},
  };
  EXPECT_EQ(expected, transcript->lines);
}

TEST_F(SFTPChannelTest, WithoutAReaderNoTranscriptIsMade) {
  make([](const PeerRequest& request, PeerTransport& to) { to.send(statusReply(request.id, 0)); });
  ASSERT_TRUE(channel->open(&error));
  const uint32_t id = requests->remove("/a");
  channel->note(id, []() -> std::string {
    ADD_FAILURE() << "a text was made for nobody";
    return "";
  });
  ASSERT_TRUE(channel->wait(id, &error));
  EXPECT_TRUE(transcript->lines.empty());
}

TEST_F(SFTPChannelTest, LimitsOfTheServerAreKeptWithinOurOwn) {
  make(kSilent);
  ASSERT_TRUE(channel->open(&error));
  EXPECT_EQ(32768u, channel->readLength());
  channel->setLimits({262144, 261120, 1000, 0});
  EXPECT_EQ(kSFTPReadPieceLength, channel->readLength());
  EXPECT_EQ(1000u, channel->writeLength());
  channel->setLimits({0, 1000, 1ull << 40, 0});
  EXPECT_EQ(1000u, channel->readLength());
  EXPECT_EQ(kSFTPMaximumPieceLength, channel->writeLength());
  channel->setLimits({0, 1, 1, 0});
  EXPECT_EQ(512u, channel->readLength());
  EXPECT_EQ(512u, channel->writeLength());
  channel->setLimits({});
  EXPECT_EQ(32768u, channel->readLength());
}

}  // namespace
}  // namespace ombra::test
