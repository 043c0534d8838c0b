#include "remote/s3/S3PartSenders.h"

#include <future>
#include <system_error>

#include "platform/foundation/NSThread.h"
#include "remote/QuarnKitError.h"
#include "remote/RetryPauses.h"

namespace ombra {
namespace {

// Cancellation is looked at so often.
constexpr std::chrono::milliseconds kLook{100};

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

struct S3PartSenders::Slot {
  // The first part may be the whole stream, and short; those behind it are not.
  Slot(bool isFirst, S3PartBuffer::Hashing hashing) : buffer(hashing, isFirst ? S3PartBuffer::kMemory : 0) {}
  S3PartBuffer buffer;
  std::unique_ptr<S3Client> own;  // null in the first slot, which has the session's
  std::string tag;                // of the part, once it was sent; empty when that failed
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

S3PartBuffer* S3PartSenders::buffer(TransferControl& control, NSErrorRef* error) {
  if (iBegun - iTaken == iMost && !takeOldest(control, error)) return nullptr;
  if (iSlots.size() == iBegun % iMost && iSlots.size() < iMost) {
    iSlots.push_back(std::make_unique<Slot>(iSlots.empty(), iHashing));
    if (iSlots.size() > 1)
      iSlots.back()->own =
          std::make_unique<S3Client>(iClient.environment(), iClient.endpoint(), iClient.sharedKnowledge());
  }
  return &slotOf(iBegun).buffer;
}

void S3PartSenders::send() {
  const uint32_t number = iBegun++;
  Slot& slot = slotOf(number);
  S3Client& client = slot.own != nullptr ? *slot.own : iClient;
  const auto work = [this, &client, number, &slot] { transfer(client, number, &slot); };
  try {
    slot.sent = std::async(std::launch::async, [work] {
      NSThread::setName("sending a part");
      work();
    });
  } catch (const std::system_error&) {
    // No thread to be had: it is sent when it is waited for.
    slot.sent = std::async(std::launch::deferred, work);
  }
}

void S3PartSenders::transfer(S3Client& client, uint32_t number, Slot* slot) {
  slot->fault.reset();
  slot->tag =
      iWhole.sendPart(client, number + 1, slot->buffer.body(), slot->buffer.hash(), iStop.get(), &slot->fault)
          .value_or("");
}

bool S3PartSenders::waitFor(Slot& slot, TransferControl& control, NSErrorRef* error) {
  while (true) {
    if (control.shouldCancel()) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitCancelled));
      return false;
    }
    if (iClient.isInterrupted()) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "the session was interrupted"));
      return false;
    }
    const std::future_status status = slot.sent.wait_for(kLook);
    if (status == std::future_status::deferred) slot.sent.wait();
    if (status != std::future_status::timeout) return true;
  }
}

// Servers bound how many connections somebody has: the session's own is there at any rate.
bool S3PartSenders::tryOnFirst(Slot& slot, uint32_t number, TransferControl& control, NSErrorRef* error) {
  if (!waitFor(*iSlots.front(), control, error)) return false;
  transfer(iClient, number, &slot);
  return true;
}

bool S3PartSenders::takeOldest(TransferControl& control, NSErrorRef* error) {
  Slot& slot = slotOf(iTaken);
  if (!waitFor(slot, control, error)) return false;
  if (slot.tag.empty() && slot.own != nullptr && isOutage(slot.fault) &&
      !tryOnFirst(slot, iTaken, control, error))
    return false;
  if (slot.tag.empty()) {
    storeError(error, slot.fault);
    return false;
  }
  iWhole.addPart(slot.tag);
  ++iTaken;
  control.progress(iStored += slot.buffer.length());
  return true;
}

bool S3PartSenders::finish(TransferControl& control, NSErrorRef* error) {
  while (iTaken < iBegun) {
    if (!takeOldest(control, error)) return false;
  }
  return true;
}

}  // namespace ombra
