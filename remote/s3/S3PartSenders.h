// The parts of a stream, several of them under way at once.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSCondition.h"
#include "remote/Session.h"
#include "remote/s3/S3Client.h"
#include "remote/s3/S3MultipartUpload.h"
#include "remote/s3/S3PartBuffer.h"

namespace ombra {

// A server needs a while for each part, in which it could take others: so the next part is gathered, and sent
// on a connection of its own, while those before it are under way. Whichever the server has first makes room
// for the next; one more connection is made only when all are busy, so that who writes slowly needs few. Used
// by the session's thread alone: buffer → send → buffer → … → finish. The session's client must not be used
// between the first `send` and the end of `finish`. The destructor ends what is under way.
//
// Over a slow line as many parts as may be are under way for minutes. Who cannot wait for that long goes on
// gathering: parts that are sent without a turn wait for theirs.
class S3PartSenders {
 public:
  // At most `most` parts are under way, the first on `client` itself.
  S3PartSenders(S3Client& client, S3MultipartUpload& whole, size_t most);
  ~S3PartSenders();
  S3PartSenders(const S3PartSenders&) = delete;
  S3PartSenders& operator=(const S3PartSenders&) = delete;

  // The one to fill for the next part, empty. Null with the error when a part failed.
  [[nodiscard]] S3PartBuffer* buffer(TransferControl& control, NSErrorRef* error) EXCLUDES(iWake);
  // Whether the next part would be under way at once.
  bool hasTurn() const { return iBegun - iTaken < iMost; }
  // Whether one more part may wait for its turn.
  bool mayQueue() const { return iWaiting.size() < kMostWaiting; }
  // Waits for a turn, for so long at most. False with the error when a part failed, or `control` or the
  // session's end asked for it.
  [[nodiscard]] bool waitForTurn(std::chrono::milliseconds patience, TransferControl& control,
                                 NSErrorRef* error) EXCLUDES(iWake);
  // Sends what is in the buffer that was given last as the next part.
  void send() EXCLUDES(iWake);
  // Waits until the server has all parts.
  [[nodiscard]] bool finish(TransferControl& control, NSErrorRef* error) EXCLUDES(iWake);

 private:
  class Stop;
  struct Slot;
  static constexpr size_t kMostWaiting = 64;
  void addSlot();
  size_t underWay() const { return iBegun - iTaken - iWaiting.size(); }
  // Of those that wait, if one may.
  void startNext() EXCLUDES(iWake);
  S3Client* takeClient(const Slot& slot);
  void transfer(S3Client& client, Slot& slot) const;
  void transferAndTell(Slot& slot) EXCLUDES(iWake);
  bool mayGoOn(const TransferControl& control, NSErrorRef* error) const;
  // One whose part has ended, well or not, waited for so long; null when there is none.
  Slot* ended(std::chrono::milliseconds patience) EXCLUDES(iWake);
  [[nodiscard]] bool takeNext(TransferControl& control, NSErrorRef* error) EXCLUDES(iWake);
  [[nodiscard]] bool take(Slot& slot, TransferControl& control, NSErrorRef* error);

  S3Client& iClient;
  S3MultipartUpload& iWhole;
  const size_t iMost;
  const S3PartBuffer::Hashing iHashing;
  const std::unique_ptr<Stop> iStop;
  NSCondition iWake;
  std::vector<Slot*> iEnded GUARDED_BY(iWake);  // parts that nobody has taken note of yet
  std::vector<std::unique_ptr<S3Client>> iOwn;  // besides the session's
  std::vector<S3Client*> iIdle;                 // the last one is used next
  std::vector<std::unique_ptr<Slot>> iSlots;    // go before the clients that they use
  std::vector<Slot*> iFree;                     // the last one is filled next
  Slot* iFilled = nullptr;                      // not sent yet
  std::deque<Slot*> iWaiting;                   // for their turn, in order
  uint32_t iBegun = 0;                          // parts that were sent off
  uint32_t iTaken = 0;                          // parts that the server has
  uint64_t iStored = 0;
};

}  // namespace ombra
