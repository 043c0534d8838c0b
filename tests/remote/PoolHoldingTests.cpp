// Sessions that hold a file open for further uploads: who gets them, and when they let go.
#include <gtest/gtest.h>

#include <thread>

#include "tests/support/FakeEngine.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

class PoolHolding : public testing::Test {
 protected:
  PoolHolding() {
    fake.engine->holds = true;
    fake.engine->onUpload = [this](FakeSession& session, NSFileHandle&, uint64_t, TransferControl&,
                                   NSErrorRef*) {
      uploaders.push_back(session.number);
      return true;
    };
    fake.engine->onList = [this](FakeSession& session, const std::string&, std::vector<RemoteEntry>*,
                                 NSErrorRef*) {
      listers.push_back(session.number);
      return true;
    };
  }

  bool upload(const std::string& path, NSErrorRef* error = nullptr) {
    bool done = false;
    fake.with([&](AbstractConnection& connection) {
      done = connection.uploadFileHandle(*file, path, path, 0, nullptr, error);
    });
    return done;
  }
  // Makes sure that a second session is idle, which holds nothing.
  void makeSecondSession() {
    fake.with([&](AbstractConnection& connection) {
      std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
      EXPECT_TRUE(connection.contentsAtPath("/", &nodes, nullptr));
      std::thread([&] { EXPECT_TRUE(fake.list()); }).join();
    });
    listers.clear();
  }
  int endsOfHold() const { return fake.engine->endsOfHold; }

  ManualClock clock;
  FakePool fake;
  std::unique_ptr<NSFileHandle> file = temporaryFile("abc");
  std::vector<int> uploaders;
  std::vector<int> listers;
};

TEST_F(PoolHolding, ASessionGoesOnHoldingWhenItIsReleased) {
  EXPECT_TRUE(upload("/a"));
  EXPECT_EQ(endsOfHold(), 0);
  EXPECT_TRUE(upload("/a"));
  EXPECT_EQ(endsOfHold(), 0);
}

TEST_F(PoolHolding, AnUploadGetsTheSessionThatHoldsItsPath) {
  makeSecondSession();
  EXPECT_TRUE(upload("/a"));
  EXPECT_TRUE(fake.list());
  EXPECT_TRUE(upload("/a"));
  ASSERT_EQ(uploaders.size(), 2u);
  EXPECT_EQ(uploaders[0], uploaders[1]);
  EXPECT_NE(listers.at(0), uploaders[0]) << "others take one that holds nothing";
  EXPECT_EQ(endsOfHold(), 0);
}

TEST_F(PoolHolding, ARequestUsesTheSessionAndLeavesTheHoldAlone) {
  EXPECT_TRUE(upload("/a"));
  EXPECT_TRUE(fake.list());
  EXPECT_EQ(fake.engine->made, 1);
  EXPECT_TRUE(upload("/a"));
  EXPECT_EQ(endsOfHold(), 0);
}

TEST_F(PoolHolding, ATransferEndsTheHoldFirst) {
  EXPECT_TRUE(upload("/a"));
  fake.engine->onDownload = [this](FakeSession& session, NSFileHandle&, uint64_t, std::string*,
                                   TransferControl&, NSErrorRef*) {
    EXPECT_EQ(session.heldPath(), "");
    EXPECT_FALSE(file->extents()->isSending());
    return true;
  };
  const auto target = temporaryFile("");
  fake.with([&](AbstractConnection& connection) {
    EXPECT_TRUE(connection.downloadFileAtPath("/b", *target, 0, nullptr, nullptr));
  });
  EXPECT_EQ(endsOfHold(), 1);
}

TEST_F(PoolHolding, AHoldEndsAfterASecondAndNotBefore) {
  EXPECT_TRUE(upload("/a"));
  clock.waitForSleepers(1);
  clock.advance(0.9);
  EXPECT_EQ(endsOfHold(), 0);
  clock.waitForSleepers(1);
  clock.advance(0.2);
  file->extents()->waitUntilSent();
  EXPECT_EQ(endsOfHold(), 1);
  EXPECT_EQ(fake.engine->living, 1) << "the session itself stays";
}

TEST_F(PoolHolding, AMoveOrARemovalOfThePathOrAboveEndsTheHoldFirst) {
  using TreeChange = std::function<bool(AbstractConnection&)>;
  const std::pair<const char*, TreeChange> table[] = {
      {"removal", [](AbstractConnection& on) { return on.deleteItemAtPath("/d/a", false, nullptr); }},
      {"move", [](AbstractConnection& on) { return on.moveItemFromPath("/d/a", false, "/b", nullptr); }},
      {"move onto it",
       [](AbstractConnection& on) { return on.moveItemFromPath("/b", false, "/d/a", nullptr); }},
      {"move of its folder",
       [](AbstractConnection& on) { return on.moveItemFromPath("/d", true, "/e", nullptr); }},
  };
  for (const auto& [what, change] : table) {
    const int before = endsOfHold();
    int atChange = -1;
    fake.engine->onChange = [&](FakeSession&, const std::string&, NSErrorRef*) {
      atChange = endsOfHold();
      return true;
    };
    EXPECT_TRUE(upload("/d/a")) << what;
    fake.with([&, &run = change](AbstractConnection& connection) { EXPECT_TRUE(run(connection)); });
    EXPECT_EQ(atChange, before + 1) << what;
  }
}

