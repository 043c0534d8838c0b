#include "tests/support/ScriptedServerState.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "platform/foundation/NSThread.h"
#include "tests/support/ScriptedConnection.h"

namespace ombra {

std::string ScriptedCall::text() const {
  std::string result = name;
  for (const std::string& argument : arguments) result.append(" ").append(argument);
  return result;
}

bool ScriptedServer::State::Injected::matches(std::string_view wantedOperation,
                                              std::string_view wantedPath) const {
  return operation == wantedOperation && (path == kAnyPath || path == wantedPath);
}

ScriptedServer::State::State(uint32_t protocol)
    : iCredentials(std::make_shared<KCCredentials>()),
      iIsSFTP(protocol == kProtocolSFTP),
      iIsWebDAV(protocol == kProtocolWebDAV || protocol == kProtocolWebDAVTLS),
      iSupportsUploadByteOffset(protocol == kProtocolSFTP || protocol == kProtocolFile) {
  iCredentials->setProtocol(protocol);
  iCredentials->setAddress("server.test");
  iCredentials->setUsername("anna");
}

ScriptedServer::State::~State() = default;

void ScriptedServer::State::setMaximumConnections(int maximum) {
  record(0, "setMaximumConnections", {std::to_string(maximum)});
  WatchedLock lock(iCondition);
  iMaximumConnections = maximum;
}

std::shared_ptr<AbstractConnection> ScriptedServer::State::acquireConnection() {
  const CallVerdict verdict = begin(0, "acquireConnection", {}, kAnyPath);
  {
    WatchedLock lock(iCondition);
    if (iAcquisitionFails) return nullptr;
  }
  return verdict.fails ? nullptr : makeConnection();
}

std::shared_ptr<AbstractConnection> ScriptedServer::State::acquireConnectionWithTimeout(
    double timeout, const CancellationToken* cancellation) {
  const CallVerdict verdict =
      begin(0, "acquireConnectionWithTimeout",
            {fmt::format("{}", timeout), cancellation != nullptr ? "cancellation" : "none"}, kAnyPath);
  {
    WatchedLock lock(iCondition);
    if (iAcquisitionTimesOut) return nullptr;
  }
  const bool cancelled = cancellation != nullptr && cancellation->isCancelled();
  return verdict.fails || cancelled ? nullptr : makeConnection();
}

std::shared_ptr<AbstractConnection> ScriptedServer::State::makeConnection() {
  if (iIsShutDown) return nullptr;
  WatchedLock lock(iCondition);
  auto connection = std::make_shared<ScriptedConnection>(shared_from_this(), ++iConnections);
  iOut.insert(connection.get());
  ++iAcquired;
  iCondition.broadcast();
  return connection;
}

void ScriptedServer::State::releaseConnection(std::shared_ptr<AbstractConnection> connection) {
  if (connection == nullptr) return;
  record(0, "releaseConnection", {});
  WatchedLock lock(iCondition);
  if (iOut.erase(connection.get()) == 0) {
    ADD_FAILURE() << "a connection was released that is not held: twice, or of another pool";
    return;
  }
  ++iReleased;
  iCondition.broadcast();
}

void ScriptedServer::State::setTranscriptDelegate(TranscriptDelegate* delegate) {
  iTranscriptDelegate = delegate;
}

void ScriptedServer::State::shutDown() {
  record(0, "shutDown", {});
  iIsShutDown = true;
  pokeHolds();
}

void ScriptedServer::State::record(int connection, std::string_view operation,
                                   std::vector<std::string> arguments) {
  ScriptedCall call{std::string(operation), std::move(arguments), connection, std::this_thread::get_id(),
                    NSThread::name()};
  std::function<void(const ScriptedCall&)> observer;
  {
    WatchedLock lock(iCondition);
    iCalls.push_back(call);
    observer = iObserver;
    iCondition.broadcast();
  }
  if (observer) observer(call);
}

CallVerdict ScriptedServer::State::begin(int connection, std::string_view operation,
                                         std::vector<std::string> arguments, std::string_view path,
                                         const std::atomic<bool>* cancelled) {
  record(connection, operation, std::move(arguments));
  CallVerdict verdict = reach(operation, path, 0, cancelled);
  if (verdict.fails) return verdict;
  WatchedLock lock(iCondition);
  const auto found = std::find_if(iInjected.begin(), iInjected.end(), [&](const Injected& injected) {
    return injected.matches(operation, path) && !injected.succeeds && !injected.afterBytes;
  });
  if (found != iInjected.end()) {
    verdict.fails = true;
    verdict.error = found->error;
    if (found->once) iInjected.erase(found);
    return verdict;
  }
  for (const Injected& injected : iInjected) {
    if (injected.succeeds && injected.matches(operation, path)) verdict.sideError = injected.error;
  }
  return verdict;
}

CallVerdict ScriptedServer::State::reach(std::string_view operation, std::string_view path, uint64_t position,
                                         const std::atomic<bool>* cancelled) {
  const auto interrupted = [this, cancelled] { return iIsShutDown || (cancelled != nullptr && *cancelled); };
  std::vector<std::shared_ptr<HoldPoint>> holds;
  {
    WatchedLock lock(iCondition);
    for (const auto& hold : iHolds) {
      if (hold->position() == position && hold->matches(operation, path)) holds.push_back(hold);
    }
  }
  CallVerdict verdict;
  for (const auto& hold : holds) {
    verdict.fails = hold->enter(interrupted, &verdict.error) == HoldEnd::kFailed;
    if (verdict.fails) return verdict;
  }
  if (iIsShutDown) {
    verdict.fails = true;
    verdict.error = QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "the pool was shut down");
  } else if (cancelled != nullptr && *cancelled) {
    verdict.fails = true;
    verdict.error = QuarnKitError::errorWithCode(kQuarnKitCancelled);
  }
  return verdict;
}

