// Where a local file holds data.
#pragma once

#include <vector>

#include "platform/foundation/NSFileHandle.h"

namespace ombra {

// The extents of [from, to) that hold data, in order; holes are left out where the local file system tells
// them.
std::vector<FileExtent> dataExtents(const NSFileHandle& file, uint64_t from, uint64_t to);

}  // namespace ombra
