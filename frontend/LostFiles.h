// What is lost with a helper that was ended before it could say.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "frontend/Output.h"
#include "frontend/TransferStatus.h"
#include "frontend/Volumes.h"

namespace ombra {

// The folder where helpers keep copies of what they could not store of a volume mounted there.
std::string recoveredFolder(const std::string& mountPath);

// Whether a file below `folder` was written since `start`.
bool holdsFilesSince(const std::string& folder, time_t start);

// Names the files that were not on the server when the helper told last, and says where it may have kept
// copies since `start`. True when there was anything to tell.
bool tellLost(const Volume& volume, const TransferStatus& last, time_t start, const Output& output);

}  // namespace ombra
