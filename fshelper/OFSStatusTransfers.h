// The transfers of a volume as members of the status object.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "fshelper/OFSTransferReport.h"

namespace ombra {

// Adds to `status`:
//   transfers      [{path, direction ("download", "upload"), done, size, rate, secondsLeft}]; the last three
//                  are null while unknown
//   waiting        [{path, bytes, error (a text or null)}]
//   transferCount, waitingCount, waitingBytes    of all, also of those that the lists have no room for
//   bytesReceived, bytesSent                     since the mount
//   cache          {used, budget}
//   lastError      null, or {path, text, date ("2001-09-09T01:46:40Z")}
// Each list takes 24 KiB at most; what does not fit is left out at its end.
void addTransferReport(const OFSTransferReport& report, nlohmann::json* status);

}  // namespace ombra
