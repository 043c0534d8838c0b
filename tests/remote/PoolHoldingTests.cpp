// Sessions that hold a file open for further uploads: who gets them, and when they let go.
#include <gtest/gtest.h>

#include <future>
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

// Who waits for an upload that has no delegate can still tell a slow server from a dead one.
TEST_F(PoolHolding, AnUploadShowsOnItsFileThatBytesMove) {
  fake.engine->onUpload = [](FakeSession&, NSFileHandle&, uint64_t, TransferControl& control, NSErrorRef*) {
    control.progress(2);
    return true;
  };
  EXPECT_TRUE(upload("/a"));
  EXPECT_GT(file->extents()->progress(), 0u);
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
  clock.advanceWithin(0.9, 1);
  EXPECT_EQ(endsOfHold(), 0);
  clock.advance(0.2);
  file->extents()->waitUntilSent();
  EXPECT_EQ(endsOfHold(), 1);
  EXPECT_EQ(fake.engine->living, 1) << "the session itself stays";
}

TEST_F(PoolHolding, WhatWasOpenedAheadIsClosedAfterASecondAndNotBefore) {
  std::promise<NSDate> closed;
  fake.engine->opensAhead = true;
  fake.engine->onEndOfOpenedAhead = [&] { closed.set_value(clock.now()); };
  EXPECT_TRUE(fake.list());
  const NSDate begun = clock.now();
  clock.advanceWithin(0.9, 1);
  clock.advance(0.2);
  EXPECT_GE(closed.get_future().get().timeIntervalSinceDate(begun), 1.0);
  EXPECT_EQ(fake.engine->living, 1) << "the session itself stays";
}

TEST_F(PoolHolding, WhatWasOpenedAheadStaysAsLongAsTheSessionIsUsed) {
  std::atomic<int> ends{0};
  fake.engine->opensAhead = true;
  fake.engine->onEndOfOpenedAhead = [&] { ++ends; };
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(fake.list());
    clock.advanceWithin(0.9, 1);
  }
  EXPECT_EQ(ends, 0);
  EXPECT_EQ(fake.engine->made, 1);
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

// ---- the thread that needs the end of a hold has a session in hand itself

TEST_F(PoolHolding, AnUploadOfTheSameFileToASecondPathEndsTheHoldOfTheFirst) {
  fake.with([&](AbstractConnection& connection) {
    EXPECT_TRUE(connection.uploadFileHandle(*file, "a", "/a", 0, nullptr, nullptr));
    EXPECT_TRUE(connection.uploadFileHandle(*file, "b", "/b", 0, nullptr, nullptr));
  });
  EXPECT_EQ(endsOfHold(), 1);
  EXPECT_EQ(fake.engine->made, 1);
}

TEST_F(PoolHolding, FinishingUnderANewPathEndsTheHoldOfTheOldOne) {
  fake.with([&](AbstractConnection& connection) {
    EXPECT_TRUE(connection.uploadFileHandle(*file, "a", "/a", 0, nullptr, nullptr));
    EXPECT_TRUE(connection.finishUploads(*file, "/b", nullptr));
    EXPECT_EQ(endsOfHold(), 1);
  });
}

TEST_F(PoolHolding, TwoThreadsThatEachHoldWhatTheOtherWantsBothGoOn) {
  const auto second = temporaryFile("def");
  fake.engine->onUpload = nullptr;
  Gate bothHold;
  const auto crossOver = [&](NSFileHandle& mine, const char* path, NSFileHandle& theirs,
                             const char* theirPath) {
    fake.with([&](AbstractConnection& connection) {
      EXPECT_TRUE(connection.uploadFileHandle(mine, path, path, 0, nullptr, nullptr));
      bothHold.pass();
      EXPECT_TRUE(connection.uploadFileHandle(theirs, theirPath, theirPath, 0, nullptr, nullptr));
    });
  };
  std::thread one([&] { crossOver(*file, "/a", *second, "/b"); });
  std::thread other([&] { crossOver(*second, "/b", *file, "/a"); });
  EXPECT_TRUE(bothHold.waitUntilEntered(2));
  bothHold.open();
  one.join();
  other.join();
  EXPECT_GE(endsOfHold(), 2);
}

