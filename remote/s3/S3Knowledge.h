// What the sessions to one server tell each other.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSDate.h"
#include "remote/s3/S3Path.h"

namespace ombra {

// In which region a bucket lies, how far the server's clock is off, and which folders and objects were there
// a moment ago, so that not every new file costs a question after its folder, nor every removal one after the
// object. Thread-safe; a leaf lock.
class S3Knowledge {
 public:
  // Of the bucket; of the list of buckets where that is empty.
  std::string regionOf(std::string_view bucket, std::string_view unlessKnown) const EXCLUDES(iLock);
  void setRegion(std::string_view bucket, std::string region) EXCLUDES(iLock);

  // Now, as the server tells the time.
  NSDate date() const EXCLUDES(iLock);
  void setDate(NSDate serverDate) EXCLUDES(iLock);

  enum class Folder { kUnknown, kThere, kMarked };
  // What was seen of it within the last minute.
  Folder folder(const S3Path& path) const EXCLUDES(iLock);
  // It is there, or a bucket is; `isMarked`: an object of its own keeps it there when it is empty.
  void noteFolder(const S3Path& path, bool isMarked) EXCLUDES(iLock);
  // Whether the bucket is known to have been there within the last minute.
  bool hasSeenBucket(std::string_view bucket) const EXCLUDES(iLock);
  // It, and everything below it, has changed its place or is gone.
  void forgetFolders(const S3Path& path) EXCLUDES(iLock);

  // The object was seen, or stored, and so was its bucket. Only the latest few thousand are remembered.
  void noteObject(const S3Path& path) EXCLUDES(iLock);
  // It is gone.
  void forgetObject(const S3Path& path) EXCLUDES(iLock);
  // Whether it is known to have been there within the last minute.
  bool hasSeenObject(const S3Path& path) const EXCLUDES(iLock);

  // A request that may change something begins, or has ended. Takes no lock.
  void noteChange() { ++iChanges; }
  // What was listed when it was the same number has not been changed by us since, nor was it meanwhile.
  uint64_t changes() const { return iChanges; }

 private:
  struct Sight {
    NSDate there;
    std::optional<NSDate> marked;
  };

  // Stands for the path by its hash; that of another one of 64 bits is not met.
  struct SeenObject {
    uint64_t hash = 0;
    NSDate when;
  };

  void locked_noteBucket(const std::string& bucket, NSDate now) REQUIRES(iLock);

  std::atomic<uint64_t> iChanges{0};
  mutable Mutex iLock;
  std::map<std::string, std::string, std::less<>> iRegions GUARDED_BY(iLock);
  double iClockOffset GUARDED_BY(iLock) = 0.0;                            // seconds to add to our time
  std::map<std::string, Sight, std::less<>> iFolders GUARDED_BY(iLock);   // by path
  std::map<std::string, NSDate, std::less<>> iBuckets GUARDED_BY(iLock);  // when they were seen
  // Each has one place, by its hash, which it takes from whoever was there; empty until there is one.
  std::vector<SeenObject> iObjects GUARDED_BY(iLock);
};

}  // namespace ombra
