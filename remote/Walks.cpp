#include "remote/Walks.h"

#include <algorithm>
#include <unordered_set>

#include "platform/foundation/NSDate.h"
#include "remote/RemotePaths.h"

namespace ombra {

namespace {

constexpr size_t kMostFolders = 16;
constexpr size_t kMostItems = 2048;  // of one kind in one folder
constexpr size_t kMostChanges = 256;
// Programs sort what they read by numbers that follow the order of the listing only roughly.
constexpr size_t kStride = 16;
// One or two folders in succession are opened by anybody who looks around.
constexpr int kSureAfter = 3;
constexpr int kMostTrend = 8;
// Dates are whole seconds: a change right after another one does not show in them. Somewhat more, for clocks
// that differ.
constexpr int64_t kUnsettledSeconds = 5;

size_t at(Walks::Kind kind) { return static_cast<size_t>(kind); }

}  // namespace

void Walks::Listing::add(std::string_view name, Kind kind, int64_t modified, std::optional<uint64_t> size) {
  std::vector<Known>& items = iItems[at(kind)];
  if (items.size() >= kMostItems || !isShownName(name)) return;
  items.push_back({std::string(name), modified, size});
}

bool Walks::listed(std::string_view folder, Listing listing) {
  Folder known;
  known.path = folder;
  known.items = std::move(listing.iItems);
  const MutexLock lock(iLock);
  const Folder* former = folderAt(folder);
  if (former != nullptr) {
    carryOver(*former, known);
    iFolders.pop_front();
  }
  iFolders.push_front(std::move(known));
  if (iFolders.size() > kMostFolders) iFolders.pop_back();
  return former == nullptr;
}

// What a walk has come by, and where it is. By name: items may have come and gone.
void Walks::carryOver(const Folder& known, Folder& listed) {
  for (size_t kind = 0; kind < known.items.size(); ++kind) {
    std::unordered_set<std::string_view> asked;
    for (const Known& item : known.items[kind]) {
      if (item.isAsked) asked.insert(item.name);
    }
    if (asked.empty()) continue;
    const std::optional<size_t> place = known.last[kind];
    const std::string_view last = place ? std::string_view(known.items[kind][*place].name) : "";
    for (size_t i = 0; i < listed.items[kind].size(); ++i) {
      Known& item = listed.items[kind][i];
      item.isAsked = asked.contains(item.name);
      if (item.isAsked && item.name == last) listed.last[kind] = i;
    }
  }
}

// Found anew for each item of a walk, so that the folders which are being walked stay.
Walks::Folder* Walks::folderAt(std::string_view path) {
  const auto found =
      std::find_if(iFolders.begin(), iFolders.end(), [path](const Folder& f) { return f.path == path; });
  if (found == iFolders.end()) return nullptr;
  iFolders.splice(iFolders.begin(), iFolders, found);
  return &iFolders.front();
}

std::optional<size_t> Walks::indexOf(const Folder& folder, Kind kind, std::string_view name) {
  const std::vector<Known>& items = folder.items[at(kind)];
  const auto isIt = [name](const Known& item) { return item.name == name; };
  // Mostly one near the last.
  const size_t last = std::min(folder.last[at(kind)].value_or(0), items.size());
  const auto begin = items.begin() + static_cast<ptrdiff_t>(last > kStride ? last - kStride : 0);
  const auto end = items.begin() + static_cast<ptrdiff_t>(std::min(last + kStride + 1, items.size()));
  auto found = std::find_if(begin, end, isIt);
  if (found == end) found = std::find_if(items.begin(), items.end(), isIt);
  if (found == items.end()) return std::nullopt;
  return static_cast<size_t>(found - items.begin());
}

std::optional<uint64_t> Walks::reached(std::string_view path, Kind kind) {
  const MutexLock lock(iLock);
  int& run = iRun[at(kind)];
  Folder* folder = folderAt(parentOfRemotePath(path));
  const auto index = folder == nullptr ? std::nullopt : indexOf(*folder, kind, nameOfRemotePath(path));
  if (!index) {
    run = 0;
    return std::nullopt;
  }
  std::optional<size_t>& last = folder->last[at(kind)];
  std::vector<Known>& items = folder->items[at(kind)];
  const bool isFirst = !last.has_value();
  const bool isNear = !isFirst && *index != *last && *index + kStride >= *last && *index <= *last + kStride;
  // The first one of a folder says nothing, for or against.
  if (isNear) {
    ++run;
    int& trend = iTrend[at(kind)];
    trend = std::clamp(trend + (*index > *last ? 1 : -1), -kMostTrend, kMostTrend);
  } else if (!isFirst || run < kSureAfter) {
    run = 1;
  }
  if (items[*index].isAsked) {
    // Once more from the beginning.
    for (Known& item : items) item.isAsked = false;
  }
  items[*index].isAsked = true;
  last = index;
  return items[*index].size;
}

std::vector<Walks::Item> Walks::next(std::string_view path, Kind kind, size_t count, Reach reach) {
  const MutexLock lock(iLock);
  if (iRun[at(kind)] < kSureAfter) return {};
  const Folder* folder = folderAt(parentOfRemotePath(path));
  if (folder == nullptr || !folder->last[at(kind)]) return {};
  return guess(*folder, kind, folder->last[at(kind)], count, reach);
}

std::vector<Walks::Item> Walks::firstIn(std::string_view path, Kind kind, size_t count) {
  const MutexLock lock(iLock);
  if (iRun[at(kind)] < kSureAfter) return {};
  const Folder* folder = folderAt(path);
  if (folder == nullptr) return {};
  return guess(*folder, kind, std::nullopt, count, Reach::kAround);
}

std::vector<Walks::Item> Walks::guess(const Folder& folder, Kind kind, std::optional<size_t> last,
                                      size_t count, Reach reach) const {
  const std::vector<Known>& items = folder.items[at(kind)];
  const int64_t settled = kc_timespec(NSDate::date()).tv_sec - kUnsettledSeconds;
  const ptrdiff_t step = iTrend[at(kind)] < 0 ? -1 : 1;
  const auto end = static_cast<ptrdiff_t>(items.size());
  // The order is followed only roughly: what was passed over so far may still come.
  const ptrdiff_t back = reach == Reach::kAround ? ptrdiff_t{kStride} : 0;
  ptrdiff_t index = step > 0 ? 0 : end - 1;
  if (last) index = std::clamp<ptrdiff_t>(static_cast<ptrdiff_t>(*last) - step * back, 0, end - 1);
  std::vector<Item> guessed;
  for (; index >= 0 && index < end && guessed.size() < count; index += step) {
    const Known& item = items[static_cast<size_t>(index)];
    if (item.isAsked || item.modified > settled) continue;
    guessed.push_back({remotePathInFolder(folder.path, item.name), item.modified, item.size});
  }
  return guessed;
}

void Walks::changed(std::string_view path) {
  const MutexLock lock(iLock);
  // A file is written in many pieces; they are one change to whoever did not look in between.
  if (!iIsCounted && !iChanged.empty() && iChanged.back() == path) return;
  iIsCounted = false;
  iChanged.emplace_back(path);
  ++iChanges;
  if (iChanged.size() > kMostChanges) iChanged.pop_front();
}

uint64_t Walks::changes() const {
  const MutexLock lock(iLock);
  iIsCounted = true;
  return iChanges;
}

bool Walks::isAffected(std::string_view path, uint64_t since) const {
  const MutexLock lock(iLock);
  const uint64_t forgotten = iChanges - iChanged.size();
  if (since < forgotten) return true;
  const auto first = iChanged.begin() + static_cast<ptrdiff_t>(since - forgotten);
  return std::any_of(first, iChanged.end(), [path](const std::string& changedPath) {
    // What lies above it may be another folder by now; what lies in it belongs to its listing.
    return isAtOrBelowRemotePath(path, changedPath) || parentOfRemotePath(changedPath) == path;
  });
}

}  // namespace ombra
