// Which session a connection gets, and when.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "remote/TranscriptText.h"
#include "tests/support/FakeEngine.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

using testing::ElementsAre;

TEST(Pool, AcquiringAndAskingForCapabilitiesMakesNoSession) {
  FakePool fake;
  fake.with([&](AbstractConnection& connection) {
    EXPECT_TRUE(connection.isSFTP());
    EXPECT_FALSE(connection.isWebDAV());
    EXPECT_TRUE(connection.supportsUploadByteOffset());
    EXPECT_EQ(connection.protocol(), kProtocolSFTP);
    EXPECT_FALSE(connection.loginPath().has_value());
    EXPECT_EQ(connection.displayStringForRemoteString("a"), "a");
  });
  EXPECT_EQ(fake.engine->made, 0);
}

TEST(Pool, TheFirstConnectsAndLaterOnesLogInByThemselves) {
  FakePool fake;
  fake.with([&](AbstractConnection& first) {
    NSErrorRef error;
    ASSERT_TRUE(first.connect(&error));
    EXPECT_EQ(first.loginPath(), "/home/u");
    std::thread([&] { EXPECT_TRUE(fake.list()); }).join();
  });
  EXPECT_EQ(fake.engine->logins, 2);
  fake.with([](AbstractConnection& later) { EXPECT_EQ(later.loginPath(), "/home/u"); });
}

TEST(Pool, ConnectFailsAtOnceWithWhatTheLoginMet) {
  FakePool fake;
  fake.engine->onLogIn = [](FakeSession&, NSErrorRef* error) {
    return failWith(kQuarnKitCouldNotConnect, error);
  };
  fake.with([](AbstractConnection& connection) {
    NSErrorRef error;
    EXPECT_FALSE(connection.connect(&error));
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitCouldNotConnect));
    EXPECT_FALSE(connection.loginPath().has_value());
  });
  EXPECT_EQ(fake.engine->logins, 1);
}

TEST(Pool, AReleasedSessionServesTheNextConnection) {
  FakePool fake;
  EXPECT_TRUE(fake.list());
  EXPECT_TRUE(fake.list());
  EXPECT_EQ(fake.engine->made, 1);
  EXPECT_EQ(fake.engine->lists, 2);
}

TEST(Pool, AConnectionKeepsItsSessionUntilItIsReleased) {
  FakePool fake;
  fake.with([&](AbstractConnection& connection) {
    std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
    EXPECT_TRUE(connection.contentsAtPath("/", &nodes, nullptr));
    std::thread([&] { EXPECT_TRUE(fake.list()); }).join();
  });
  EXPECT_EQ(fake.engine->made, 2);
}

TEST(Pool, AnIdleSessionThatDiedIsReplacedUnseen) {
  ManualClock clock;
  FakePool fake;
  EXPECT_TRUE(fake.list());
  fake.engine->onIsAlive = [](FakeSession&) { return false; };
  clock.advance(2);
  EXPECT_TRUE(fake.list());
  EXPECT_EQ(fake.engine->made, 2);
  EXPECT_EQ(fake.engine->living, 1);
}

TEST(Pool, ASessionThatWasUsedAMomentAgoIsNotQuestioned) {
  ManualClock clock;
  FakePool fake;
  EXPECT_TRUE(fake.list());
  int questions = 0;
  fake.engine->onIsAlive = [&](FakeSession&) {
    ++questions;
    return true;
  };
  clock.advance(0.5);
  EXPECT_TRUE(fake.list());
  EXPECT_EQ(questions, 0);
  clock.advance(1.5);
  EXPECT_TRUE(fake.list());
  EXPECT_EQ(questions, 1);
}

TEST(Pool, AnIdleSessionIsClosedAfterAMinuteAndNotBefore) {
  ManualClock clock;
  FakePool fake;
  EXPECT_TRUE(fake.list());
  clock.advanceWithin(59.9, 1);
  EXPECT_EQ(fake.engine->living, 1);
  clock.advance(0.2);
  EXPECT_TRUE(fake.engine->waitUntilLiving(0));
  EXPECT_TRUE(fake.list());
  EXPECT_EQ(fake.engine->made, 2);
}

