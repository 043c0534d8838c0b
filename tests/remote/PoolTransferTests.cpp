// Transfers over sessions that come and go.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "tests/support/FakeEngine.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

using testing::ElementsAre;

// Counts what it is told, and says what the test wants said.
class Watcher : public ConnectionDelegate {
 public:
  bool connection(AbstractConnection&, const TrustQuestion&) override { return true; }
  void connection(AbstractConnection& reporting, uint64_t bytes, double, bool stalled) override {
    reports.push_back(bytes);
    stalls += stalled ? 1 : 0;
    if (onReport) onReport(reporting, bytes);
  }
  size_t connection(AbstractConnection& asking, std::byte* buffer, size_t length) override {
    return onBytes ? onBytes(asking, buffer, length) : 0;
  }
  bool connectionIsAwaited(AbstractConnection&) override { return isAwaited; }

  std::vector<uint64_t> reports;
  int stalls = 0;
  std::atomic<bool> isAwaited{true};
  std::function<void(AbstractConnection&, uint64_t)> onReport;
  std::function<size_t(AbstractConnection&, std::byte*, size_t)> onBytes;
};

// Delivers `content` from `offset` in pieces of `piece`, asking for cancellation like an engine.
bool deliver(const std::string& content, size_t piece, uint64_t end, NSFileHandle& to, uint64_t offset,
             TransferControl& control, NSErrorRef* error) {
  for (uint64_t at = offset; at < end; at += piece) {
    if (control.shouldCancel()) return failWith(kQuarnKitCancelled, error);
    const size_t count = std::min<uint64_t>(piece, end - at);
    EXPECT_TRUE(to.writeAll(content.data() + at, count, at));
    control.progress(at + count);
  }
  return !control.shouldCancel() || failWith(kQuarnKitCancelled, error);
}

struct DownloadResult {
  bool done = false;
  uint64_t bytes = 0;
  NSErrorRef error;
  std::string content;
};

DownloadResult download(FakePool& fake, ConnectionDelegate* delegate = nullptr, uint64_t offset = 0) {
  DownloadResult result;
  const auto file = temporaryFile(std::string(offset, '.'));
  fake.with([&](AbstractConnection& connection) {
    connection.setDelegate(delegate);
    result.done = connection.downloadFileAtPath("/f", *file, offset, &result.bytes, &result.error);
    connection.setDelegate(nullptr);
  });
  result.content = contentOf(*file);
  return result;
}

TEST(PoolDownload, GoesOnFromTheByteReachedOnAFreshSession) {
  ManualClock clock;
  FakePool fake;
  const std::string content = "0123456789";
  std::vector<uint64_t> offsets;
  std::vector<std::string> versions;
  fake.engine->onDownload = [&](FakeSession& session, NSFileHandle& to, uint64_t offset, std::string* version,
                                TransferControl& control, NSErrorRef* error) {
    offsets.push_back(offset);
    versions.push_back(*version);
    *version = "v1";
    const bool last = session.number == 3;
    EXPECT_TRUE(deliver(content, 1, last ? 10 : offset + 4, to, offset, control, error));
    return last || failWith(kQuarnKitConnectionLost, error);
  };
  DownloadResult result;
  std::thread caller([&] { result = download(fake); });
  // Progress was made: the pauses begin again with the shortest.
  sitOut(clock, {0.25, 0.25}, fake.engine->logins);
  caller.join();
  EXPECT_TRUE(result.done);
  EXPECT_EQ(result.content, content);
  EXPECT_EQ(result.bytes, 10u);
  EXPECT_THAT(offsets, ElementsAre(0u, 4u, 8u));
  EXPECT_THAT(versions, ElementsAre("", "v1", "v1"));
}

