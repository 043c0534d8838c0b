#include "remote/sftp/BoundedExtents.h"

#include <algorithm>

namespace ombra {

void BoundedExtents::add(FileExtent extent) {
  if (extent.begin >= extent.end) return;
  // Most programs write on where they wrote last.
  if (!iExtents.empty() && iExtents.back().begin <= extent.begin && extent.begin <= iExtents.back().end) {
    iExtents.back().end = std::max(iExtents.back().end, extent.end);
    return;
  }
  iExtents.push_back(extent);
  if (iExtents.size() < kMost) return;
  merge();
  // Else the next ones would be merged again and again.
  if (iExtents.size() > kMost / 2) iExtents = {{iExtents.front().begin, iExtents.back().end}};
}

std::vector<FileExtent> BoundedExtents::all() {
  merge();
  return iExtents;
}

void BoundedExtents::merge() {
  std::sort(iExtents.begin(), iExtents.end(),
            [](const FileExtent& one, const FileExtent& other) { return one.begin < other.begin; });
  std::vector<FileExtent> merged;
  for (const FileExtent& extent : iExtents) {
    if (merged.empty() || merged.back().end < extent.begin) {
      merged.push_back(extent);
    } else {
      merged.back().end = std::max(merged.back().end, extent.end);
    }
  }
  iExtents = std::move(merged);
}

}  // namespace ombra
