// What a whole file has to be sent for, while it is on its way.
#pragma once

#include <vector>

#include "platform/foundation/NSFileHandle.h"

namespace ombra {

// What is sent counts as confirmed before it is read, so that what is written meanwhile counts as new; it is
// given back unless it was stored. The file outlives the object.
class ConfirmedUpload {
 public:
  // The first `length` bytes are to be sent.
  ConfirmedUpload(NSFileHandle& file, uint64_t length)
      : iFile(file), iUnconfirmed(file.unconfirmedExtents(0)) {
    file.noteConfirmed({0, length});
  }
  ~ConfirmedUpload() {
    if (iIsStored) return;
    for (const FileExtent& extent : iUnconfirmed) iFile.noteWritten(extent);
  }
  ConfirmedUpload(const ConfirmedUpload&) = delete;
  ConfirmedUpload& operator=(const ConfirmedUpload&) = delete;

  // Whether the server has it, and so nothing is given back; the same again.
  bool stored(bool isStored) {
    iIsStored = isStored;
    return isStored;
  }

 private:
  NSFileHandle& iFile;
  const std::vector<FileExtent> iUnconfirmed;
  bool iIsStored = false;
};

}  // namespace ombra
