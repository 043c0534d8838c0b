// A server without a wire, so that what is measured is the file system above it.
#pragma once

#include <cstddef>
#include <memory>

#include "remote/KCConnectionPool.h"

namespace ombra {

// A pool of sessions that log in at once and list "/" as `folders` folders of `files` files each; everything
// else is refused.
std::shared_ptr<KCConnectionPool> memoryPool(size_t folders, size_t files);

}  // namespace ombra
