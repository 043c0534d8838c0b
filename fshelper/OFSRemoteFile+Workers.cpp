// Worker threads: their start, their order, and what becomes of one that was given up.

#include <cassert>
#include <cerrno>

#include "fshelper/OFSRemoteFile.h"
#include "fshelper/OFSRemoteFileLocalCalls.h"
#include "fshelper/OFSRemoteFileSupport.h"
#include "fshelper/OFSTracing.h"

namespace ombra {
namespace {
constexpr const char* kStart = "-[OFSRemoteFile locked_performSelectorOnWorkerThread:]";
}  // namespace

OFSRemoteFile::Epoch OFSRemoteFile::locked_performSelectorOnWorkerThread(WorkerBody body) {
  locked_giveUpWorkers();
  const Epoch epoch = iEpoch;
  iWorkers.push_back({epoch, nullptr});
  bool started = false;
  {
    const ConditionRelease released(iCondition);
    started = OFSRemoteFileLocalCalls::current().detachNewThread(
        [file = shared_from_this(), body, epoch] { body(file, epoch); });
  }
  if (started) return epoch;

  // Nobody may go on waiting for a worker that does not exist.
  locked_endWorker(epoch);
  if (iEpoch == epoch) {
    locked_setState(kOFSSettled);
    iBytesRequired = 0;
    iStreamWork.reset();
    iLastError = NSError::errorWithDomain(NSPOSIXErrorDomain, EAGAIN);
  }
  iCondition.broadcast();
  OFS_RAISE(kStart, "no thread for the transfer of {}: too many run at the moment, try again later",
            remotePath());
}

void OFSRemoteFile::locked_giveUpWorkers() {
  // Only its own end leads out of a download: everybody else waits for that.
  assert(!locked_downloadRuns());
  ++iEpoch;
  locked_stopRunningConnection();
  iCondition.broadcast();
}

bool OFSRemoteFile::locked_beginWorker(Epoch epoch) {
  while (iEpoch == epoch && iWorkers.front().epoch != epoch) locked_wait();
  if (iEpoch == epoch) return true;
  locked_endWorker(epoch);
  return false;
}

void OFSRemoteFile::locked_endWorker(Epoch epoch) {
  locked_forgetWorker(epoch);
  iCondition.broadcast();
}

void OFSRemoteFile::locked_forgetWorker(Epoch epoch) {
  std::erase_if(iWorkers, [epoch](const Worker& worker) { return worker.epoch == epoch; });
}

bool OFSRemoteFile::lendConnection(Epoch epoch, AbstractConnection& connection) {
  const ConditionLock lock(iCondition);
  for (Worker& worker : iWorkers) {
    if (worker.epoch == epoch) worker.connection = &connection;
  }
  return iEpoch == epoch;
}

void OFSRemoteFile::takeConnectionBack(Epoch epoch) {
  const ConditionLock lock(iCondition);
  for (Worker& worker : iWorkers) {
    if (worker.epoch == epoch) worker.connection = nullptr;
  }
}

bool OFSRemoteFile::locked_isGivenUp(const AbstractConnection& connection) const {
  // Transfers run one at a time, so only the first worker can have a connection.
  return !iWorkers.empty() && iWorkers.front().connection == &connection && iWorkers.front().epoch != iEpoch;
}

void OFSRemoteFile::locked_stopRunningConnection() {
  if (iWorkers.empty() || iWorkers.front().connection == nullptr) return;
  // Not a remote call: it only leaves a note for the transfer. Where that has not begun yet and forgets the
  // note, the callbacks see to it.
  iWorkers.front().connection->setShouldCancel(true);
}

bool OFSRemoteFile::locked_downloadRuns() const {
  return iState == kOFSDownloading || (iState == kOFSNew && !iWorkers.empty());
}

}  // namespace ombra