// ---- a session that holds is in other hands

class PoolHoldingElsewhere : public PoolHolding {
 protected:
  // Uploads to /a, then keeps the session that holds it in a listing until the gate opens.
  void SetUp() override {
    EXPECT_TRUE(upload("/a"));
    fake.engine->onList = [this](FakeSession&, const std::string&, std::vector<RemoteEntry>*, NSErrorRef*) {
      fake.engine->gate.pass();
      return true;
    };
    lister = std::thread([this] { EXPECT_TRUE(fake.list()); });
    EXPECT_TRUE(fake.engine->gate.waitUntilEntered());
    // The gate opens when the upload that comes now has a session of its own.
    opener = std::thread([this] {
      while (fake.engine->logins < 2) std::this_thread::yield();
      fake.engine->gate.open();
    });
    fake.engine->onUpload = [this](FakeSession&, NSFileHandle&, uint64_t, TransferControl&, NSErrorRef*) {
      wasSending = file->extents()->isSending();
      return true;
    };
  }
  void replaceBy(NSFileHandle& other) {
    fake.with([&](AbstractConnection& connection) {
      EXPECT_TRUE(connection.uploadFileHandle(other, "a", "/a", 0, nullptr, nullptr));
    });
    opener.join();
    lister.join();
    EXPECT_EQ(wasSending, false);
  }

  std::thread lister;
  std::thread opener;
  std::optional<bool> wasSending;
};

TEST_F(PoolHoldingElsewhere, AWholeReplacementWaitsForWhatIsUnderWayToItsPath) {
  replaceBy(*temporaryFile("new", NSFileHandle::Kind::kFile));
}

TEST_F(PoolHoldingElsewhere, AnUploadOfAnotherScratchFileWaitsForWhatIsUnderWayToItsPath) {
  replaceBy(*temporaryFile("new"));
}

TEST_F(PoolHolding, AScratchFileDoesNotTakeAnothersHoldOfItsPathForItsOwn) {
  EXPECT_TRUE(upload("/a"));
  const auto other = temporaryFile("new");
  fake.engine->onUpload = [this](FakeSession&, NSFileHandle&, uint64_t, TransferControl&, NSErrorRef*) {
    EXPECT_FALSE(file->extents()->isSending());
    return true;
  };
  fake.with([&](AbstractConnection& connection) {
    EXPECT_TRUE(connection.uploadFileHandle(*other, "a", "/a", 0, nullptr, nullptr));
  });
  EXPECT_EQ(endsOfHold(), 1);
  EXPECT_EQ(fake.engine->made, 1);
}

TEST_F(PoolHolding, ARemovalReachesASessionThatIsJustBeingLookedAt) {
  makeSecondSession();
  EXPECT_TRUE(upload("/a"));
  const int holder = uploaders.back();
  // The time is put back, so that the session's last use seems to lie in the future: it is looked at.
  clock.advance(-0.5);
  std::atomic<bool> removed{false};
  fake.engine->onIsAlive = [&](FakeSession& session) {
    if (session.number != holder || removed.exchange(true)) return true;
    std::thread([&] {
      fake.with(
          [&](AbstractConnection& other) { EXPECT_TRUE(other.deleteItemAtPath("/a", false, nullptr)); });
    }).join();
    EXPECT_EQ(endsOfHold(), 0) << "in use";
    return true;
  };
  EXPECT_TRUE(upload("/a"));
  EXPECT_TRUE(removed);
  EXPECT_EQ(endsOfHold(), 1) << "the upload opens the file that is at the path now";
}