TEST_F(PoolHolding, AChangeElsewhereEndsNoHold) {
  makeSecondSession();
  EXPECT_TRUE(upload("/a"));
  fake.with([&](AbstractConnection& connection) {
    EXPECT_TRUE(connection.deleteItemAtPath("/ab", false, nullptr));
  });
  EXPECT_EQ(endsOfHold(), 0);
}

// What was opened before the removal would stand for the removed file.
TEST_F(PoolHolding, AnUploadThatARemovalOvertakesLetsGoWhenItEnds) {
  makeSecondSession();
  fake.engine->onUpload = [&](FakeSession&, NSFileHandle&, uint64_t, TransferControl&, NSErrorRef*) {
    std::thread([&] {
      fake.with(
          [&](AbstractConnection& other) { EXPECT_TRUE(other.deleteItemAtPath("/a", false, nullptr)); });
    }).join();
    EXPECT_EQ(endsOfHold(), 0) << "in use";
    return true;
  };
  EXPECT_TRUE(upload("/a"));
  EXPECT_EQ(endsOfHold(), 1);
}

TEST_F(PoolHolding, AWholeReplacementOfThePathEndsTheHoldFirst) {
  makeSecondSession();
  EXPECT_TRUE(upload("/a"));
  const auto whole = temporaryFile("new", NSFileHandle::Kind::kFile);
  fake.engine->onUpload = [&](FakeSession&, NSFileHandle&, uint64_t, TransferControl&, NSErrorRef*) {
    EXPECT_EQ(endsOfHold(), 1);
    return true;
  };
  fake.with([&](AbstractConnection& connection) {
    EXPECT_TRUE(connection.uploadFileHandle(*whole, "a", "/a", 0, nullptr, nullptr));
  });
}

TEST_F(PoolHolding, FinishingEndsTheHoldAndTellsWhatBecameOfIt) {
  EXPECT_TRUE(upload("/a"));
  fake.engine->onEndOfHold = [](FakeSession&, const std::string&) {
    return QuarnKitError::errorWithCode(kQuarnKitOutOfSpace);
  };
  fake.with([&](AbstractConnection& connection) {
    NSErrorRef error;
    EXPECT_FALSE(connection.finishUploads(*file, "/a", &error));
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitOutOfSpace));
    EXPECT_TRUE(connection.finishUploads(*file, "/a", nullptr)) << "told once";
  });
  EXPECT_EQ(endsOfHold(), 1);
}

TEST_F(PoolHolding, FinishingWhatNothingIsUnderWayOfNeedsNoSession) {
  fake.with(
      [&](AbstractConnection& connection) { EXPECT_TRUE(connection.finishUploads(*file, "/a", nullptr)); });
  EXPECT_EQ(fake.engine->made, 0);
}

// A request holds the session up for a moment, and then ends the hold as it was asked to.
TEST_F(PoolHolding, FinishingWaitsForARequestThatHasTheSessionInHand) {
  fake.engine->cap = 1;
  fake.pool->setMaximumConnections(0);
  EXPECT_TRUE(upload("/a"));
  fake.engine->onList = [this](FakeSession&, const std::string&, std::vector<RemoteEntry>*, NSErrorRef*) {
    fake.engine->gate.pass();
    return true;
  };
  fake.engine->onEndOfHold = [](FakeSession&, const std::string&) {
    return QuarnKitError::errorWithCode(kQuarnKitRefused);
  };
  std::thread lister([&] { EXPECT_TRUE(fake.list()); });
  ASSERT_TRUE(fake.engine->gate.waitUntilEntered());
  std::thread finisher([&] {
    fake.with([&](AbstractConnection& connection) {
      EXPECT_FALSE(connection.finishUploads(*file, "/a", nullptr));
    });
  });
  fake.engine->gate.open();
  finisher.join();
  lister.join();
  EXPECT_EQ(endsOfHold(), 1);
}

TEST_F(PoolHolding, FinishingOnTheThreadThatHasTheSessionInHandEndsTheHold) {
  EXPECT_TRUE(upload("/a"));
  fake.with([&](AbstractConnection& outer) {
    std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
    EXPECT_TRUE(outer.contentsAtPath("/", &nodes, nullptr));
    fake.with([&](AbstractConnection& inner) { EXPECT_TRUE(inner.finishUploads(*file, "/a", nullptr)); });
    EXPECT_EQ(endsOfHold(), 1);
  });
}

}  // namespace
}  // namespace ombra
