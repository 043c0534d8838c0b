// Extents of a file, in bounded memory.
#pragma once

#include <vector>

#include "platform/foundation/UnconfirmedExtents.h"

namespace ombra {

// Covers everything that was added. More than that when it would become too long a list: a program that
// writes pages all over a large file must not cost memory without limit. One thread at a time.
class BoundedExtents {
 public:
  static constexpr size_t kMost = 4096;
  void add(FileExtent extent);
  // Sorted and disjoint.
  std::vector<FileExtent> all();

 private:
  void merge();

  std::vector<FileExtent> iExtents;  // in the order of adding since it was last merged
};

}  // namespace ombra