TEST_F(PoolHolding, AHoldThatIsToEndDoesSoAtTheEndOfTheCallAlready) {
  EXPECT_TRUE(upload("/a"));
  fake.engine->onList = [this](FakeSession&, const std::string&, std::vector<RemoteEntry>*, NSErrorRef*) {
    std::thread([this] { fake.pool->sessions().letGoOf("/a"); }).join();
    EXPECT_EQ(endsOfHold(), 0);
    return true;
  };
  fake.with([&](AbstractConnection& connection) {
    std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
    EXPECT_TRUE(connection.contentsAtPath("/", &nodes, nullptr));
    EXPECT_EQ(endsOfHold(), 1) << "the connection keeps the session";
  });
}

TEST_F(PoolHolding, AnUploadThatIsToLetGoDoesSoWhenItEnds) {
  fake.engine->onUpload = [this](FakeSession&, NSFileHandle&, uint64_t, TransferControl&, NSErrorRef*) {
    std::thread([this] { fake.pool->sessions().letGoOf("/a"); }).join();
    return true;
  };
  fake.with([&](AbstractConnection& connection) {
    EXPECT_TRUE(connection.uploadFileHandle(*file, "a", "/a", 0, nullptr, nullptr));
    EXPECT_EQ(endsOfHold(), 1);
  });
}

// ---- sessions that are not kept

TEST_F(PoolHolding, ASessionAboveALoweredCapEndsItsHoldBeforeItIsClosed) {
  makeSecondSession();
  fake.with([&](AbstractConnection& connection) {
    EXPECT_TRUE(connection.uploadFileHandle(*file, "a", "/a", 0, nullptr, nullptr));
    fake.pool->setMaximumConnections(1);
  });
  EXPECT_EQ(endsOfHold(), 1);
  EXPECT_EQ(fake.engine->living, 1);
  EXPECT_FALSE(file->extents()->isSending());
  EXPECT_EQ(file->extents()->takeFailure(), nullptr);
}

// Whatever meets the loss, and tells nobody.
class PoolLostHolders : public PoolHolding {
 protected:
  void SetUp() override {
    EXPECT_TRUE(upload("/a"));
    fake.engine->onEndOfHold = [this](FakeSession& session, const std::string&) {
      session.lose();
      lost = session.number;
      return QuarnKitError::errorWithCode(kQuarnKitConnectionLost);
    };
    fake.engine->onIsAlive = [](FakeSession& session) { return !session.hasFailed(); };
    fake.engine->onChange = [](FakeSession& session, const std::string&, NSErrorRef* error) {
      return !session.hasFailed() || failWith(kQuarnKitConnectionLost, error);
    };
  }
  void removeSomething() {
    fake.with([&](AbstractConnection& connection) {
      EXPECT_TRUE(connection.deleteItemAtPath("/b", false, nullptr));
    });
    EXPECT_EQ(lost, 1);
    EXPECT_EQ(fake.engine->made, 2);
    EXPECT_EQ(fake.engine->living, 1);
  }
  int lost = 0;
};

TEST_F(PoolLostHolders, AChangeAfterAFinishThatMetTheLossSucceedsOnAFreshSession) {
  fake.with([&](AbstractConnection& connection) {
    std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
    EXPECT_TRUE(connection.contentsAtPath("/", &nodes, nullptr));
    EXPECT_FALSE(connection.finishUploads(*file, "/a", nullptr));
  });
  removeSomething();
}

TEST_F(PoolLostHolders, AChangeAfterAReturnThatMetTheLossSucceedsOnAFreshSession) {
  fake.engine->onList = [this](FakeSession&, const std::string&, std::vector<RemoteEntry>*, NSErrorRef*) {
    // Asks the session, which is in use, to let go when it is given back.
    std::thread([this] { fake.pool->sessions().letGoOf("/a"); }).join();
    return true;
  };
  EXPECT_TRUE(fake.list());
  removeSomething();
}

TEST_F(PoolLostHolders, AChangeLooksAtTheSessionHoweverLatelyItWasUsed) {
  int questions = 0;
  fake.engine->onIsAlive = [&](FakeSession&) {
    ++questions;
    lost = 1;
    return false;
  };
  removeSomething();
  EXPECT_EQ(questions, 1);
}

}  // namespace
}  // namespace ombra
