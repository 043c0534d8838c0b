#include "remote/s3/S3PartSenders.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <iterator>
#include <system_error>
#include <utility>

#include "platform/foundation/NSThread.h"
#include "remote/QuarnKitError.h"
#include "remote/RetryPauses.h"

namespace ombra {
namespace {

using std::chrono::milliseconds;

// Cancellation is looked at so often.
constexpr milliseconds kLook{100};

}  // namespace

// What the threads ask instead of the transfer, which only the session's thread may ask.
class S3PartSenders::Stop final : public TransferControl {
 public:
  void progress(uint64_t) override {}
  bool shouldCancel() const override { return iIsSet.load(); }
  void set() { iIsSet.store(true); }

 private:
  std::atomic<bool> iIsSet{false};
};

// free → filled → waiting → under way → ended → taken, and so free again. Between under way and ended it is
// its thread's, else the session's.
struct S3PartSenders::Slot {
  // The first part may be the whole stream, and short; those behind it are not.
  Slot(bool isFirst, S3PartBuffer::Hashing hashing) : buffer(hashing, isFirst ? S3PartBuffer::kMemory : 0) {}
  S3PartBuffer buffer;
  S3Client* client = nullptr;  // until it is taken
  bool isForFirst = false;     // no other connection will do
  uint32_t number = 0;         // of the part
  std::string tag;             // once it was sent; empty when that failed
  NSErrorRef fault;
  // Its thread has ended when the future is ready, or gone. Last, so that it is waited for first.
  std::future<void> sent;
};

S3PartSenders::S3PartSenders(S3Client& client, S3MultipartUpload& whole, size_t most)
    : iClient(client),
      iWhole(whole),
      iMost(most),
      iHashing(client.signsPayloads() ? S3PartBuffer::Hashing::kWanted : S3PartBuffer::Hashing::kNotWanted),
      iStop(std::make_unique<Stop>()),
      iIdle{&client} {}

S3PartSenders::~S3PartSenders() {
  iStop->set();
  for (const auto& client : iOwn) client->interrupt();
  for (const auto& slot : iSlots) {
    if (slot->sent.valid()) slot->sent.wait();
  }
}

void S3PartSenders::addSlot() {
  iSlots.push_back(std::make_unique<Slot>(iSlots.empty(), iHashing));
  iFree.push_back(iSlots.back().get());
}

// Null when there is none to be had for it.
S3Client* S3PartSenders::takeClient(const Slot& slot) {
  if (iIdle.empty() && !slot.isForFirst) {
    iOwn.push_back(
        std::make_unique<S3Client>(iClient.environment(), iClient.endpoint(), iClient.sharedKnowledge()));
    return iOwn.back().get();
  }
  const auto found =
      slot.isForFirst ? std::find(iIdle.begin(), iIdle.end(), &iClient) : std::prev(iIdle.end());
  if (found == iIdle.end()) return nullptr;
  S3Client* client = *found;
  iIdle.erase(found);
  return client;
}

S3PartBuffer* S3PartSenders::buffer(TransferControl& control, NSErrorRef* error) {
  while (Slot* slot = ended(milliseconds(0))) {
    if (!take(*slot, control, error)) return nullptr;
  }
  if (iFree.empty()) addSlot();
  iFilled = iFree.back();
  iFree.pop_back();
  iFilled->buffer.clear();
  iFilled->isForFirst = false;
  return &iFilled->buffer;
}

bool S3PartSenders::waitForTurn(milliseconds patience, TransferControl& control, NSErrorRef* error) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!hasTurn()) {
    if (!mayGoOn(control, error)) return false;
    const auto left = std::chrono::ceil<milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return true;
    if (Slot* slot = ended(std::min(left, kLook)); slot != nullptr && !take(*slot, control, error))
      return false;
  }
  return true;
}

void S3PartSenders::send() {
  iFilled->number = ++iBegun;
  iWaiting.push_back(iFilled);
  startNext();
}

void S3PartSenders::startNext() {
  if (underWay() == iMost) return;
  const auto next = std::find_if(iWaiting.begin(), iWaiting.end(), [this](Slot* slot) {
    slot->client = takeClient(*slot);
    return slot->client != nullptr;
  });
  if (next == iWaiting.end()) return;
  Slot* slot = *next;
  iWaiting.erase(next);
  try {
    slot->sent = std::async(std::launch::async, [this, slot] {
      NSThread::setName("sending a part");
      transferAndTell(*slot);
    });
  } catch (const std::system_error&) {
    // No thread to be had.
    transferAndTell(*slot);
  }
}

void S3PartSenders::transfer(S3Client& client, Slot& slot) const {
  slot.fault.reset();
  S3PartBuffer& content = slot.buffer;
  slot.tag = iWhole.sendPart(client, slot.number, content.body(), content.hash(), iStop.get(), &slot.fault)
                 .value_or("");
}

void S3PartSenders::transferAndTell(Slot& slot) {
  transfer(*slot.client, slot);
  ConditionLock lock(iWake);
  iEnded.push_back(&slot);
  iWake.broadcast();
}

bool S3PartSenders::mayGoOn(const TransferControl& control, NSErrorRef* error) const {
  if (control.shouldCancel()) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitCancelled));
    return false;
  }
  return iClient.goesOn(error);
}

S3PartSenders::Slot* S3PartSenders::ended(milliseconds patience) {
  ConditionLock lock(iWake);
  if (iEnded.empty() && patience.count() > 0)
    (void)iWake.waitUntilDate(
        NSDate::dateWithTimeIntervalSinceNow(std::chrono::duration<double>(patience).count()));
  if (iEnded.empty()) return nullptr;
  Slot* slot = iEnded.front();
  iEnded.erase(iEnded.begin());
  return slot;
}

bool S3PartSenders::takeNext(TransferControl& control, NSErrorRef* error) {
  while (mayGoOn(control, error)) {
    if (Slot* slot = ended(kLook)) return take(*slot, control, error);
  }
  return false;
}

bool S3PartSenders::take(Slot& slot, TransferControl& control, NSErrorRef* error) {
  S3Client* client = std::exchange(slot.client, nullptr);
  iIdle.push_back(client);
  if (slot.tag.empty() && client != &iClient && isOutage(slot.fault)) {
    // Servers bound how many connections somebody has: the session's own is there at any rate.
    slot.isForFirst = true;
    iWaiting.push_front(&slot);
    startNext();
    return true;
  }
  if (slot.tag.empty()) {
    storeError(error, slot.fault);
    return false;
  }
  iWhole.addPart(slot.number, std::move(slot.tag));
  ++iTaken;
  iFree.push_back(&slot);
  startNext();
  control.progress(iStored += slot.buffer.length());
  return true;
}

bool S3PartSenders::finish(TransferControl& control, NSErrorRef* error) {
  while (iTaken < iBegun) {
    if (!takeNext(control, error)) return false;
  }
  return true;
}

}  // namespace ombra
