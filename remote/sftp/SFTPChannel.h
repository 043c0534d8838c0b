// Requests and their replies over one transport.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/foundation/NSError.h"
#include "remote/Session.h"
#include "remote/sftp/SFTPAssembler.h"
#include "remote/sftp/SFTPBackgroundSender.h"
#include "remote/sftp/SFTPOutgoing.h"
#include "remote/sftp/SFTPPacket.h"
#include "remote/sftp/SFTPReplies.h"
#include "remote/sftp/SFTPTransport.h"

namespace ombra {

// Sends any number of requests without waiting and keeps each reply, in whatever order they come, until it is
// asked for. After the first failure (connection ended, nothing moved for the idle limit, nonsense from the
// server) every further call fails with the same error. One thread at a time, except `interrupt`.
class SFTPChannel final : private SFTPTransport::Receiver {
 public:
  using Clock = std::chrono::steady_clock;

  SFTPChannel(std::unique_ptr<SFTPTransport> transport, std::shared_ptr<SessionTranscript> transcript,
              std::chrono::milliseconds connectLimit, std::chrono::milliseconds idleLimit);
  ~SFTPChannel() override = default;

  // Logs in and agrees on the protocol version; no longer than the connect limit.
  [[nodiscard]] bool open(NSErrorRef* error);
  // Whether the server announced this extension in that version.
  bool hasExtension(std::string_view name, std::string_view version) const;
  // Data bytes that one request may carry.
  size_t readLength() const { return iReadLength; }
  size_t writeLength() const { return iWriteLength; }
  void setLimits(const SFTPLimits& limits);
  // The login is over: from here on only silence is limited.
  void endLogin() { iDeadline.reset(); }

  // Starts a request: a writer that holds its type and number. `submit` queues it; its number is the answer.
  SFTPPacketWriter begin(uint8_t type);
  uint32_t submit(SFTPPacketWriter& writer);
  // Starts a write request: room for at most `capacity` bytes of content. `finishWrite` queues it with what
  // was put there. Nothing else may be queued in between.
  std::span<std::byte> beginWrite(std::string_view handle, uint64_t offset, size_t capacity);
  uint32_t finishWrite(size_t length);
  // One line for the transcript of the request just queued; `makeText` is called only when somebody keeps
  // one.
  template <typename MakeText>
  void note(uint32_t id, MakeText makeText) {
    if (iTranscript->isEnabled()) appendRequest(id, makeText());
  }

  // Waits for the reply of a request. Absent on failure.
  std::optional<SFTPReply> wait(uint32_t id, NSErrorRef* error);
  // The same for what a server may have to do long and silent work for, as a move that it does as a copy:
  // with `kPatience` times the idle limit.
  std::optional<SFTPReply> waitPatiently(uint32_t id, NSErrorRef* error);
  static constexpr int kPatience = 10;
  // The reply when it has come already; `failed()` stays as it is.
  std::optional<SFTPReply> take(uint32_t id);
  bool hasReply(uint32_t id);
  // The reply does not matter any more: it is dropped when it comes.
  void abandon(uint32_t id);
  // Gives the reply's memory back for the next ones.
  void recycle(SFTPReply reply) {
    own();
    iPool.giveBack(std::move(reply.packet));
  }
  // Lets bytes travel for at most `slice`. False on failure.
  [[nodiscard]] bool pump(std::chrono::milliseconds slice, NSErrorRef* error);
  // Gives what is queued a short time to leave, for requests whose replies nobody waits for.
  void flushBriefly();
  // Bytes queued and not yet taken by the transport.
  size_t outgoingSize() {
    own();
    return iOutgoing.size();
  }
  // Whether `lend` does anything: not every transport can be served by another thread.
  bool canLend() const { return iTransport->canChangeThreads(); }
  // Lets what is queued leave in the background, large amounts at once and small ones within milliseconds,
  // until the next call of any other function takes the channel back.
  void lend();
  // Time that the caller spent elsewhere is not the server's silence.
  void touch() {
    own();
    iLastMovement = iTransport->now();
  }
  // How long ago the request was queued.
  Clock::duration age(uint32_t id);

  const NSErrorRef& failure() {
    own();
    return iFailure;
  }
  // Whether every further call will fail, as far as it is known; does not take the channel back. Any thread.
  bool hasFailed() const { return iHasFailed.load(); }
  // Any thread.
  void interrupt() {
    iHasFailed = true;
    iTransport->interrupt();
  }

 private:
  struct Pending {
    Clock::time_point queued;
    bool isAbandoned = false;
    std::optional<SFTPReply> reply;
  };

  // Every public function that touches more than constants begins with this.
  void own() {
    if (iIsLent) takeBack();
  }
  void takeBack();
  SFTPBackgroundSender::Step moveAlong(bool mayWait);
  bool exchange(std::chrono::milliseconds slice, SFTPTransport::Exchanged* exchanged);
  void received(std::span<const std::byte> bytes) override;
  bool packetArrived(SFTPBuffer packet);
  bool versionArrived(SFTPBuffer packet);
  bool replyArrived(SFTPReply reply);
  bool exchangeVersions(NSErrorRef* error);
  uint32_t enter(uint32_t id);
  std::chrono::milliseconds patience(Clock::time_point now) const;
  // Whether the server owes anything: with nothing under way silence is no fault.
  bool isAwaiting() const;
  void fail(NSErrorRef error);
  bool reportFailure(NSErrorRef* error) const;
  void appendRequest(uint32_t id, std::string_view text);
  void appendReply(const SFTPReply& reply);

  const std::shared_ptr<SessionTranscript> iTranscript;
  const std::chrono::milliseconds iConnectLimit;
  const std::chrono::milliseconds iIdleLimit;
  std::chrono::milliseconds iSilenceLimit;  // the idle limit, but for a patient wait
  SFTPBufferPool iPool;
  SFTPAssembler iAssembler;
  SFTPOutgoing iOutgoing;
  std::unordered_map<uint32_t, Pending> iPending;
  SFTPExtensions iExtensions;
  std::optional<uint32_t> iServerVersion;
  std::optional<Clock::time_point> iDeadline;  // of the login
  Clock::time_point iLastMovement;
  size_t iReadLength;
  size_t iWriteLength;
  uint32_t iLastID = 0;
  uint32_t iWriteID = 0;
  size_t iWriteHeaderLength = 0;
  std::span<std::byte> iWriteSpace;
  NSErrorRef iFailure;
  std::atomic<bool> iHasFailed{false};
  bool iIsLent = false;  // the user's side of it: read and written by the user's thread alone
  // Its end may still hand over bytes.
  std::unique_ptr<SFTPTransport> iTransport;
  // Last: its thread uses the others.
  std::unique_ptr<SFTPBackgroundSender> iSender;
};

}  // namespace ombra
