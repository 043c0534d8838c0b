// What is lost with a helper that was ended before it could say.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "frontend/Output.h"
#include "frontend/TransferStatus.h"
#include "frontend/Volumes.h"

namespace ombra {

// The folder where helpers keep copies of what they could not store of a volume mounted there.
std::string recoveredFolder(const std::string& mountPath);

// What the files below `folder` that were written since `start` take on the disk; absent when there is none.
std::optional<uint64_t> bytesRecoveredSince(const std::string& folder, time_t start);

// Names the files that were not on the server when the helper told last, and says where it may have kept
// copies since `start`. True when there was anything to tell.
bool tellLost(const Volume& volume, const TransferStatus& last, time_t start, const Output& output);

}  // namespace ombra
