// What stands in for a connection that could not be had.
#pragma once

#include "remote/AbstractConnection.h"

namespace ombra {

// A connection that can do nothing: every operation fails with kQuarnKitConnectionLost. One for the process,
// without state, so it may be used from all threads at once; it is never given to a pool.
AbstractConnection& missingConnection();

}  // namespace ombra
