// What a helper tells of its transfers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ombra {

// Paths are within the volume ("/docs/a.txt"). The lists may be shorter than the counts: a helper names only
// so many files.
struct TransferStatus {
  struct Transfer {
    std::string path;
    bool isUpload = false;
    uint64_t done = 0;
    std::optional<uint64_t> size;  // absent while nobody knows it
    std::optional<uint64_t> rate;  // bytes per second
    std::optional<uint64_t> secondsLeft;
  };
  struct Waiting {
    std::string path;
    uint64_t bytes = 0;
    std::string error;  // empty when nothing has failed
  };
  struct Error {
    std::string path;
    std::string text;
    std::string date;  // "2001-09-09T01:46:40Z"
  };

  std::vector<Transfer> transfers;
  std::vector<Waiting> waiting;
  uint64_t transferCount = 0;
  uint64_t waitingCount = 0;
  uint64_t waitingBytes = 0;
  uint64_t bytesReceived = 0;
  uint64_t bytesSent = 0;
  uint64_t cacheUsed = 0;
  uint64_t cacheBudget = 0;
  std::optional<Error> lastError;

  // The files that the server has not got as they are here: those that are sent, and those that wait.
  std::vector<std::string> unsentPaths() const;
  // How many these are, named or not.
  uint64_t unsentCount() const;
};

// Reads it out of a helper's status object. Members of the wrong type count as absent. Absent when the object
// holds nothing of transfers, or is none.
std::optional<TransferStatus> parseTransferStatus(std::string_view statusJSON);

}  // namespace ombra
