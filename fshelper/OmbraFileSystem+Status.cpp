// How far the transfers are, for whoever asks. Nothing in here waits for one: only records, paths and cache
// files are looked at, each under a leaf lock of its own.
#include <algorithm>
#include <numeric>

#include "fshelper/OmbraFileSystem.h"

namespace ombra {

namespace {

uint64_t unconfirmedBytes(const std::shared_ptr<NSFileHandle>& handle) {
  if (handle == nullptr) return 0;
  const std::vector<FileExtent> extents = handle->unconfirmedExtents(0);
  return std::accumulate(
      extents.begin(), extents.end(), uint64_t{0},
      [](uint64_t sum, const FileExtent& extent) { return sum + (extent.end - extent.begin); });
}

std::optional<uint64_t> sizeOfTransfer(const OFSTransferRecord::Snapshot& record,
                                       const OFSNodeFileTable::Entry& entry) {
  if (record.direction == OFSTransferRecord::Direction::kDownload) {
    const std::shared_ptr<KCRemoteFileNode> node = entry.node.lock();
    const std::optional<uint64_t> size = node == nullptr ? std::nullopt : node->size();
    // Listed before it grew on the server: then nobody knows.
    return size && *size >= record.done ? size : std::nullopt;
  }
  if (record.size) return record.size;
  // What a program will go on to write is not known, however much it has written.
  if (!record.lastBytes) return std::nullopt;
  const std::shared_ptr<NSFileHandle> handle = entry.file->fileHandle();
  if (record.inPieces) return record.done + unconfirmedBytes(handle);
  return std::max(record.done, handle == nullptr ? 0 : handle->fileLength());
}

bool isWaiting(const OFSTransferRecord::Snapshot& record, OFSRemoteFile& file) {
  using Ledger = OFSTransferRecord::Ledger;
  if (record.running || record.ledger == Ledger::kAbandoned) return false;
  if (record.ledger == Ledger::kUnsent) return true;
  // Sent in place, and not acknowledged yet.
  const std::shared_ptr<NSFileHandle> handle = file.fileHandle();
  return handle != nullptr && !handle->extents()->isSettled();
}

}  // namespace

OFSTransferReport OmbraFileSystem::transferReport() const {
  OFSTransferReport report;
  for (const OFSNodeFileTable::Entry& entry : iFiles.entries()) {
    OFSRemoteFile& file = *entry.file;
    report.cacheUsed += file.cacheSize();
    const OFSTransferRecord::Snapshot record = file.transfer().snapshot();
    if (record.running) {
      report.transfers.push_back({pathForRemotePath(file.remotePath()), record.direction, record.done,
                                  sizeOfTransfer(record, entry), record.perSecond});
    } else if (isWaiting(record, file)) {
      report.waiting.push_back(
          {pathForRemotePath(file.remotePath()), unconfirmedBytes(file.fileHandle()), record.failure});
    }
  }
  const auto byPath = [](const auto& a, const auto& b) { return a.path < b.path; };
  std::stable_sort(report.transfers.begin(), report.transfers.end(), byPath);
  std::stable_sort(report.waiting.begin(), report.waiting.end(), byPath);
  report.received = iTotals->received();
  report.sent = iTotals->sent();
  report.cacheBudget = cacheBudget().bytes;
  report.lastFailure = iTotals->lastFailure();
  if (report.lastFailure) report.lastFailure->path = pathForRemotePath(report.lastFailure->path);
  return report;
}

}  // namespace ombra