TEST(Pool, NoMoreSessionsThanTheCapAreEverMade) {
  FakePool fake;
  fake.engine->cap = 3;
  fake.pool->setMaximumConnections(0);
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  fake.engine->onList = [&](FakeSession&, const std::string&, std::vector<RemoteEntry>*, NSErrorRef*) {
    const int now = ++inside;
    int seen = most;
    while (now > seen && !most.compare_exchange_weak(seen, now)) {
    }
    if (now == 3) fake.engine->gate.open();
    // The first three meet here, so that all three sessions are in use at once.
    fake.engine->gate.pass();
    --inside;
    return true;
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 24; ++i) threads.emplace_back([&] { EXPECT_TRUE(fake.list()); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(most, 3);
  EXPECT_EQ(fake.engine->mostLiving, 3);
  EXPECT_EQ(fake.engine->lists, 24);
}

TEST(Pool, AMaximumOfItsOwnOverridesTheEnginesCap) {
  FakePool fake;
  EXPECT_EQ(fake.pool->sessions().cap(), 8);
  fake.pool->setMaximumConnections(2);
  EXPECT_EQ(fake.pool->sessions().cap(), 2);
  fake.pool->setMaximumConnections(0);
  EXPECT_EQ(fake.pool->sessions().cap(), 8);
}

TEST(Pool, AServerThatTakesNoMoreLowersTheCapAndTheCallWaits) {
  FakePool fake;
  fake.engine->onLogIn = [&](FakeSession&, NSErrorRef* error) {
    return fake.engine->living <= 2 || failWith(kQuarnKitTooManyConnections, error);
  };
  Gate& gate = fake.engine->gate;
  fake.engine->onList = [&](FakeSession&, const std::string&, std::vector<RemoteEntry>*, NSErrorRef*) {
    gate.pass();
    return true;
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) threads.emplace_back([&] { EXPECT_TRUE(fake.list()); });
  ASSERT_TRUE(gate.waitUntilEntered(2));
  threads.emplace_back([&] { EXPECT_TRUE(fake.list()); });
  while (fake.pool->sessions().cap() != 2) std::this_thread::yield();
  gate.open();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(fake.engine->lists, 3);
}

TEST(Pool, ALoweredCapRisesAgainByOneEachMinute) {
  ManualClock clock;
  FakePool fake;
  std::atomic<bool> isFull{true};
  fake.engine->onLogIn = [&](FakeSession& session, NSErrorRef* error) {
    return session.number == 1 || !isFull || failWith(kQuarnKitTooManyConnections, error);
  };
  Gate& gate = fake.engine->gate;
  fake.engine->onList = [&](FakeSession& session, const std::string&, std::vector<RemoteEntry>*,
                            NSErrorRef*) {
    if (session.number == 1) gate.pass();
    return true;
  };
  std::thread first([&] { EXPECT_TRUE(fake.list()); });
  ASSERT_TRUE(gate.waitUntilEntered());
  std::thread second([&] { EXPECT_TRUE(fake.list()); });
  // The second was refused once and now waits for a session, or for the cap to rise.
  clock.waitForSleepers(1);
  EXPECT_EQ(fake.pool->sessions().cap(), 1);
  isFull = false;
  clock.advance(60);
  second.join();
  EXPECT_EQ(fake.pool->sessions().cap(), 2);
  gate.open();
  first.join();
}

TEST(Pool, AServerFullOfOthersIsAskedAgainSeveralTimesAndThenTheErrorIsTold) {
  ManualClock clock;
  FakePool fake;
  fake.engine->onLogIn = [](FakeSession&, NSErrorRef* error) {
    return failWith(kQuarnKitTooManyConnections, error);
  };
  NSErrorRef error;
  std::thread caller([&] { EXPECT_FALSE(fake.list(&error)); });
  sitOut(clock, {0.25, 0.5, 1.0, 2.0, 4.0}, fake.engine->logins);
  caller.join();
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitTooManyConnections));
  EXPECT_EQ(fake.engine->logins, 6);
}

TEST(Pool, ShutDownEndsRunningCallsAndLetsLaterOnesFail) {
  FakePool fake;
  fake.engine->onList = [&](FakeSession& session, const std::string&, std::vector<RemoteEntry>*,
                            NSErrorRef* error) {
    fake.engine->gate.pass([&session] { return session.isInterrupted(); });
    return failWith(kQuarnKitConnectionLost, error);
  };
  const std::shared_ptr<AbstractConnection> other = fake.pool->acquireConnection();
  NSErrorRef error;
  std::thread caller([&] { EXPECT_FALSE(fake.list(&error)); });
  ASSERT_TRUE(fake.engine->gate.waitUntilEntered());
  fake.pool->shutDown();
  caller.join();
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitConnectionLost));
  EXPECT_EQ(fake.engine->lists, 1);
  EXPECT_EQ(fake.pool->acquireConnection(), nullptr);
  EXPECT_EQ(fake.pool->acquireConnectionWithTimeout(30.0, nullptr), nullptr);
  std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
  EXPECT_FALSE(other->contentsAtPath("/", &nodes, &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitConnectionLost));
  fake.pool->releaseConnection(other);
  EXPECT_EQ(fake.engine->living, 0);
}

