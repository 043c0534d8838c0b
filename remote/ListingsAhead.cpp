#include "remote/ListingsAhead.h"

#include <algorithm>
#include <system_error>

#include "platform/foundation/NSThread.h"
#include "remote/RemotePaths.h"

namespace ombra {
namespace {

// Listings without any ahead, after one that nobody asked for in time.
constexpr int kListingsUntilRetry = 8;

}  // namespace

ListingsAhead::ListingsAhead(List list) : iList(std::move(list)) {}

ListingsAhead::~ListingsAhead() {
  stop();
  std::vector<std::thread> threads;
  {
    const ConditionLock lock(iCondition);
    threads.swap(iThreads);
  }
  for (std::thread& thread : threads) thread.join();
}

void ListingsAhead::stop() {
  const ConditionLock lock(iCondition);
  iIsStopped = true;
  for (const ItemRef& item : iItems) item->isCalledOff = true;
  iCondition.broadcast();
}

std::vector<ListingsAhead::ItemRef>::iterator ListingsAhead::find(std::string_view folder) {
  return std::find_if(iItems.begin(), iItems.end(),
                      [folder](const ItemRef& item) { return item->folder == folder; });
}

std::optional<ListingsAhead::Entries> ListingsAhead::take(std::string_view folder) {
  (void)iWalks.reached(folder, Walks::Kind::kFolder);
  const ConditionLock lock(iCondition);
  forgetOld();
  const auto found = find(folder);
  if (found == iItems.end()) return std::nullopt;
  const ItemRef item = *found;
  iItems.erase(found);
  if (item->state == State::kWanted || item->state == State::kWaitingForSession) {
    // Whoever asks has a place of his own in the line for sessions, ahead of this one's.
    item->isCalledOff = true;
    return std::nullopt;
  }
  while (item->state == State::kBeingListed) iCondition.wait();
  if (item->state != State::kListed || isOutdated(*item)) return std::nullopt;
  iSeconds = item->seconds;
  return std::move(item->entries);
}

bool ListingsAhead::isOutdated(const Item& item) const {
  if (iWalks.isAffected(item.folder, item.changes)) return true;
  // What links lead to may have been changed anywhere.
  return iWalks.changes() != item.changes &&
         std::any_of(item.entries.begin(), item.entries.end(),
                     [](const RemoteEntry& entry) { return static_cast<bool>(entry.resolution); });
}

void ListingsAhead::listed(std::string_view folder, const Entries& entries, std::optional<double> seconds) {
  Walks::Listing known;
  for (const RemoteEntry& entry : entries) {
    if (entry.type == kNodeTypeFolder) known.add(entry.name, Walks::Kind::kFolder, 0, std::nullopt);
  }
  const bool hasFolders = known.has(Walks::Kind::kFolder);
  iWalks.listed(folder, std::move(known));
  {
    const ConditionLock lock(iCondition);
    if (seconds) iSeconds = *seconds;
    if (iUntilRetry > 0) --iUntilRetry;
    if (iIsStopped || iUntilRetry > 0 || iSeconds < kWorthwhileSeconds) return;
  }
  begin(guess(folder, hasFolders));
}

// Into a folder first, then on to its neighbours, then to the neighbour of the folder around it: no further,
// since before the ones behind that come the folders in it, which nobody knows yet.
std::vector<Walks::Item> ListingsAhead::guess(std::string_view folder, bool hasFolders) {
  if (hasFolders) return iWalks.firstIn(folder, Walks::Kind::kFolder, kMostFolders);
  std::vector<Walks::Item> guessed = iWalks.next(folder, Walks::Kind::kFolder, kMostFolders);
  if (guessed.size() < kMostFolders) {
    std::vector<Walks::Item> above = iWalks.next(parentOfRemotePath(folder), Walks::Kind::kFolder, 1);
    std::move(above.begin(), above.end(), std::back_inserter(guessed));
  }
  return guessed;
}

void ListingsAhead::begin(const std::vector<Walks::Item>& guessed) {
  const ConditionLock lock(iCondition);
  forgetOld();
  if (iUntilRetry > 0 || iIsStopped) return;
  for (const Walks::Item& next : guessed) {
    if (iItems.size() >= kMostFolders) break;
    if (find(next.path) != iItems.end() || !hasThreadFor(iItems.size() + 1)) continue;
    iItems.push_back(std::make_shared<Item>(next.path));
  }
  iCondition.broadcast();
}

// What nobody has asked for in time: the guesses are wrong, or the program is slow.
void ListingsAhead::forgetOld() {
  const NSDate now = NSDate::date();
  const auto isOld = [&now](const ItemRef& item) {
    const double age = now.timeIntervalSinceDate(item->begun);
    // A clock that was set back tells nothing.
    item->isCalledOff = age < 0 || age > kMostSecondsOld;
    return item->isCalledOff;
  };
  const auto old = std::remove_if(iItems.begin(), iItems.end(), isOld);
  if (old == iItems.end()) return;
  iItems.erase(old, iItems.end());
  iUntilRetry = kListingsUntilRetry;
}

bool ListingsAhead::hasThreadFor(size_t count) {
  try {
    while (iThreads.size() < count) iThreads.emplace_back([this] { work(); });
  } catch (const std::system_error&) {
    // Those that are there list one folder after the other.
  }
  return !iThreads.empty();
}

ListingsAhead::ItemRef ListingsAhead::nextWanted() const {
  const auto found = std::find_if(iItems.begin(), iItems.end(),
                                  [](const ItemRef& item) { return item->state == State::kWanted; });
  return found == iItems.end() ? nullptr : *found;
}

bool ListingsAhead::begins(Item& item) {
  const ConditionLock lock(iCondition);
  if (item.isCalledOff) return false;
  item.state = State::kBeingListed;
  item.begun = NSDate::date();
  item.changes = iWalks.changes();
  return true;
}

void ListingsAhead::ended(Item& item, bool isListed, Entries entries) {
  item.entries = std::move(entries);
  item.seconds = NSDate::date().timeIntervalSinceDate(item.begun);
  item.state = isListed ? State::kListed : State::kFailed;
  iCondition.broadcast();
}

void ListingsAhead::work() {
  NSThread::setName("listing ahead");
  iCondition.lock();
  while (!iIsStopped) {
    const ItemRef item = nextWanted();
    if (item == nullptr) {
      iCondition.wait();
      continue;
    }
    item->state = State::kWaitingForSession;
    iCondition.unlock();
    Entries entries;
    const bool isListed = iList(
        item->folder, [this, &item] { return begins(*item); }, &entries);
    iCondition.lock();
    ended(*item, isListed, std::move(entries));
  }
  iCondition.unlock();
}

}  // namespace ombra