TEST(PoolDownload, AFailureTellsHowFarItCame) {
  FakePool fake;
  fake.engine->onDownload = [](FakeSession&, NSFileHandle& to, uint64_t offset, std::string*,
                               TransferControl& control, NSErrorRef* error) {
    EXPECT_TRUE(deliver("0123456789", 1, 6, to, offset, control, error));
    return failWith(kQuarnKitItemChanged, error);
  };
  const DownloadResult result = download(fake, nullptr, 2);
  EXPECT_FALSE(result.done);
  EXPECT_EQ(result.bytes, 6u);
  EXPECT_EQ(result.content, "..2345");
  EXPECT_TRUE(QuarnKitError::isCode(result.error, kQuarnKitItemChanged));
}

TEST(PoolDownload, CancellingEndsItWithTheCancelledError) {
  FakePool fake;
  fake.engine->onDownload = [](FakeSession&, NSFileHandle& to, uint64_t offset, std::string*,
                               TransferControl& control, NSErrorRef* error) {
    return deliver("0123456789", 1, 10, to, offset, control, error);
  };
  Watcher watcher;
  watcher.onReport = [](AbstractConnection& connection, uint64_t) { connection.setShouldCancel(true); };
  const DownloadResult result = download(fake, &watcher);
  EXPECT_FALSE(result.done);
  EXPECT_EQ(result.bytes, 1u);
  EXPECT_TRUE(QuarnKitError::isCode(result.error, kQuarnKitCancelled));
  // The next transfer begins with the mark cleared.
  watcher.onReport = {};
  EXPECT_TRUE(download(fake, &watcher).done);
}

TEST(PoolDownload, CancellingEndsThePauseOfARetry) {
  ManualClock clock;
  FakePool fake;
  fake.engine->onDownload = [](FakeSession&, NSFileHandle&, uint64_t, std::string*, TransferControl&,
                               NSErrorRef* error) { return failWith(kQuarnKitConnectionLost, error); };
  const auto connection = fake.pool->acquireConnection();
  const auto file = temporaryFile();
  NSErrorRef error;
  std::thread caller([&] { EXPECT_FALSE(connection->downloadFileAtPath("/f", *file, 0, nullptr, &error)); });
  clock.waitForSleepers(1);
  connection->setShouldCancel(true);
  caller.join();
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitCancelled));
  fake.pool->releaseConnection(connection);
}

TEST(PoolDownload, FirstBytesAreReportedAtOnceAndTheLastAtTheEnd) {
  ManualClock clock;
  FakePool fake;
  fake.engine->onDownload = [](FakeSession&, NSFileHandle& to, uint64_t offset, std::string*,
                               TransferControl& control, NSErrorRef* error) {
    return deliver("0123456789", 1, 10, to, offset, control, error);
  };
  Watcher watcher;
  EXPECT_TRUE(download(fake, &watcher).done);
  // Time stands still and the bytes are few: nothing between the first and the last.
  EXPECT_THAT(watcher.reports, ElementsAre(1u, 10u));
}

TEST(PoolDownload, OfAnEmptyFileReportsNothing) {
  FakePool fake;
  Watcher watcher;
  const DownloadResult result = download(fake, &watcher);
  EXPECT_TRUE(result.done);
  EXPECT_EQ(result.bytes, 0u);
  EXPECT_TRUE(watcher.reports.empty());
}

// ---- the share of transfers

TEST(PoolTransfers, TakeAllButAQuarterOfTheSessions) {
  const std::vector<std::pair<int, int>> table{{1, 1}, {2, 1}, {3, 2}, {4, 3}, {8, 6}, {16, 12}};
  for (const auto& [cap, transfers] : table) {
    FakePool fake;
    fake.pool->setMaximumConnections(cap);
    SessionPool& sessions = fake.pool->sessions();
    int begun = 0;
    while (sessions.tryBeginTransfer()) ++begun;
    EXPECT_EQ(begun, transfers) << "of " << cap;
    while (begun-- > 0) sessions.endTransfer();
  }
}