TEST(Pool, ShutDownInterruptsALogin) {
  FakePool fake;
  fake.engine->onLogIn = [&](FakeSession& session, NSErrorRef* error) {
    fake.engine->gate.pass([&session] { return session.isInterrupted(); });
    return failWith(kQuarnKitConnectionLost, error);
  };
  std::thread caller([&] { EXPECT_FALSE(fake.list()); });
  ASSERT_TRUE(fake.engine->gate.waitUntilEntered());
  fake.pool->shutDown();
  caller.join();
  EXPECT_EQ(fake.engine->logins, 1);
}

TEST(Pool, ShutDownEndsTheWaitForASession) {
  FakePool fake;
  fake.engine->cap = 1;
  fake.pool->setMaximumConnections(0);
  fake.engine->onList = [&](FakeSession& session, const std::string&, std::vector<RemoteEntry>*,
                            NSErrorRef* error) {
    fake.engine->gate.pass([&session] { return session.isInterrupted(); });
    return failWith(kQuarnKitConnectionLost, error);
  };
  std::thread holder([&] { EXPECT_FALSE(fake.list()); });
  ASSERT_TRUE(fake.engine->gate.waitUntilEntered());
  NSErrorRef error;
  std::thread waiter([&] { EXPECT_FALSE(fake.list(&error)); });
  while (!fake.pool->sessions().othersWait()) std::this_thread::yield();
  fake.pool->shutDown();
  holder.join();
  waiter.join();
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitConnectionLost));
  EXPECT_EQ(fake.engine->made, 1);
}

TEST(Pool, AcquisitionObeysItsCancellation) {
  FakePool fake;
  CancellationToken cancellation;
  const auto connection = fake.pool->acquireConnectionWithTimeout(30.0, &cancellation);
  EXPECT_NE(connection, nullptr);
  fake.pool->releaseConnection(connection);
  cancellation.cancel();
  EXPECT_EQ(fake.pool->acquireConnectionWithTimeout(30.0, &cancellation), nullptr);
  fake.pool->releaseConnection(nullptr);
}

TEST(Pool, AReleasedConnectionFailsItsCalls) {
  FakePool fake;
  const auto connection = fake.pool->acquireConnection();
  fake.pool->releaseConnection(connection);
  NSErrorRef error;
  EXPECT_FALSE(connection->createFolderAtPath("/a", &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitConnectionLost));
  EXPECT_EQ(fake.engine->made, 0);
}

TEST(Pool, AConnectionThatIsDroppedWithoutReleaseGivesItsSessionBack) {
  FakePool fake;
  {
    const auto connection = fake.pool->acquireConnection();
    EXPECT_TRUE(connection->connect(nullptr));
  }
  EXPECT_TRUE(fake.list());
  EXPECT_EQ(fake.engine->made, 1);
}

TEST(Pool, ProtocolsWithoutAnEngineAreRefused) {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(fourCharacterCode("none"));
  NSErrorRef error;
  EXPECT_EQ(KCConnectionPool::initWithCredentials(credentials, &error), nullptr);
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNotSupported));
}

TEST(Pool, TheRegisteredEngineIsTheOneOfTheProtocol) {
  constexpr uint32_t kProtocol = fourCharacterCode("test");
  EngineRegistry::registerEngine(kProtocol, [](const KCCredentials&) -> std::shared_ptr<Engine> {
    return std::make_shared<FakeEngine>();
  });
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(kProtocol);
  NSErrorRef error;
  const auto pool = KCConnectionPool::initWithCredentials(credentials, &error);
  ASSERT_NE(pool, nullptr);
  EXPECT_EQ(pool->credentials(), credentials);
}

// Stands in line until it gets a session, which it gives back at once.
class InLine final : public SessionWaiter {
 public:
  InLine(SessionPool& pool, SessionUse use) : iThread([this, &pool, use] { wait(pool, use); }) {}
  ~InLine() override { iThread.join(); }
  const KCUUID& UUID() const override { return iUUID; }
  bool wantsToStop() const override { return false; }
  bool isWorthyTrust(const std::string&) override { return true; }
  // Asked each time when there is no session for it.
  bool hasSpareWork() const override {
    ++iRefusals;
    return false;
  }
  void waitUntilInLine() const {
    while (iRefusals == 0) std::this_thread::yield();
  }
  Gate served;

