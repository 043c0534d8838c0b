// A remote file that is open for writing.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSFileHandle.h"
#include "remote/sftp/BoundedExtents.h"
#include "remote/sftp/SFTPChannel.h"
#include "remote/sftp/SFTPRequests.h"
#include "remote/sftp/SFTPWriteQueue.h"

namespace ombra {

// Sends parts of a local file to an open remote handle, and keeps the record of what of it the server has.
// One that sends a scratch file may live from one upload to the next, with writes that are not acknowledged
// yet; its end gives back to the record what was not stored, which is all that was sent through the handle
// when the server has not confirmed its close. One thread at a time.
class SFTPUpload final : private SFTPWriteQueue::Observer {
 public:
  // `extents` is the file's own record; for an ordinary file it tells others no more than that the file is
  // being sent. `remoteLength` is that of the file behind the handle.
  SFTPUpload(SFTPChannel& channel, SFTPRequests& requests, std::string path, std::string handle,
             std::shared_ptr<UnconfirmedExtents> extents, uint64_t remoteLength);
  ~SFTPUpload() override;
  SFTPUpload(const SFTPUpload&) = delete;
  SFTPUpload& operator=(const SFTPUpload&) = delete;

  const std::string& path() const { return iPath; }
  const std::string& handle() const { return iHandle; }
  const std::shared_ptr<UnconfirmedExtents>& extents() const { return iExtents; }
  // As far as it is known here.
  uint64_t remoteLength() const { return iRemoteLength; }
  // The mode that the server told when it opened the file, until the file is written or its mode set.
  const std::optional<uint32_t>& mode() const { return iMode; }
  void setMode(std::optional<uint32_t> mode) { iMode = mode; }

  // Sends [offset, end) of an ordinary file and waits until it is stored.
  [[nodiscard]] bool sendAll(const NSFileHandle& from, uint64_t offset, TransferControl& control,
                             NSErrorRef* error);
  // Sends what a scratch file has unconfirmed from `offset` on, and wherever the server lacks what it had.
  // From offset 0 the remote file ends as long as the local one. Waits for the acknowledgements unless
  // `control` lets it return early.
  [[nodiscard]] bool sendChanges(NSFileHandle& from, uint64_t offset, TransferControl& control,
                                 NSErrorRef* error);
  [[nodiscard]] bool finish(TransferControl& control, NSErrorRef* error) {
    return iQueue->finish(control, error);
  }
  void settleRest(TransferControl& control) { iQueue->settleRest(control); }
  // Nothing more will be sent. Gives back what was not stored and tells the record the outcome; null when
  // there is nothing to tell. `isClosed`: the server has confirmed the close. Once.
  void end(NSErrorRef failure, bool isClosed);

 private:
  void sent(FileExtent extent) override;
  void stored(FileExtent extent) override;
  void notStored(FileExtent extent) override;

  // What is queued leaves by itself where the channel can be lent, and before the answer where it cannot.
  bool leaveToBackground(TransferControl& control, NSErrorRef* error);
  bool cutToFit(uint64_t offset, uint64_t length, TransferControl& control, NSErrorRef* error);
  // What a scratch file of that length has to send.
  std::vector<FileExtent> extentsToSend(const NSFileHandle& from, uint64_t offset, uint64_t length);
  bool send(const NSFileHandle& from, const std::vector<FileExtent>& extents, TransferControl& control,
            NSErrorRef* error);
  bool setRemoteLength(uint64_t length, NSErrorRef* error);

  SFTPChannel& iChannel;
  SFTPRequests& iRequests;
  const std::string iPath;
  const std::string iHandle;
  const std::shared_ptr<UnconfirmedExtents> iExtents;
  uint64_t iRemoteLength;
  BoundedExtents iAcknowledged;  // through this handle
  std::optional<uint32_t> iMode;
  TransferControl* iControl = nullptr;  // of the call that runs
  bool iEnded = false;
  std::optional<SFTPWriteQueue> iQueue;
};

}  // namespace ombra
