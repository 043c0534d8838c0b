#include "remote/KnownListings.h"

#include <algorithm>
#include <atomic>

#include "remote/RemotePaths.h"

namespace ombra {
namespace {

constexpr size_t kMostFolders = 64;
constexpr size_t kMostItems = 64;
// So that listing a folder that takes up to two seconds, again and again, costs a thirtieth of the time.
constexpr double kTimesItsOwn = 30;
constexpr double kShortest = 1;
constexpr double kLongest = 60;

double secondsToServe(double secondsToList) {
  return std::clamp(kTimesItsOwn * secondsToList, kShortest, kLongest);
}

}  // namespace

uint64_t KnownListings::nextNumber() {
  // Of the process, since a caller may go on with another pool.
  static std::atomic<uint64_t> last{0};
  return ++last;
}

KnownListings::Folder* KnownListings::use(std::string_view path) {
  const auto found = std::find_if(iFolders.begin(), iFolders.end(),
                                  [path](const Folder& folder) { return folder.path == path; });
  if (found == iFolders.end()) return nullptr;
  iFolders.splice(iFolders.begin(), iFolders, found);
  return &*found;
}

KnownListings::Folder& KnownListings::add(std::string_view path) {
  if (iFolders.size() >= kMostFolders) iFolders.pop_back();
  Folder folder;
  folder.path = path;
  folder.first = nextNumber();
  iFolders.push_front(std::move(folder));
  return iFolders.front();
}

uint64_t KnownListings::begin(std::string_view folder) {
  MutexLock lock(iLock);
  if (use(folder) == nullptr) return add(folder).first;
  return nextNumber();
}

void KnownListings::fetched(std::string_view folder, uint64_t number, double seconds) {
  MutexLock lock(iLock);
  Folder* known = use(folder);
  // It was forgotten meanwhile.
  if (known == nullptr || number < known->first) return;
  known->first = number;
  known->since = NSDate::date();
  known->seconds = secondsToServe(seconds);
  while (!known->items.empty() && known->items.front().number < number) known->items.pop_front();
}

bool KnownListings::serves(const Folder& folder) {
  if (!folder.since) return false;
  const double age = NSDate::date().timeIntervalSinceDate(*folder.since);
  // A clock that was set back tells nothing.
  return age >= 0 && age < folder.seconds;
}

std::optional<KnownListings::News> KnownListings::since(std::string_view folder, uint64_t known) {
  MutexLock lock(iLock);
  const Folder* present = use(folder);
  if (present == nullptr || known < present->first || !serves(*present)) return std::nullopt;
  News news{{}, nextNumber(), present->keepsCase};
  for (const NewItem& item : present->items) {
    if (item.number > known) news.items.push_back(item);
  }
  if (news.items.empty()) return std::nullopt;
  return news;
}

KnownListings::Folder* KnownListings::dropItem(std::string_view path) {
  Folder* folder = use(parentOfRemotePath(path));
  if (folder == nullptr) return nullptr;
  std::erase_if(folder->items,
                [name = nameOfRemotePath(path)](const NewItem& item) { return item.name == name; });
  return folder;
}

void KnownListings::dropFoldersFrom(std::string_view path) {
  std::erase_if(iFolders, [path](const Folder& folder) { return isAtOrBelowRemotePath(folder.path, path); });
}

KnownListings::Folder* KnownListings::addItem(std::string_view path, NewItem item) {
  Folder* folder = dropItem(path);
  if (folder == nullptr) return nullptr;
  item.name = nameOfRemotePath(path);
  item.number = nextNumber();
  if (folder->items.size() >= kMostItems) {
    folder->first = folder->items.front().number;
    folder->items.pop_front();
  }
  folder->items.push_back(std::move(item));
  return folder;
}

void KnownListings::madeFile(std::string_view path, std::optional<NSFileAttributes> attributes) {
  MutexLock lock(iLock);
  NewItem item;
  item.attributes = std::move(attributes);
  addItem(path, std::move(item));
}

void KnownListings::madeFolder(std::string_view path, double seconds) {
  MutexLock lock(iLock);
  NewItem item;
  item.isFolder = true;
  const Folder* parent = addItem(path, std::move(item));
  const std::optional<bool> keepsCase = parent == nullptr ? std::nullopt : parent->keepsCase;
  // It is known to be empty, as from a listing.
  dropFoldersFrom(path);
  Folder& folder = add(path);
  folder.isMadeHere = true;
  folder.keepsCase = keepsCase;
  folder.since = NSDate::date();
  folder.seconds = secondsToServe(seconds);
}

void KnownListings::forget(std::string_view path) {
  MutexLock lock(iLock);
  dropFoldersFrom(path);
  dropItem(path);
}

void KnownListings::forgetFolder(std::string_view path) {
  MutexLock lock(iLock);
  Folder* folder = use(path);
  if (folder == nullptr) return;
  folder->first = nextNumber();
  folder->since.reset();
  folder->items.clear();
}

void KnownListings::learn(std::string_view folder, bool keepsCase) {
  MutexLock lock(iLock);
  if (Folder* known = use(folder)) known->keepsCase = keepsCase;
  for (Folder& other : iFolders) {
    // What was there before may be another file system.
    const bool isLikeIt = other.isMadeHere && parentOfRemotePath(other.path) == folder;
    if (isLikeIt && !other.keepsCase) other.keepsCase = keepsCase;
  }
}

}  // namespace ombra
