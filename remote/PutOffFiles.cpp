#include "remote/PutOffFiles.h"

#include <algorithm>
#include <system_error>

#include "platform/foundation/NSThread.h"
#include "remote/QuarnKitError.h"
#include "remote/RemotePaths.h"

namespace ombra {
namespace {

// By then a program that copies a file has written to it.
constexpr double kSeconds = 1.0;

NSErrorRef stoppedError() {
  return QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "the volume is closing");
}

}  // namespace

PutOffFiles::Turn::~Turn() {
  if (iOwner != nullptr) iOwner->giveBack(iPath);
}

void PutOffFiles::Turn::done(NSErrorRef failure) {
  std::exchange(iOwner, nullptr)->end(iPath, std::move(failure));
}

PutOffFiles::PutOffFiles(MakeDue makeDue) : iMakeDue(std::move(makeDue)) {}

PutOffFiles::~PutOffFiles() {
  stop();
  if (iMaker.joinable()) iMaker.join();
}

bool PutOffFiles::hasMaker() {
  if (iMakerRuns) return true;
  try {
    iMaker = std::thread([this] { makeWhatIsDue(); });
    iMakerRuns = true;
  } catch (const std::system_error&) {
    // Without a thread that makes it in time, nothing is put off.
  }
  return iMakerRuns;
}

bool PutOffFiles::putOff(const std::string& path, std::shared_ptr<UnconfirmedExtents> file) {
  const ConditionLock lock(iCondition);
  if (iIsStopped || !hasMaker()) return false;
  const auto former = iEntries.find(path);
  if (former != iEntries.end()) {
    // The content that is on its way there would come behind this one, or this one behind it.
    if (former->second.isTaken) return false;
    locked_end(former, nullptr);
  }
  file->putOff();
  iEntries[path] = {std::move(file), NSDate::dateWithTimeIntervalSinceNow(kSeconds)};
  iCount = iEntries.size();
  // While it sleeps for another one it wakes in time for this one.
  if (std::exchange(iMakerRests, false)) iCondition.broadcast();
  return true;
}

bool PutOffFiles::has(const IsMeant& isMeant) const {
  if (isEmpty()) return false;
  const ConditionLock lock(iCondition);
  return std::any_of(iEntries.begin(), iEntries.end(),
                     [&](const auto& entry) { return isMeant(entry.first, entry.second.file.get()); });
}

std::vector<std::string> PutOffFiles::namesIn(std::string_view folder) const {
  std::vector<std::string> names;
  if (isEmpty()) return names;
  const ConditionLock lock(iCondition);
  for (const auto& [path, entry] : iEntries) {
    if (parentOfRemotePath(path) == folder) names.emplace_back(nameOfRemotePath(path));
  }
  return names;
}

std::optional<PutOffFiles::Turn> PutOffFiles::take(const IsMeant& isMeant) {
  if (isEmpty()) return std::nullopt;
  const ConditionLock lock(iCondition);
  while (true) {
    bool othersHaveSome = false;
    for (auto& [path, entry] : iEntries) {
      if (!isMeant(path, entry.file.get())) continue;
      if (!entry.isTaken) {
        entry.isTaken = true;
        return Turn(*this, path);
      }
      othersHaveSome = true;
    }
    if (!othersHaveSome) return std::nullopt;
    ++iWaiters;
    iCondition.wait();
    --iWaiters;
  }
}

void PutOffFiles::giveBack(const std::string& path) {
  const ConditionLock lock(iCondition);
  const auto entry = iEntries.find(path);
  if (iIsStopped) {
    locked_end(entry, stoppedError());
  } else {
    entry->second.isTaken = false;
    // Its time may be over.
    iMakerRests = false;
  }
  iCondition.broadcast();
}

void PutOffFiles::end(const std::string& path, NSErrorRef failure) {
  const ConditionLock lock(iCondition);
  locked_end(iEntries.find(path), std::move(failure));
}

void PutOffFiles::locked_end(Entries::iterator entry, NSErrorRef failure) {
  entry->second.file->endPutOff(std::move(failure));
  if (iWaiters > 0) iCondition.broadcast();
  iEntries.erase(entry);
  iCount = iEntries.size();
}

void PutOffFiles::fail(const std::string& path, NSErrorRef failure) {
  const ConditionLock lock(iCondition);
  const auto entry = iEntries.find(path);
  if (entry != iEntries.end() && !entry->second.isTaken) locked_end(entry, std::move(failure));
}

void PutOffFiles::stop() {
  const ConditionLock lock(iCondition);
  iIsStopped = true;
  for (auto entry = iEntries.begin(); entry != iEntries.end();) {
    const auto present = entry++;
    if (!present->second.isTaken) locked_end(present, stoppedError());
  }
  iCondition.broadcast();
}

// The first one whose time is over; else when that of the next one is.
std::optional<std::string> PutOffFiles::nextDue(std::optional<NSDate>* limit) const {
  const NSDate now = NSDate::date();
  // What seems to be due later is so because the clock was set back.
  const NSDate latest = now.dateByAddingTimeInterval(kSeconds);
  for (const auto& [path, entry] : iEntries) {
    if (entry.isTaken) continue;
    if (entry.due <= now || entry.due > latest) return path;
    *limit = std::min(limit->value_or(entry.due), entry.due);
  }
  return std::nullopt;
}

void PutOffFiles::makeWhatIsDue() {
  NSThread::setName("making new files");
  iCondition.lock();
  while (!iIsStopped) {
    std::optional<NSDate> limit;
    const std::optional<std::string> path = nextDue(&limit);
    if (path) {
      iCondition.unlock();
      iMakeDue(*path);
      iCondition.lock();
    } else if (limit) {
      (void)iCondition.waitUntilDate(*limit);
    } else {
      iMakerRests = true;
      while (iMakerRests && !iIsStopped) iCondition.wait();
    }
  }
  iCondition.unlock();
}

}  // namespace ombra
