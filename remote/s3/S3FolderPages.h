// The pages in which a bucket lists its keys, and the folder that they make up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/foundation/NSDate.h"
#include "remote/Session.h"
#include "remote/s3/S3Answers.h"
#include "remote/s3/S3Knowledge.h"
#include "remote/s3/S3Path.h"

namespace ombra {

// Bytes: a page has up to 1,000 names of 1,024 bytes, of which each may take three. Lists of buckets are
// shorter.
constexpr size_t kS3LongestPage = size_t{32} << 20;

// What an object has, and what a folder has, which is a name alone.
NSFileAttributes s3ObjectAttributes(uint64_t size, std::optional<NSDate> date);
NSFileAttributes s3FolderAttributes();

// The query of a ListObjectsV2 request for the keys that begin with `prefix`: all of them when it is flat,
// else those below the next slash as one. At most `most` keys, 0 for the server's own limit; `token` is empty
// or what the page before has named.
std::vector<std::pair<std::string, std::string>> s3PageQuery(const std::string& prefix, bool isFlat, int most,
                                                             const std::string& token);
// The page that the body holds; absent when it is none, or one of other keys than those asked for.
std::optional<S3Listing> s3Page(const std::string& body, const std::string& prefix);

// The entries of a folder, gathered page by page. What is seen is noted for all sessions.
class S3FolderPages {
 public:
  S3FolderPages(const S3Path& folder, S3Knowledge& knowledge, std::vector<RemoteEntry>& entries)
      : iFolder(folder), iPrefix(folder.prefix()), iKnowledge(knowledge), iEntries(entries) {}

  void add(const S3Listing& page);
  // Whether the server has listed anything at all.
  bool isThere() const { return iIsThere; }
  // After the last page. A folder hides an object of the same name.
  void finish();

 private:
  void addFolder(const std::string& prefix);
  void addObject(const S3ListedObject& object);

  const S3Path& iFolder;
  const std::string iPrefix;
  S3Knowledge& iKnowledge;
  std::vector<RemoteEntry>& iEntries;
  std::unordered_set<std::string> iNames;  // of the folders
  bool iIsThere = false;
  bool iIsMarked = false;  // by an object of its own
};

}  // namespace ombra