 private:
  void wait(SessionPool& pool, SessionUse use) {
    const std::shared_ptr<PooledSession> session = pool.attach(*this, use, nullptr);
    if (session == nullptr) return;
    served.pass([] { return true; });
    if (use == SessionUse::kTransfer) pool.endTransfer();
    pool.detach(session, true);
  }

  const KCUUID iUUID = KCUUID::UUID();
  mutable std::atomic<int> iRefusals{0};
  std::thread iThread;
};

TEST(Pool, ARequestIsServedWhenTheShareOfTransfersFillsUpBeforeTheTransferThatWasNext) {
  FakePool fake;
  fake.pool->setMaximumConnections(2);
  SessionPool& pool = fake.pool->sessions();
  fake.with([&](AbstractConnection& first) {
    EXPECT_TRUE(first.connect(nullptr));
    const std::shared_ptr<AbstractConnection> second = fake.pool->acquireConnection();
    Gate connected;
    std::thread connecting([&] {
      EXPECT_TRUE(second->connect(nullptr));
      connected.pass();
    });
    EXPECT_TRUE(connected.waitUntilEntered());
    InLine transfer(pool, SessionUse::kTransfer);
    transfer.waitUntilInLine();
    InLine request(pool, SessionUse::kRequest);
    request.waitUntilInLine();
    fake.pool->releaseConnection(second);
    // Most often before the transfer, which was told that it is its turn, has come to look.
    const bool isFull = pool.tryBeginTransfer();
    EXPECT_TRUE(request.served.waitUntilEntered()) << "a session is idle";
    if (isFull) pool.endTransfer();
    connected.open();
    connecting.join();
  });
}

#ifndef NDEBUG
TEST(PoolDeathTest, WaitingForASecondSessionWhileHoldingOneIsCaught) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  FakePool fake;
  EXPECT_DEATH(fake.with([&](AbstractConnection& outer) {
    (void)outer.connect(nullptr);
    (void)fake.list();
  }),
               "threadHoldsSession");
}
#endif

// ---- trust

class Trusting : public ConnectionDelegate {
 public:
  explicit Trusting(bool answer) : iAnswer(answer) {}
  bool connection(AbstractConnection&, const TrustQuestion& question) override {
    asked.push_back(question.fingerprint);
    return iAnswer;
  }
  using ConnectionDelegate::connection;
  std::vector<std::string> asked;

 private:
  const bool iAnswer;
};

// Makes every login show this key.
void showKey(FakeEngine& engine, const std::string& fingerprint) {
  engine.onLogIn = [fingerprint](FakeSession& session, NSErrorRef* error) {
    return session.environment.isWorthyTrust(fingerprint) || failWith(kQuarnKitUntrusted, error);
  };
}

TEST(PoolTrust, TheDelegateIsAskedAndDecides) {
  FakePool fake;
  showKey(*fake.engine, "SHA256:one");
  fake.with([&](AbstractConnection& connection) {
    Trusting no(false);
    connection.setDelegate(&no);
    NSErrorRef error;
    EXPECT_FALSE(connection.connect(&error));
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitUntrusted));
    EXPECT_THAT(no.asked, ElementsAre("SHA256:one"));
    Trusting yes(true);
    connection.setDelegate(&yes);
    EXPECT_TRUE(connection.connect(&error));
    connection.setDelegate(nullptr);
  });
}

TEST(PoolTrust, CallersWithoutADelegateGetTheKeyThatWasAcceptedFirst) {
  ManualClock clock;
  FakePool fake;
  showKey(*fake.engine, "SHA256:one");
  Trusting yes(true);
  fake.with([&](AbstractConnection& connection) {
    connection.setDelegate(&yes);
    EXPECT_TRUE(connection.connect(nullptr));
    connection.setDelegate(nullptr);
  });
  fake.engine->onIsAlive = [](FakeSession&) { return false; };
  clock.advance(2);
  EXPECT_TRUE(fake.list());
  showKey(*fake.engine, "SHA256:two");
  clock.advance(2);
  NSErrorRef error;
  EXPECT_FALSE(fake.list(&error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitUntrusted));
}

TEST(PoolTrust, AFingerprintInTheCredentialsDecidesAlone) {
  FakePool fake;
  fake.credentials->setOption("fingerprint", "SHA256:one SHA256:other");
  fake.pool = std::make_shared<ConnectionPool>(fake.credentials, fake.engine);
  showKey(*fake.engine, "SHA256:two");
  Trusting yes(true);
  fake.with([&](AbstractConnection& connection) {
    connection.setDelegate(&yes);
    EXPECT_FALSE(connection.connect(nullptr));
    showKey(*fake.engine, "SHA256:other");
    EXPECT_TRUE(connection.connect(nullptr));
    connection.setDelegate(nullptr);
  });
  EXPECT_TRUE(yes.asked.empty());
}