uint64_t ScriptedServer::State::nextStop(std::string_view operation, std::string_view path, uint64_t moved) {
  WatchedLock lock(iCondition);
  uint64_t next = kAtEnd;
  for (const auto& hold : iHolds) {
    if (hold->position() > moved && hold->matches(operation, path)) next = std::min(next, hold->position());
  }
  for (const Injected& injected : iInjected) {
    if (injected.afterBytes && *injected.afterBytes > moved && injected.matches(operation, path)) {
      next = std::min(next, *injected.afterBytes);
    }
  }
  return next;
}

std::optional<NSErrorRef> ScriptedServer::State::errorAfter(std::string_view operation, std::string_view path,
                                                            uint64_t moved) {
  WatchedLock lock(iCondition);
  const auto found = std::find_if(iInjected.begin(), iInjected.end(), [&](const Injected& injected) {
    return injected.afterBytes == moved && injected.matches(operation, path);
  });
  if (found == iInjected.end()) return std::nullopt;
  NSErrorRef error = found->error;
  if (found->once) iInjected.erase(found);
  return error;
}

void ScriptedServer::State::pokeHolds() {
  std::vector<std::shared_ptr<HoldPoint>> holds;
  {
    WatchedLock lock(iCondition);
    holds = iHolds;
  }
  for (const auto& hold : holds) hold->poke();
}

void ScriptedServer::State::releaseHolds() {
  std::vector<std::shared_ptr<HoldPoint>> holds;
  {
    WatchedLock lock(iCondition);
    holds = iHolds;
  }
  for (const auto& hold : holds) hold->release();
}

size_t ScriptedServer::State::beginTransfer(ScriptedTransfer record, ScriptedConnection* connection) {
  WatchedLock lock(iCondition);
  Transfer transfer;
  transfer.reached = record.byteOffset;
  transfer.record = std::move(record);
  transfer.connection = connection;
  iTransfers.push_back(std::move(transfer));
  iCondition.broadcast();
  return iTransfers.size() - 1;
}

void ScriptedServer::State::addPiece(size_t transfer, std::string_view bytes, uint64_t reached) {
  WatchedLock lock(iCondition);
  iTransfers[transfer].record.bytes.append(bytes);
  iTransfers[transfer].record.pieces.push_back(bytes.size());
  iTransfers[transfer].reached = reached;
  iCondition.broadcast();
}

void ScriptedServer::State::finishTransfer(size_t transfer, bool succeeded, NSErrorRef error) {
  WatchedLock lock(iCondition);
  ScriptedTransfer& record = iTransfers[transfer].record;
  record.finished = true;
  record.succeeded = succeeded;
  record.error = std::move(error);
  iTransfers[transfer].connection = nullptr;
  iCondition.broadcast();
}

bool HoldPoint::matches(std::string_view operation, std::string_view path) const {
  return iOperation == operation && (iPath == kAnyPath || iPath == path);
}

bool HoldPoint::waitUntilHeld(size_t count) {
  WatchedLock lock(iCondition);
  while (iHeld < count) {
    if (!iCondition.waitFor(fmt::format("{} of {} to be held ({} calls)", iOperation, iPath, count)))
      return false;
  }
  return true;
}

size_t HoldPoint::heldCount() const {
  WatchedLock lock(iCondition);
  return iHeld;
}

void HoldPoint::release() {
  WatchedLock lock(iCondition);
  iReleased = true;
  iCondition.broadcast();
}

void HoldPoint::releaseFailing(NSErrorRef error) {
  WatchedLock lock(iCondition);
  if (iHeld > 0) {
    iFails = true;
    iError = std::move(error);
  }
  iReleased = true;
  iCondition.broadcast();
}

HoldEnd HoldPoint::enter(const std::function<bool()>& interrupted, NSErrorRef* error) {
  WatchedLock lock(iCondition);
  if (iReleased) return HoldEnd::kPassed;
  ++iHeld;
  iCondition.broadcast();
  while (!iReleased && !interrupted()) iCondition.wait();
  --iHeld;
  if (!iReleased) return HoldEnd::kInterrupted;
  if (!iFails) return HoldEnd::kPassed;
  *error = iError;
  return HoldEnd::kFailed;
}

void HoldPoint::poke() {
  WatchedLock lock(iCondition);
  iCondition.broadcast();
}

}  // namespace ombra
