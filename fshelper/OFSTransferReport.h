// What a volume tells of its transfers at one moment.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fshelper/OFSTransferRecord.h"

namespace ombra {

// Paths are those of the volume ("/docs/a.txt"). Both lists are sorted by them.
struct OFSTransferReport {
  struct Transfer {
    std::string path;
    OFSTransferRecord::Direction direction = OFSTransferRecord::Direction::kDownload;
    uint64_t done = 0;
    // Of what is to be moved; absent while a program still writes, and where the server has not told.
    std::optional<uint64_t> size;
    std::optional<uint64_t> perSecond;
  };
  // Written here, not confirmed by the server, and not being sent at the moment.
  struct Waiting {
    std::string path;
    uint64_t bytes = 0;
    std::string failure;  // why it could not be sent; empty when nothing has failed
  };
  std::vector<Transfer> transfers;
  std::vector<Waiting> waiting;
  uint64_t received = 0;  // bytes since the mount
  uint64_t sent = 0;
  uint64_t cacheUsed = 0;  // bytes on the local disk
  uint64_t cacheBudget = 0;
  std::optional<OFSTransferFailure> lastFailure;  // its path is one of the volume, too
};

}  // namespace ombra