// ---- transcript

class Recorder : public TranscriptDelegate {
 public:
  void connectionUUID(const KCUUID& uuid, std::string_view text, bool isOutgoing) override {
    lines.push_back((isOutgoing ? "> " : "< ") + std::string(text));
    uuids.push_back(uuid);
  }
  void connectionUUIDFlushTranscript(const KCUUID& uuid) override { flushed.push_back(uuid); }
  std::vector<std::string> lines;
  std::vector<KCUUID> uuids;
  std::vector<KCUUID> flushed;
};

void sayOnList(FakeEngine& engine, const std::string& text) {
  engine.onList = [text](FakeSession& session, const std::string&, std::vector<RemoteEntry>*, NSErrorRef*) {
    session.environment.transcript->append(text, true);
    return true;
  };
}

TEST(PoolTranscript, CarriesTheIdentifierOfTheConnectionThatUsesTheSession) {
  FakePool fake;
  Recorder recorder;
  fake.pool->setTranscriptDelegate(&recorder);
  sayOnList(*fake.engine, "LIST\n");
  std::vector<KCUUID> uuids;
  for (int i = 0; i < 2; ++i) {
    fake.with([&](AbstractConnection& connection) {
      std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
      EXPECT_TRUE(connection.contentsAtPath("/", &nodes, nullptr));
      uuids.push_back(connection.UUID());
    });
  }
  fake.pool->setTranscriptDelegate(nullptr);
  EXPECT_THAT(recorder.lines, ElementsAre("> LIST\n", "> LIST\n"));
  EXPECT_EQ(recorder.uuids, uuids);
  EXPECT_EQ(recorder.flushed, uuids);
  EXPECT_NE(uuids[0], uuids[1]);
}

TEST(PoolTranscript, TellsConnectionAndDirectionOfEachLine) {
  FakePool fake;
  Recorder recorder;
  fake.pool->setTranscriptDelegate(&recorder);
  sayOnList(*fake.engine, "GET /\nHost: h\n\nno end");
  EXPECT_TRUE(fake.list());
  fake.pool->setTranscriptDelegate(nullptr);
  EXPECT_THAT(recorder.lines, ElementsAre("> GET /\n", "> Host: h\n", "> \n", "> no end"));
}

TEST(PoolTranscript, IsOffWithoutADelegate) {
  FakePool fake;
  bool enabled = true;
  fake.engine->onList = [&](FakeSession& session, const std::string&, std::vector<RemoteEntry>*,
                            NSErrorRef*) {
    enabled = session.environment.transcript->isEnabled();
    session.environment.transcript->append("nobody listens", false);
    return true;
  };
  EXPECT_TRUE(fake.list());
  EXPECT_FALSE(enabled);
}

TEST(PoolTranscript, SecretsThatSlipThroughAreMasked) {
  FakePool fake;
  fake.credentials->setPassword("hunter2");
  fake.credentials->setOption("passphrase", "open sesame");
  fake.credentials->setOption("keyboardInteractive", "123456\nblue");
  fake.credentials->setOption("sessionToken", "IQoJb3JpZ2lu");
  fake.pool = std::make_shared<ConnectionPool>(fake.credentials, fake.engine);
  Recorder recorder;
  fake.pool->setTranscriptDelegate(&recorder);
  sayOnList(*fake.engine, "PASS hunter2 hunter2 / open sesame / 123456 / blue / IQoJb3JpZ2lu");
  EXPECT_TRUE(fake.list());
  fake.pool->setTranscriptDelegate(nullptr);
  EXPECT_THAT(recorder.lines,
              ElementsAre("> PASS ******** ******** / ******** / ******** / ******** / ********"));
}

TEST(PoolTranscript, ASecretIsMaskedAsLinesShowItToo) {
  FakePool fake;
  fake.credentials->setPassword("tab\there");
  fake.pool = std::make_shared<ConnectionPool>(fake.credentials, fake.engine);
  Recorder recorder;
  fake.pool->setTranscriptDelegate(&recorder);
  sayOnList(*fake.engine, "tab\there, " + visibleText("tab\there"));
  EXPECT_TRUE(fake.list());
  fake.pool->setTranscriptDelegate(nullptr);
  EXPECT_THAT(recorder.lines, ElementsAre("> ********, ********"));
}

}  // namespace
}  // namespace ombra
