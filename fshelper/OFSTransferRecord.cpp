#include "fshelper/OFSTransferRecord.h"

#include <fmt/format.h>

#include <utility>

#include "remote/QuarnKitError.h"

namespace ombra {
namespace {

constexpr double kWindow = 5.0;  // seconds that a rate looks back
constexpr double kBetweenSamples = 0.5;
constexpr double kPauseOfPieces = 2.0;  // seconds between two writes of one program

// What the server or the library said; what the interface makes of it (an input/output error) tells nobody
// anything.
std::string reasonOf(const NSErrorRef& failure) {
  NSErrorRef reason = failure;
  while (reason->domain() == NSPOSIXErrorDomain && reason->underlyingError() != nullptr)
    reason = reason->underlyingError();
  const NSErrorRef beneath = reason->underlyingError();
  if (!QuarnKitError::isCode(reason, kQuarnKitLocalFailure) || beneath == nullptr)
    return reason->localizedDescription();
  // Of its copy on this machine: the server's path would mislead.
  return fmt::format("{}: {}", QuarnKitError::textForCode(kQuarnKitLocalFailure),
                     beneath->localizedDescription());
}

}  // namespace

void OFSTransferRate::begin(NSDate now) {
  iBegin = now;
  iGrown = now;
  iCount = 0;
  iSamples.assign(1, {now, 0});
}

void OFSTransferRate::add(NSDate now, uint64_t count) {
  // The system's clock may be set back.
  if (iSamples.empty() || now < iSamples.back().time) {
    begin(now);
    iSamples.front().count = count;
  }
  if (count != iCount) iGrown = now;
  iCount = count;
  if (now.timeIntervalSinceDate(iSamples.back().time) < kBetweenSamples) return;
  iSamples.push_back({now, count});
  // One that is older than the window stays: it is where the window's growth begins.
  while (now.timeIntervalSinceDate(iSamples[1].time) >= kWindow) iSamples.pop_front();
}

std::optional<uint64_t> OFSTransferRate::perSecond(NSDate now) const {
  if (iSamples.empty() || now.timeIntervalSinceDate(iBegin) < kBetweenSamples) return std::nullopt;
  if (now.timeIntervalSinceDate(iGrown) >= kWindow) return 0;
  Sample from = iSamples.front();
  for (const Sample& sample : iSamples) {
    if (now.timeIntervalSinceDate(sample.time) >= kWindow) from = sample;
  }
  return static_cast<uint64_t>(static_cast<double>(iCount - from.count) /
                               now.timeIntervalSinceDate(from.time));
}

void OFSTransferTotals::setLastFailure(OFSTransferFailure failure) {
  const MutexLock lock(iLock);
  iFailure = std::move(failure);
}

std::optional<OFSTransferFailure> OFSTransferTotals::lastFailure() const {
  const MutexLock lock(iLock);
  return iFailure;
}

void OFSTransferRecord::setTotals(std::shared_ptr<OFSTransferTotals> totals) {
  const MutexLock lock(iLock);
  iTotals = std::move(totals);
}

void OFSTransferRecord::begin(Direction direction, std::optional<uint64_t> size) {
  const NSDate now = NSDate::date();
  const MutexLock lock(iLock);
  iRunning = true;
  iInPieces = false;
  iDirection = direction;
  iDone = 0;
  iSize = size;
  iRate.begin(now);
}

void OFSTransferRecord::moved(uint64_t done) {
  const MutexLock lock(iLock);
  if (iRunning) locked_moved(done);
}

void OFSTransferRecord::locked_moved(uint64_t done) {
  const uint64_t more = done > iDone ? done - iDone : 0;
  if (iTotals != nullptr && iDirection == Direction::kDownload) iTotals->addReceived(more);
  if (iTotals != nullptr && iDirection == Direction::kUpload) iTotals->addSent(more);
  const NSDate now = NSDate::date();
  if (done < iDone) iRate.begin(now);
  iDone = done;
  iRate.add(now, done);
}

void OFSTransferRecord::beginPiece() {
  const NSDate now = NSDate::date();
  const MutexLock lock(iLock);
  const bool goesOn = iInPieces && locked_isRunning(now);
  iRunning = true;
  if (goesOn) return;
  iInPieces = true;
  iDirection = Direction::kUpload;
  iDone = 0;
  iSize.reset();
  iRate.begin(now);
}

void OFSTransferRecord::endPiece(uint64_t bytes) {
  const MutexLock lock(iLock);
  iRunning = false;
  iLastPiece = NSDate::date();
  iFailure.clear();
  locked_moved(iDone + bytes);
}

void OFSTransferRecord::end(const std::string& remotePath, const NSErrorRef& failure) {
  {
    const MutexLock lock(iLock);
    iRunning = false;
    iInPieces = false;
    if (failure == nullptr && iDirection == Direction::kUpload) iFailure.clear();
  }
  if (failure != nullptr) fail(remotePath, failure);
}

void OFSTransferRecord::fail(const std::string& remotePath, const NSErrorRef& failure) {
  if (QuarnKitError::isCode(failure, kQuarnKitCancelled)) return;
  OFSTransferFailure told{remotePath, reasonOf(failure), NSDate::date()};
  std::shared_ptr<OFSTransferTotals> totals;
  {
    const MutexLock lock(iLock);
    if (iDirection == Direction::kUpload) iFailure = told.text;
    totals = iTotals;
  }
  if (totals != nullptr) totals->setLastFailure(std::move(told));
}

void OFSTransferRecord::setLedger(Ledger ledger) {
  const MutexLock lock(iLock);
  iLedger = ledger;
  // The server has it all: whatever failed before was made good.
  if (ledger == Ledger::kCovered) iFailure.clear();
}

bool OFSTransferRecord::locked_isRunning(NSDate now) const {
  return iRunning || (iInPieces && now.timeIntervalSinceDate(iLastPiece) < kPauseOfPieces);
}

OFSTransferRecord::Snapshot OFSTransferRecord::snapshot() const {
  const NSDate now = NSDate::date();
  const MutexLock lock(iLock);
  Snapshot snapshot;
  snapshot.running = locked_isRunning(now);
  snapshot.direction = iDirection;
  snapshot.done = iDone;
  snapshot.size = iSize;
  snapshot.inPieces = iInPieces;
  snapshot.lastBytes = iLastBytes.load() > 0;
  if (snapshot.running) snapshot.perSecond = iRate.perSecond(now);
  snapshot.ledger = iLedger;
  snapshot.failure = iFailure;
  return snapshot;
}

}  // namespace ombra