// Downloads that wait at the engine's gate after their first byte.
void holdDownloads(FakeEngine& engine) {
  engine.onDownload = [&engine](FakeSession&, NSFileHandle& to, uint64_t offset, std::string*,
                                TransferControl& control, NSErrorRef* error) {
    EXPECT_TRUE(to.writeAll("x", 1, offset));
    control.progress(offset + 1);
    engine.gate.pass();
    return !control.shouldCancel() || failWith(kQuarnKitCancelled, error);
  };
}

TEST(PoolTransfers, ListingsAnswerWhileAllTransfersAreHeld) {
  FakePool fake;
  fake.pool->setMaximumConnections(4);
  holdDownloads(*fake.engine);
  std::vector<std::thread> downloads;
  for (int i = 0; i < 10; ++i) downloads.emplace_back([&] { EXPECT_TRUE(download(fake).done); });
  ASSERT_TRUE(fake.engine->gate.waitUntilEntered(3));
  EXPECT_TRUE(fake.list());
  EXPECT_TRUE(fake.list());
  fake.engine->gate.open();
  for (std::thread& thread : downloads) thread.join();
  EXPECT_LE(fake.engine->mostLiving, 4);
}

TEST(PoolTransfers, HundredsOfWaitingReadersDoNotKeepAListingWaiting) {
  FakePool fake;
  holdDownloads(*fake.engine);
  constexpr int kReaders = 500;
  std::atomic<int> done{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([&] {
      EXPECT_TRUE(download(fake).done);
      ++done;
    });
  }
  ASSERT_TRUE(fake.engine->gate.waitUntilEntered(6));
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(fake.list());
  EXPECT_EQ(done, 0);
  fake.engine->gate.open();
  for (std::thread& reader : readers) reader.join();
  // Six transfers, one session for the listings, and one that a download came with before it was told to
  // wait.
  EXPECT_LE(fake.engine->mostLiving, 8);
}

TEST(PoolTransfers, ACallThatWantsATransferGivesItsSessionBackBeforeItWaits) {
  FakePool fake;
  fake.pool->setMaximumConnections(2);
  holdDownloads(*fake.engine);
  std::thread first([&] { EXPECT_TRUE(download(fake).done); });
  ASSERT_TRUE(fake.engine->gate.waitUntilEntered(1));
  std::thread second([&] {
    fake.with([&](AbstractConnection& connection) {
      EXPECT_TRUE(connection.connect(nullptr));
      const auto file = temporaryFile();
      EXPECT_TRUE(connection.downloadFileAtPath("/g", *file, 0, nullptr, nullptr));
    });
  });
  while (!fake.pool->sessions().othersWait()) std::this_thread::yield();
  EXPECT_TRUE(fake.list()) << "the second session is free while its connection waits for a transfer";
  fake.engine->gate.open();
  first.join();
  second.join();
}

// Lists while a download stands at the gate, which opens once the listing waits in line.
void listWhileAtTheGate(FakePool& fake) {
  std::thread listing([&] { EXPECT_TRUE(fake.list()); });
  while (!fake.pool->sessions().othersWait()) std::this_thread::yield();
  fake.engine->gate.open();
  listing.join();
}

TEST(PoolTransfers, ADownloadThatNobodyWaitsForGivesWayAndGoesOnWhereItWas) {
  const ManualClock clock;  // a turn ends when it was worth its beginning, which took no time
  FakePool fake;
  fake.pool->setMaximumConnections(1);
  const std::string content(100, 'c');
  std::vector<uint64_t> offsets;
  fake.engine->onDownload = [&](FakeSession&, NSFileHandle& to, uint64_t offset, std::string*,
                                TransferControl& control, NSErrorRef* error) {
    offsets.push_back(offset);
    if (!deliver(content, 1, offset + 10, to, offset, control, error)) return false;
    fake.engine->gate.pass();
    return deliver(content, 1, 100, to, offset + 10, control, error);
  };
  Watcher watcher;
  watcher.isAwaited = false;
  DownloadResult result;
  std::thread downloading([&] { result = download(fake, &watcher); });
  ASSERT_TRUE(fake.engine->gate.waitUntilEntered(1));
  listWhileAtTheGate(fake);
  downloading.join();
  EXPECT_TRUE(result.done);
  EXPECT_EQ(result.content, content);
  EXPECT_THAT(offsets, ElementsAre(0u, 10u));
  EXPECT_EQ(fake.engine->made, 1) << "the paused session is the one that listed";
}

