// The place where a whole new content is written.
#pragma once

#include <sys/types.h>

#include <string>

#include "platform/foundation/NSError.h"

namespace ombra {

// Opens a temporary file beside the destination and renames it over it in the end, so that nobody ever sees
// half a file; or the destination itself, emptied, where a temporary name would do harm. Undone by the
// destructor unless `commit` succeeded.
class WholeFile {
 public:
  WholeFile() = default;
  ~WholeFile();
  WholeFile(const WholeFile&) = delete;
  WholeFile& operator=(const WholeFile&) = delete;

  // Links on the way to the destination are followed.
  [[nodiscard]] bool open(const std::string& path, NSErrorRef* error);
  int descriptor() const { return iDescriptor; }
  // Whether the destination itself is open, and empty.
  bool isInPlace() const { return iTemporaryPath.empty(); }
  [[nodiscard]] bool commit(NSErrorRef* error);

 private:
  bool openTemporary(mode_t mode, uid_t owner, gid_t group, bool replaces);

  int iDescriptor = -1;
  std::string iPath;
  std::string iTemporaryPath;  // empty when written in place
};

}  // namespace ombra
