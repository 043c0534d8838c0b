// What an open file counts for the length of a scope. All are used with the file's condition held.
#pragma once

#include "fshelper/OFSRemoteFile.h"

namespace ombra {

// A stream whose queue is empty ends at once while somebody waits for it to settle: nobody pays the idle time
// just to learn that no more will come.
class OFSRemoteFile::SettleWaiter {
 public:
  explicit SettleWaiter(OFSRemoteFile& file) NO_THREAD_SAFETY_ANALYSIS : iFile(file) {
    ++iFile.iSettleWaiters;
    if (iFile.iState == kOFSStreaming) iFile.iCondition.broadcast();
  }
  ~SettleWaiter() NO_THREAD_SAFETY_ANALYSIS { --iFile.iSettleWaiters; }
  SettleWaiter(const SettleWaiter&) = delete;
  SettleWaiter& operator=(const SettleWaiter&) = delete;

 private:
  OFSRemoteFile& iFile;
};

// Holds later writes up for a scope: a synchroniser whose every attempt they outdate would have no end.
class OFSRemoteFile::Synchronizer {
 public:
  explicit Synchronizer(OFSRemoteFile& file) NO_THREAD_SAFETY_ANALYSIS : iFile(file) {
    ++iFile.iSynchronizers;
  }
  ~Synchronizer() NO_THREAD_SAFETY_ANALYSIS {
    --iFile.iSynchronizers;
    iFile.iCondition.broadcast();
  }
  Synchronizer(const Synchronizer&) = delete;
  Synchronizer& operator=(const Synchronizer&) = delete;

 private:
  OFSRemoteFile& iFile;
};

class OFSRemoteFile::HeldTransfer {
 public:
  explicit HeldTransfer(OFSRemoteFile& file) : iFile(file) { ++iFile.iHeldTransfers; }
  ~HeldTransfer() { --iFile.iHeldTransfers; }
  HeldTransfer(const HeldTransfer&) = delete;
  HeldTransfer& operator=(const HeldTransfer&) = delete;

  // The answer of the call, which is passed on. A failure is no movement: on a dead server each call ends in
  // one.
  bool end(bool succeeded) {
    if (succeeded) ++iFile.iMovements;
    return succeeded;
  }

 private:
  OFSRemoteFile& iFile;
};

}  // namespace ombra