// A turn of a download that gives way, of which it takes `toBegin` seconds until the first bytes come.
void expectTurnOf(double seconds, double toBegin) {
  ManualClock clock;
  FakePool fake;
  fake.pool->setMaximumConnections(1);
  fake.engine->onDownload = [&](FakeSession&, NSFileHandle& to, uint64_t offset, std::string*,
                                TransferControl& control, NSErrorRef* error) {
    if (offset > 0) return deliver("0123456789", 1, 10, to, offset, control, error);
    clock.advance(toBegin);
    EXPECT_TRUE(deliver("0123456789", 1, 5, to, 0, control, error));
    fake.engine->gate.pass();
    clock.advance(seconds - 0.01);
    EXPECT_FALSE(control.shouldCancel());
    clock.advance(0.02);
    EXPECT_TRUE(control.shouldCancel());
    return failWith(kQuarnKitCancelled, error);
  };
  Watcher watcher;
  watcher.isAwaited = false;
  std::thread downloading([&] { EXPECT_EQ(download(fake, &watcher).content, "0123456789"); });
  ASSERT_TRUE(fake.engine->gate.waitUntilEntered(1));
  listWhileAtTheGate(fake);
  downloading.join();
}

TEST(PoolTransfers, ADownloadDoesNotGiveWayBeforeItsTurnWasWorthItsBeginning) { expectTurnOf(0.4, 0.1); }

TEST(PoolTransfers, ADownloadGivesWayAfterASecondHoweverLongItsBeginningTook) { expectTurnOf(1, 3); }

TEST(PoolTransfers, ADownloadThatSomebodyWaitsForKeepsItsSession) {
  FakePool fake;
  fake.pool->setMaximumConnections(1);
  std::atomic<int> downloads{0};
  fake.engine->onDownload = [&](FakeSession&, NSFileHandle& to, uint64_t offset, std::string*,
                                TransferControl& control, NSErrorRef* error) {
    ++downloads;
    EXPECT_TRUE(deliver("0123456789", 1, 5, to, offset, control, error));
    fake.engine->gate.pass();
    return deliver("0123456789", 1, 10, to, 5, control, error);
  };
  Watcher watcher;
  std::thread downloading([&] { EXPECT_TRUE(download(fake, &watcher).done); });
  ASSERT_TRUE(fake.engine->gate.waitUntilEntered(1));
  listWhileAtTheGate(fake);
  downloading.join();
  EXPECT_EQ(downloads, 1);
}

