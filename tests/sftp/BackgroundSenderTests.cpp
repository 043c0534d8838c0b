// The thread that sends while nobody uses a channel.
#include "remote/sftp/SFTPBackgroundSender.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "remote/sftp/SFTPChannel.h"
#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SFTPRequests.h"
#include "tests/sftp/SessionFixture.h"

namespace ombra::test {
namespace {

using Step = SFTPBackgroundSender::Step;

// What happened on the other thread, and waiting for it.
class Events {
 public:
  void add(int event) {
    const ConditionLock lock(iCondition);
    iEvents.push_back(event);
    iCondition.broadcast();
  }
  std::vector<int> waitFor(size_t count) {
    const ConditionLock lock(iCondition);
    while (iEvents.size() < count) iCondition.wait();
    return iEvents;
  }

 private:
  NSCondition iCondition;
  std::vector<int> iEvents GUARDED_BY(iCondition);
};

TEST(SFTPBackgroundSender, MovesUntilNothingIsLeft) {
  Events events;
  int left = 3;
  SFTPBackgroundSender sender([&](bool) {
    events.add(left);
    return --left == 0 ? Step::done : Step::moved;
  });
  ASSERT_TRUE(sender.lend(true));
  EXPECT_EQ((std::vector<int>{3, 2, 1}), events.waitFor(3));
  sender.takeBack();
  EXPECT_EQ(0, left);
}

TEST(SFTPBackgroundSender, WaitsForTheLineOnlyAfterItWasBlocked) {
  Events events;
  SFTPBackgroundSender sender([&](bool mayWait) {
    events.add(mayWait ? 1 : 0);
    return mayWait ? Step::done : Step::blocked;
  });
  ASSERT_TRUE(sender.lend(true));
  EXPECT_EQ((std::vector<int>{0, 1}), events.waitFor(2));
}

TEST(SFTPBackgroundSender, ALittleIsSentWithoutAnotherCall) {
  Events events;
  SFTPBackgroundSender sender([&](bool) {
    events.add(1);
    return Step::done;
  });
  ASSERT_TRUE(sender.lend(false));
  events.waitFor(1);
  sender.takeBack();
  ASSERT_TRUE(sender.lend(false));
  EXPECT_EQ(2u, events.waitFor(2).size()) << "each loan is looked at anew";
}

TEST(SFTPBackgroundSender, TakingBackWaitsForTheStepThatRuns) {
  Events inside;
  Events mayLeave;
  bool left = false;
  SFTPBackgroundSender sender([&](bool) {
    inside.add(1);
    mayLeave.waitFor(1);
    left = true;
    return Step::moved;
  });
  ASSERT_TRUE(sender.lend(true));
  inside.waitFor(1);
  std::jthread releaser([&] { mayLeave.add(1); });
  sender.takeBack();
  EXPECT_TRUE(left);
}

TEST(SFTPBackgroundSender, EndsWhileItHasMoreToSend) {
  Events events;
  {
    SFTPBackgroundSender sender([&](bool) {
      events.add(1);
      return Step::moved;
    });
    ASSERT_TRUE(sender.lend(true));
    events.waitFor(1);
  }
  SUCCEED() << "the destructor has returned";
}

// A far side that may be served by any thread, one at a time.
class LendableTransport final : public SFTPTransport {
 public:
  explicit LendableTransport(std::shared_ptr<Events> arrived) : iArrived(std::move(arrived)) {}
  bool canChangeThreads() const override { return true; }
  bool open(NSErrorRef* error) override { return iPeer.open(error); }
  void interrupt() override { iPeer.interrupt(); }
  std::optional<Exchanged> exchange(std::span<const std::byte> outgoing, std::chrono::milliseconds limit,
                                    Receiver& receiver, NSErrorRef* error) override {
    return iPeer.exchange(outgoing, limit, receiver, error);
  }

 private:
  const std::shared_ptr<Events> iArrived;
  PeerTransport iPeer{[this](const PeerRequest& request, PeerTransport& to) {
    if (request.type == kSFTPInit) {
      to.send(versionReply());
    } else {
      to.send(statusReply(request.id, 0));
      iArrived->add(request.type);
    }
  }};
};

TEST(SFTPChannelLending, WhatIsQueuedLeavesWithoutACallAndItsReplyIsThereAfterwards) {
  auto arrived = std::make_shared<Events>();
  SFTPChannel channel(std::make_unique<LendableTransport>(arrived), std::make_shared<LineTranscript>(),
                      std::chrono::seconds(10), std::chrono::seconds(10));
  NSErrorRef error;
  ASSERT_TRUE(channel.open(&error));
  ASSERT_TRUE(channel.canLend());
  SFTPRequests requests(channel);
  const uint32_t id = requests.remove("/a");
  channel.lend();
  EXPECT_EQ((std::vector<int>{kSFTPRemove}), arrived->waitFor(1));
  EXPECT_TRUE(channel.wait(id, &error).has_value());
  EXPECT_EQ(0u, channel.outgoingSize());
}

TEST(SFTPChannelLending, AReplyThatNobodyWaitsForMayComeInTheBackground) {
  auto arrived = std::make_shared<Events>();
  SFTPChannel channel(std::make_unique<LendableTransport>(arrived), std::make_shared<LineTranscript>(),
                      std::chrono::seconds(10), std::chrono::seconds(10));
  NSErrorRef error;
  ASSERT_TRUE(channel.open(&error));
  SFTPRequests requests(channel);
  channel.abandon(requests.remove("/a"));
  const uint32_t id = requests.remove("/b");
  channel.lend();
  EXPECT_EQ((std::vector<int>{kSFTPRemove, kSFTPRemove}), arrived->waitFor(2));
  EXPECT_TRUE(channel.wait(id, &error).has_value());
}

}  // namespace
}  // namespace ombra::test
