#include "remote/s3/S3Knowledge.h"

#include <functional>
#include <utility>

#include "remote/RemotePaths.h"

namespace ombra {
namespace {

// As long as a listing is taken for true.
constexpr double kSightSeconds = 60.0;
constexpr size_t kMostFolders = 20000;
constexpr size_t kMostRegions = 10000;
constexpr size_t kObjectPlaces = 8192;

bool isFresh(NSDate date, NSDate now) {
  const double age = now.timeIntervalSinceDate(date);
  return age >= 0.0 && age < kSightSeconds;
}

uint64_t hashOf(const S3Path& path) {
  const std::hash<std::string> hash;
  return hash(path.key) * 31 + hash(path.bucket);
}

}  // namespace

std::string S3Knowledge::regionOf(std::string_view bucket, std::string_view unlessKnown) const {
  MutexLock lock(iLock);
  const auto found = iRegions.find(bucket);
  return found != iRegions.end() ? found->second : std::string(unlessKnown);
}

void S3Knowledge::setRegion(std::string_view bucket, std::string region) {
  MutexLock lock(iLock);
  if (iRegions.size() >= kMostRegions) iRegions.clear();
  iRegions.insert_or_assign(std::string(bucket), std::move(region));
}

NSDate S3Knowledge::date() const {
  MutexLock lock(iLock);
  return NSDate::dateWithTimeIntervalSinceNow(iClockOffset);
}

void S3Knowledge::setDate(NSDate serverDate) {
  MutexLock lock(iLock);
  iClockOffset = serverDate.timeIntervalSinceDate(NSDate::date());
}

S3Knowledge::Folder S3Knowledge::folder(const S3Path& path) const {
  // A bucket does not come and go with what is in it.
  if (!path.isItem()) return Folder::kMarked;
  const NSDate now = NSDate::date();
  MutexLock lock(iLock);
  const auto found = iFolders.find(path.text());
  if (found == iFolders.end()) return Folder::kUnknown;
  if (found->second.marked && isFresh(*found->second.marked, now)) return Folder::kMarked;
  return isFresh(found->second.there, now) ? Folder::kThere : Folder::kUnknown;
}

void S3Knowledge::noteFolder(const S3Path& path, bool isMarked) {
  const NSDate now = NSDate::date();
  MutexLock lock(iLock);
  locked_noteBucket(path.bucket, now);
  if (!path.isItem()) return;
  if (iFolders.size() >= kMostFolders) iFolders.clear();
  Sight& sight = iFolders[path.text()];
  sight.there = now;
  if (isMarked) sight.marked = now;
}

void S3Knowledge::locked_noteBucket(const std::string& bucket, NSDate now) {
  if (iBuckets.size() >= kMostRegions) iBuckets.clear();
  iBuckets[bucket] = now;
}

bool S3Knowledge::hasSeenBucket(std::string_view bucket) const {
  const NSDate now = NSDate::date();
  MutexLock lock(iLock);
  const auto found = iBuckets.find(bucket);
  return found != iBuckets.end() && isFresh(found->second, now);
}

void S3Knowledge::noteObject(const S3Path& path) {
  const uint64_t hash = hashOf(path);
  const NSDate now = NSDate::date();
  MutexLock lock(iLock);
  locked_noteBucket(path.bucket, now);
  if (iObjects.empty()) iObjects.resize(kObjectPlaces);
  iObjects[hash % kObjectPlaces] = {hash, now};
}

void S3Knowledge::forgetObject(const S3Path& path) {
  const uint64_t hash = hashOf(path);
  MutexLock lock(iLock);
  if (iObjects.empty()) return;
  SeenObject& place = iObjects[hash % kObjectPlaces];
  if (place.hash == hash) place = {};
}

bool S3Knowledge::hasSeenObject(const S3Path& path) const {
  const uint64_t hash = hashOf(path);
  const NSDate now = NSDate::date();
  MutexLock lock(iLock);
  if (iObjects.empty()) return false;
  const SeenObject& place = iObjects[hash % kObjectPlaces];
  return place.hash == hash && isFresh(place.when, now);
}

void S3Knowledge::forgetFolders(const S3Path& path) {
  const std::string text = path.text();
  MutexLock lock(iLock);
  for (auto folder = iFolders.lower_bound(text);
       folder != iFolders.end() && folder->first.starts_with(text);) {
    folder = isAtOrBelowRemotePath(folder->first, text) ? iFolders.erase(folder) : std::next(folder);
  }
}

}  // namespace ombra