TEST(PoolTransfers, ADownloadStandsBackInLineUntilSomebodyWaitsForIt) {
  ManualClock clock;
  FakePool fake;
  fake.pool->setMaximumConnections(1);
  EXPECT_TRUE(fake.list());
  clock.waitForSleepers(1);  // the one that closes idle sessions, until the end of the test
  std::vector<std::string> order;
  Gate second;
  fake.engine->onDownload = [&](FakeSession&, NSFileHandle& to, uint64_t offset, std::string*,
                                TransferControl& control, NSErrorRef* error) {
    order.push_back("download");
    if (!deliver("0123456789", 1, offset + 5, to, offset, control, error)) return false;
    if (offset == 0) fake.engine->gate.pass();
    return !control.shouldCancel() || failWith(kQuarnKitCancelled, error);
  };
  fake.engine->onList = [&](FakeSession&, const std::string& path, std::vector<RemoteEntry>*, NSErrorRef*) {
    order.push_back(path);
    if (path == "/first") second.pass();
    return true;
  };
  const auto listPath = [&](const char* path) {
    fake.with([path](AbstractConnection& connection) {
      std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
      EXPECT_TRUE(connection.contentsAtPath(path, &nodes, nullptr));
    });
  };
  Watcher watcher;
  watcher.isAwaited = false;
  std::thread downloading([&] { EXPECT_TRUE(download(fake, &watcher).done); });
  ASSERT_TRUE(fake.engine->gate.waitUntilEntered(1));
  std::thread first([&] { listPath("/first"); });
  while (!fake.pool->sessions().othersWait()) std::this_thread::yield();
  fake.engine->gate.open();
  // The download has given way; its place is behind one that comes later, but is waited for.
  ASSERT_TRUE(second.waitUntilEntered(1));
  clock.waitForSleepers(2);
  std::thread later([&] { listPath("/later"); });
  while (!fake.pool->sessions().othersWait()) std::this_thread::yield();
  second.open();
  first.join();
  later.join();
  downloading.join();
  EXPECT_THAT(order, ElementsAre("download", "/first", "/later", "download"));
}

TEST(PoolTransfers, CancellingEndsTheWaitForASession) {
  FakePool fake;
  fake.pool->setMaximumConnections(1);
  holdDownloads(*fake.engine);
  std::thread first([&] { EXPECT_TRUE(download(fake).done); });
  ASSERT_TRUE(fake.engine->gate.waitUntilEntered(1));
  const auto connection = fake.pool->acquireConnection();
  const auto file = temporaryFile();
  NSErrorRef error;
  std::thread second([&] { EXPECT_FALSE(connection->downloadFileAtPath("/g", *file, 0, nullptr, &error)); });
  while (!fake.pool->sessions().othersWait()) std::this_thread::yield();
  connection->setShouldCancel(true);
  second.join();
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitCancelled));
  fake.engine->gate.open();
  first.join();
  fake.pool->releaseConnection(connection);
}

// ---- uploads

TEST(PoolUpload, IsRepeatedWhenNothingHadBeenSent) {
  ManualClock clock;
  FakePool fake;
  std::atomic<int> uploads{0};
  fake.engine->onUpload = [&](FakeSession& session, NSFileHandle&, uint64_t, TransferControl& control,
                              NSErrorRef* error) {
    ++uploads;
    if (session.number == 1) return failWith(kQuarnKitConnectionLost, error);
    control.progress(5);
    return true;
  };
  const auto file = temporaryFile("hello");
  std::thread caller([&] {
    fake.with([&](AbstractConnection& connection) {
      uint64_t bytes = 0;
      EXPECT_TRUE(connection.uploadFileHandle(*file, "f", "/f", 0, &bytes, nullptr));
      EXPECT_EQ(bytes, 5u);
    });
  });
  clock.waitForSleepers(1);
  clock.advance(0.25);
  caller.join();
  EXPECT_EQ(uploads, 2);
}

TEST(PoolUpload, IsNotRepeatedOnceSomethingWasSent) {
  FakePool fake;
  std::atomic<int> uploads{0};
  fake.engine->onUpload = [&](FakeSession&, NSFileHandle&, uint64_t, TransferControl& control,
                              NSErrorRef* error) {
    ++uploads;
    control.progress(3);
    return failWith(kQuarnKitConnectionLost, error);
  };
  const auto file = temporaryFile("hello");
  fake.with([&](AbstractConnection& connection) {
    uint64_t bytes = 0;
    NSErrorRef error;
    EXPECT_FALSE(connection.uploadFileHandle(*file, "f", "/f", 0, &bytes, &error));
    EXPECT_EQ(bytes, 3u);
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitConnectionLost));
  });
  EXPECT_EQ(uploads, 1);
}

