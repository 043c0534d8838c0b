#include "remote/s3/S3PartSenders.h"

#include <atomic>
#include <future>
#include <system_error>

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

// free → filled → under way → ended → taken, and so free again. Between under way and ended it is its
// thread's, else the session's.
struct S3PartSenders::Slot {
  // The first part may be the whole stream, and short; those behind it are not.
  Slot(bool isFirst, S3PartBuffer::Hashing hashing) : buffer(hashing, isFirst ? S3PartBuffer::kMemory : 0) {}
  S3PartBuffer buffer;
  std::unique_ptr<S3Client> own;  // null in the first slot, which has the session's
  uint32_t number = 0;            // of the part
  std::string tag;                // once it was sent; empty when that failed
  NSErrorRef fault;
  // Its thread has ended when the future is ready, or gone. Last, so that it is waited for first.
  std::future<void> sent;
};

S3PartSenders::S3PartSenders(S3Client& client, S3MultipartUpload& whole, size_t most)
    : iClient(client),
      iWhole(whole),
      iMost(most),
      iHashing(client.signsPayloads() ? S3PartBuffer::Hashing::kWanted : S3PartBuffer::Hashing::kNotWanted),
      iStop(std::make_unique<Stop>()) {}

S3PartSenders::~S3PartSenders() {
  iStop->set();
  for (const auto& slot : iSlots) {
    if (slot->own != nullptr) slot->own->interrupt();
  }
  for (const auto& slot : iSlots) {
    if (slot->sent.valid()) slot->sent.wait();
  }
}

void S3PartSenders::addSlot() {
  auto slot = std::make_unique<Slot>(iSlots.empty(), iHashing);
  if (!iSlots.empty())
    slot->own =
        std::make_unique<S3Client>(iClient.environment(), iClient.endpoint(), iClient.sharedKnowledge());
  iFree.push_back(slot.get());
  iSlots.push_back(std::move(slot));
}

S3PartBuffer* S3PartSenders::buffer(TransferControl& control, NSErrorRef* error) {
  while (Slot* slot = ended(milliseconds(0))) {
    if (!take(*slot, control, error)) return nullptr;
  }
  if (iFree.empty() && iSlots.size() < iMost) addSlot();
  while (iFree.empty()) {
    if (!takeNext(control, error)) return nullptr;
  }
  return &iFree.back()->buffer;
}

void S3PartSenders::send() {
  Slot* slot = iFree.back();
  iFree.pop_back();
  slot->number = ++iBegun;
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
  const S3PartBuffer& content = slot.buffer;
  slot.tag =
      iWhole.sendPart(client, slot.number, slot.buffer.body(), content.hash(), iStop.get(), &slot.fault)
          .value_or("");
}

void S3PartSenders::transferAndTell(Slot& slot) {
  transfer(slot.own != nullptr ? *slot.own : iClient, slot);
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

// Servers bound how many connections somebody has: the session's own is there at any rate.
bool S3PartSenders::tryOnFirst(Slot& slot, TransferControl& control, NSErrorRef* error) {
  const std::future<void>& first = iSlots.front()->sent;
  while (first.valid() && first.wait_for(kLook) == std::future_status::timeout) {
    if (!mayGoOn(control, error)) return false;
  }
  transfer(iClient, slot);
  return true;
}

bool S3PartSenders::take(Slot& slot, TransferControl& control, NSErrorRef* error) {
  if (slot.tag.empty() && slot.own != nullptr && isOutage(slot.fault) && !tryOnFirst(slot, control, error))
    return false;
  if (slot.tag.empty()) {
    storeError(error, slot.fault);
    return false;
  }
  iWhole.addPart(slot.number, std::move(slot.tag));
  ++iTaken;
  iFree.push_back(&slot);
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
