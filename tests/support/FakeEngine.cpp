#include "tests/support/FakeEngine.h"

#include <cstdlib>

#include "remote/RemotePaths.h"

namespace ombra {

RemoteEntry entryNamed(std::string name, uint32_t type) {
  RemoteEntry entry;
  entry.name = std::move(name);
  entry.type = type;
  return entry;
}

void Gate::pass(const std::function<bool()>& interrupted) {
  WatchedLock lock(iCondition);
  ++iEntered;
  iCondition.broadcast();
  while (!iIsOpen && !(interrupted && interrupted())) iCondition.wait();
}

bool Gate::waitUntilEntered(size_t count) {
  WatchedLock lock(iCondition);
  while (iEntered < count) {
    if (!iCondition.waitFor("a call at the gate")) return false;
  }
  return true;
}

void Gate::open() {
  WatchedLock lock(iCondition);
  iIsOpen = true;
  iCondition.broadcast();
}

void Gate::poke() {
  WatchedLock lock(iCondition);
  iCondition.broadcast();
}

std::unique_ptr<Session> FakeEngine::makeSession(const SessionEnvironment& environment) {
  const int now = ++living;
  int most = mostLiving;
  while (now > most && !mostLiving.compare_exchange_weak(most, now)) {
  }
  return std::make_unique<FakeSession>(*this, environment, ++made);
}

void FakeEngine::sessionGone() {
  WatchedLock lock(iCondition);
  --living;
  iCondition.broadcast();
}

bool FakeEngine::waitUntilLiving(int count) {
  WatchedLock lock(iCondition);
  while (living > count) {
    if (!iCondition.waitFor("sessions to be closed")) return false;
  }
  return true;
}

void FakeSession::interrupt() {
  iInterrupted = true;
  iEngine.gate.poke();
}

bool FakeSession::logIn(NSErrorRef* error) {
  ++iEngine.logins;
  return !iEngine.onLogIn || iEngine.onLogIn(*this, error);
}

std::optional<std::string> FakeSession::realPath(std::string_view path, std::string_view base,
                                                 bool* isDirectory, NSErrorRef*) {
  *isDirectory = !path.ends_with(".txt");
  return absoluteRemotePath(path, base);
}

std::optional<LinkResolution> FakeSession::resolveLink(std::string_view path, NSErrorRef* error) {
  ++iEngine.resolves;
  if (iEngine.onResolve) return iEngine.onResolve(*this, std::string(path), error);
  LinkResolution resolution;
  resolution.resolved = true;
  resolution.resolvedPath = path;
  return resolution;
}

std::optional<NSFileAttributes> FakeSession::attributes(std::string_view path, bool* isDirectory,
                                                        NSErrorRef* error) {
  ++iEngine.attributeCalls;
  *isDirectory = iEngine.isFolder && iEngine.isFolder(std::string(path));
  if (iEngine.onAttributes && !iEngine.onAttributes(*this, std::string(path), error)) return std::nullopt;
  NSFileAttributes attributes;
  attributes.fileSize = 3;
  return attributes;
}

std::optional<NSFileAttributes> FakeSession::fileSystemAttributes(std::string_view, NSErrorRef* error) {
  failWith(kQuarnKitNotSupported, error);
  return std::nullopt;
}

bool FakeSession::list(std::string_view path, std::vector<RemoteEntry>* entries, NSErrorRef* error) {
  ++iEngine.lists;
  iHasOpenedAhead = iEngine.opensAhead;
  if (iEngine.onList) return iEngine.onList(*this, std::string(path), entries, error);
  RemoteEntry entry;
  entry.name = "a";
  entries->push_back(entry);
  return true;
}

bool FakeSession::change(std::string_view path, NSErrorRef* error) {
  ++iEngine.changes;
  return !iEngine.onChange || iEngine.onChange(*this, std::string(path), error);
}

bool FakeSession::download(std::string_view, NSFileHandle& to, uint64_t offset, std::string* version,
                           TransferControl& control, NSErrorRef* error) {
  return !iEngine.onDownload || iEngine.onDownload(*this, to, offset, version, control, error);
}

FakeSession::~FakeSession() {
  if (iHeldExtents != nullptr)
    iHeldExtents->endSending(QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  iEngine.sessionGone();
}

void FakeSession::closeOpenedAhead() {
  if (std::exchange(iHasOpenedAhead, false) && iEngine.onEndOfOpenedAhead) iEngine.onEndOfOpenedAhead();
}

void FakeSession::becameIdle() {
  if (iHeldPath.empty()) return;
  ++iEngine.endsOfHold;
  NSErrorRef failure = iEngine.onEndOfHold ? iEngine.onEndOfHold(*this, iHeldPath) : nullptr;
  iHeldPath.clear();
  std::exchange(iHeldExtents, nullptr)->endSending(std::move(failure));
}

bool FakeSession::upload(NSFileHandle& from, std::string_view path, uint64_t offset, TransferControl& control,
                         NSErrorRef* error) {
  if (iEngine.holds && from.isScratch() && (iHeldPath != path || iHeldExtents != from.extents())) {
    becameIdle();
    iHeldPath = path;
    iHeldExtents = from.extents();
    iHeldExtents->beginSending();
  }
  if (iEngine.putsOff) control.takesOverNewFile();
  return !iEngine.onUpload || iEngine.onUpload(*this, from, offset, control, error);
}

bool FakeSession::checkNewFile(std::string_view path, bool* mayWait, NSErrorRef* error) {
  *mayWait = true;
  return !iEngine.onCheckNewFile || iEngine.onCheckNewFile(*this, std::string(path), mayWait, error);
}

bool FakeSession::makeFile(std::string_view path, NSErrorRef* error) {
  return !iEngine.onMake || iEngine.onMake(*this, std::string(path), error);
}

bool FakeSession::stream(const std::function<size_t(std::byte*, size_t)>& next, std::string_view,
                         TransferControl& control, NSErrorRef* error) {
  if (iEngine.putsOff) control.takesOverNewFile();
  return !iEngine.onStream || iEngine.onStream(*this, next, control, error);
}

bool failWith(QuarnKitErrorCode code, NSErrorRef* error) {
  storeError(error, QuarnKitError::errorWithCode(code));
  return false;
}

void sitOut(ManualClock& clock, const std::vector<double>& pauses, const std::atomic<int>& attempts) {
  for (const double pause : pauses) {
    clock.waitForSleepers(1);
    const int before = attempts;
    clock.advanceWithin(pause - 0.01, 1);
    EXPECT_EQ(attempts, before) << "tried again before " << pause << " s had passed";
    clock.advance(0.02);
    // Without this the next look at the sleepers could meet one of this pause that is still waking up.
    while (attempts == before) std::this_thread::yield();
  }
}

FakePool::FakePool(std::shared_ptr<FakeEngine> withEngine)
    : engine(std::move(withEngine)), credentials(std::make_shared<KCCredentials>()) {
  credentials->setProtocol(kProtocolSFTP);
  pool = std::make_shared<ConnectionPool>(credentials, engine);
}

void FakePool::with(const std::function<void(AbstractConnection&)>& work) {
  const std::shared_ptr<AbstractConnection> connection = pool->acquireConnection();
  ASSERT_NE(connection, nullptr);
  work(*connection);
  pool->releaseConnection(connection);
}

bool FakePool::list(NSErrorRef* error) {
  bool listed = false;
  with([&](AbstractConnection& connection) {
    std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
    listed = connection.contentsAtPath("/", &nodes, error);
  });
  return listed;
}

}  // namespace ombra
