// What the sessions to one server tell each other.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSDate.h"
#include "remote/s3/S3Path.h"

namespace ombra {

// In which region a bucket lies, how far the server's clock is off, and which folders were there a moment
// ago, so that not every new file costs a question after its folder. Thread-safe; a leaf lock.
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
  // It is there; `isMarked`: an object of its own keeps it there when it is empty.
  void noteFolder(const S3Path& path, bool isMarked) EXCLUDES(iLock);
  // It, and everything below it, has changed its place or is gone.
  void forgetFolders(const S3Path& path) EXCLUDES(iLock);

 private:
  struct Sight {
    NSDate there;
    std::optional<NSDate> marked;
  };

  mutable Mutex iLock;
  std::map<std::string, std::string, std::less<>> iRegions GUARDED_BY(iLock);
  double iClockOffset GUARDED_BY(iLock) = 0.0;                           // seconds to add to our time
  std::map<std::string, Sight, std::less<>> iFolders GUARDED_BY(iLock);  // by path
};

}  // namespace ombra