TEST(PoolUpload, FromAnOffsetNeedsTheProtocolsSupport) {
  FakePool fake;
  fake.engine->inPlace = false;
  const auto file = temporaryFile("hello");
  fake.with([&](AbstractConnection& connection) {
    NSErrorRef error;
    EXPECT_FALSE(connection.uploadFileHandle(*file, "f", "/f", 2, nullptr, &error));
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNotSupported));
  });
  EXPECT_EQ(fake.engine->made, 0);
}

TEST(PoolUpload, OfALocalFileThatCannotBeReadSaysWhy) {
  FakePool fake;
  fake.with([&](AbstractConnection& connection) {
    NSErrorRef error;
    EXPECT_FALSE(connection.uploadFileAtPath("/no/such/file", "/f", 0, nullptr, &error));
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitLocalFailure));
    ASSERT_NE(error->underlyingError(), nullptr);
    EXPECT_EQ(error->underlyingError()->code(), ENOENT);
  });
  EXPECT_EQ(fake.engine->made, 0);
}

// ---- streams

// Gives the text in pieces, then the end.
Watcher& giving(Watcher& handler, std::vector<std::string> pieces) {
  auto left = std::make_shared<std::vector<std::string>>(std::move(pieces));
  handler.onBytes = [left](AbstractConnection&, std::byte* buffer, size_t capacity) -> size_t {
    if (left->empty()) return 0;
    const std::string piece = left->front();
    left->erase(left->begin());
    EXPECT_LE(piece.size(), capacity);
    std::memcpy(buffer, piece.data(), piece.size());
    return piece.size();
  };
  return handler;
}

// Sends all that the stream gives into `sent`.
void collectStreams(FakeEngine& engine, std::string& sent) {
  engine.onStream = [&sent](FakeSession&, const std::function<size_t(std::byte*, size_t)>& next,
                            TransferControl& control, NSErrorRef* error) {
    std::array<std::byte, 1000> buffer{};
    while (const size_t count = next(buffer.data(), buffer.size())) {
      if (control.shouldCancel()) return failWith(kQuarnKitCancelled, error);
      sent.append(reinterpret_cast<const char*>(buffer.data()), count);
      control.progress(sent.size());
    }
    return true;
  };
}

TEST(PoolStream, SendsWhatTheHandlerGivesAndNeverReportsProgress) {
  FakePool fake;
  std::string sent;
  collectStreams(*fake.engine, sent);
  Watcher handler;
  fake.with([&](AbstractConnection& connection) {
    connection.setDelegate(&handler);
    EXPECT_TRUE(
        connection.streamBytesWithFilename("f", "/f", giving(handler, {"one ", "two ", "three"}), nullptr));
    connection.setDelegate(nullptr);
  });
  EXPECT_EQ(sent, "one two three");
  EXPECT_TRUE(handler.reports.empty());
}

TEST(PoolStream, TakesDataFromItsHandlerWhileItWaitsForASession) {
  FakePool fake;
  fake.pool->setMaximumConnections(1);
  Gate& gate = fake.engine->gate;
  fake.engine->onList = [&](FakeSession&, const std::string&, std::vector<RemoteEntry>*, NSErrorRef*) {
    gate.pass();
    return true;
  };
  std::string sent;
  collectStreams(*fake.engine, sent);
  std::thread listing([&] { EXPECT_TRUE(fake.list()); });
  ASSERT_TRUE(gate.waitUntilEntered());
  Watcher handler;
  Gate ended;
  giving(handler, {"one ", "two"});
  const auto give = handler.onBytes;
  handler.onBytes = [&](AbstractConnection& connection, std::byte* buffer, size_t capacity) {
    const size_t count = give(connection, buffer, capacity);
    if (count == 0) ended.pass();
    return count;
  };
  std::thread streaming([&] {
    fake.with([&](AbstractConnection& connection) {
      EXPECT_TRUE(connection.streamBytesWithFilename("f", "/f", handler, nullptr));
    });
  });
  // The handler has given everything although the only session is taken.
  ASSERT_TRUE(ended.waitUntilEntered());
  EXPECT_EQ(sent, "");
  ended.open();
  gate.open();
  listing.join();
  streaming.join();
  EXPECT_EQ(sent, "one two");
}

