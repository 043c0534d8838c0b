// Copying ranges between open files, holes as holes.
#pragma once

#include <cstdint>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSFileHandle.h"
#include "remote/Session.h"

namespace ombra {

// How a copy reads, writes and is told to stop.
struct FileCopy {
  int from = -1;
  int to = -1;
  bool toIsServer = true;  // whose fault a failed write is
  uint64_t toLength = 0;   // of the destination before the copy: beyond it, holes need no work
  const char* path = "";   // of the server's file, for messages
  TransferControl* control = nullptr;
  const std::atomic<bool>* interrupted = nullptr;

  // Copies [begin, end), in order, and reports each piece as the offset reached. Ends early where the source
  // ends; `reached` is where. Holes of the source stay holes as far as the destination allows.
  [[nodiscard]] bool copyRange(FileExtent range, uint64_t* reached, NSErrorRef* error) const;

 private:
  [[nodiscard]] bool copyDataAndHoles(FileExtent range, uint64_t* reached, NSErrorRef* error) const;
  [[nodiscard]] bool copyData(uint64_t begin, uint64_t end, uint64_t* reached, NSErrorRef* error) const;
  [[nodiscard]] bool writeZeros(uint64_t begin, uint64_t end, NSErrorRef* error) const;
  [[nodiscard]] bool mayGoOn(NSErrorRef* error) const;
  NSErrorRef sourceError(int errorNumber) const;
  NSErrorRef destinationError(int errorNumber) const;
};

}  // namespace ombra