TEST(PoolStream, OthersPassWhileItsHandlerBlocks) {
  FakePool fake;
  fake.pool->setMaximumConnections(1);
  Gate& gate = fake.engine->gate;
  std::atomic<int> lists{0};
  fake.engine->onList = [&](FakeSession&, const std::string&, std::vector<RemoteEntry>*, NSErrorRef*) {
    if (++lists == 1) gate.pass();
    return true;
  };
  std::string sent;
  collectStreams(*fake.engine, sent);
  std::thread listing([&] { EXPECT_TRUE(fake.list()); });
  ASSERT_TRUE(gate.waitUntilEntered());
  Watcher handler;
  Gate blocked;
  handler.onBytes = [&](AbstractConnection&, std::byte*, size_t) -> size_t {
    blocked.pass();
    return 0;
  };
  std::thread streaming([&] {
    fake.with([&](AbstractConnection& connection) {
      EXPECT_TRUE(connection.streamBytesWithFilename("f", "/f", handler, nullptr));
    });
  });
  ASSERT_TRUE(blocked.waitUntilEntered());
  gate.open();
  listing.join();
  EXPECT_TRUE(fake.list()) << "the session that came free is not kept for a stream that has no data";
  blocked.open();
  streaming.join();
}

TEST(PoolStream, IsNotBegunAgainOnceDataWasTaken) {
  FakePool fake;
  std::atomic<int> streams{0};
  fake.engine->onStream = [&](FakeSession&, const std::function<size_t(std::byte*, size_t)>& next,
                              TransferControl&, NSErrorRef* error) {
    ++streams;
    std::array<std::byte, 10> buffer{};
    EXPECT_EQ(next(buffer.data(), buffer.size()), 3u);
    return failWith(kQuarnKitConnectionLost, error);
  };
  Watcher handler;
  fake.with([&](AbstractConnection& connection) {
    NSErrorRef error;
    EXPECT_FALSE(connection.streamBytesWithFilename("f", "/f", giving(handler, {"one", "two"}), &error));
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitConnectionLost));
  });
  EXPECT_EQ(streams, 1);
}

TEST(PoolStream, IsBegunAgainWhenTheSessionWasLostBeforeItTookData) {
  ManualClock clock;
  FakePool fake;
  std::string sent;
  collectStreams(*fake.engine, sent);
  const auto collect = fake.engine->onStream;
  fake.engine->onStream = [&](FakeSession& session, const auto& next, TransferControl& control,
                              NSErrorRef* error) {
    if (session.number == 1) return failWith(kQuarnKitConnectionLost, error);
    return collect(session, next, control, error);
  };
  Watcher handler;
  giving(handler, {"one", "two"});
  std::thread caller([&] {
    fake.with([&](AbstractConnection& connection) {
      EXPECT_TRUE(connection.streamBytesWithFilename("f", "/f", handler, nullptr));
    });
  });
  clock.waitForSleepers(1);
  clock.advance(0.25);
  caller.join();
  EXPECT_EQ(sent, "onetwo");
}

TEST(PoolStream, ACancelMarkThatComesWithTheEndCancels) {
  FakePool fake;
  std::string sent;
  collectStreams(*fake.engine, sent);
  Watcher handler;
  handler.onBytes = [](AbstractConnection& connection, std::byte*, size_t) -> size_t {
    connection.setShouldCancel(true);
    return 0;
  };
  fake.with([&](AbstractConnection& connection) {
    NSErrorRef error;
    EXPECT_FALSE(connection.streamBytesWithFilename("f", "/f", handler, &error));
    EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitCancelled));
  });
}

}  // namespace
}  // namespace ombra
