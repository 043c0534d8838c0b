#include "remote/sftp/SFTPChannel.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "remote/QuarnKitError.h"
#include "remote/sftp/SFTPErrors.h"
#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SFTPTranscript.h"

namespace ombra {

namespace {

size_t pieceLength(uint64_t told) {
  if (told == 0) return kSFTPDefaultPieceLength;
  return static_cast<size_t>(std::clamp<uint64_t>(told, 512, kSFTPMaximumPieceLength));
}

// What an out-of-bounds length field most often is: text that a login script of the server has printed.
std::string describeHeader(const std::byte* header) {
  std::string text;
  for (int i = 0; i < 4; ++i) {
    const auto c = std::to_integer<unsigned char>(header[i]);
    text += c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?';
  }
  return text;
}

}  // namespace

SFTPChannel::SFTPChannel(std::unique_ptr<SFTPTransport> transport,
                         std::shared_ptr<SessionTranscript> transcript,
                         std::chrono::milliseconds connectLimit, std::chrono::milliseconds idleLimit)
    : iTranscript(std::move(transcript)),
      iConnectLimit(connectLimit),
      iIdleLimit(idleLimit),
      iSilenceLimit(idleLimit),
      iAssembler(iPool, kSFTPMaximumPacketLength,
                 [this](SFTPBuffer packet) { return packetArrived(std::move(packet)); }),
      iOutgoing(iPool),
      iReadLength(kSFTPDefaultPieceLength),
      iWriteLength(kSFTPDefaultPieceLength),
      iTransport(std::move(transport)) {
  iLastMovement = iTransport->now();
}

bool SFTPChannel::open(NSErrorRef* error) {
  iDeadline = iTransport->now() + iConnectLimit;
  NSErrorRef reason;
  if (!iTransport->open(&reason)) {
    fail(reason);
    return reportFailure(error);
  }
  touch();
  return exchangeVersions(error);
}

bool SFTPChannel::exchangeVersions(NSErrorRef* error) {
  SFTPPacketWriter init(kSFTPInit);
  init.u32(kSFTPProtocolVersion);
  iOutgoing.append(init.finish());
  if (iTranscript->isEnabled()) iTranscript->append("init version=3\n", true);
  while (!iServerVersion) {
    if (!pump(iIdleLimit, error)) return false;
  }
  if (*iServerVersion < kSFTPProtocolVersion) {
    fail(QuarnKitError::errorWithCode(
        kQuarnKitNotSupported,
        fmt::format("The server speaks only version {} of the file protocol", *iServerVersion)));
    return reportFailure(error);
  }
  return true;
}

bool SFTPChannel::hasExtension(std::string_view name, std::string_view version) const {
  const auto found = iExtensions.find(name);
  return found != iExtensions.end() && found->second == version;
}

void SFTPChannel::setLimits(const SFTPLimits& limits) {
  iReadLength = std::min(pieceLength(limits.readLength), kSFTPReadPieceLength);
  iWriteLength = pieceLength(limits.writeLength);
}

SFTPPacketWriter SFTPChannel::begin(uint8_t type) {
  own();
  SFTPPacketWriter writer(type);
  writer.u32(++iLastID);
  return writer;
}

uint32_t SFTPChannel::submit(SFTPPacketWriter& writer) {
  own();
  iOutgoing.append(writer.finish());
  return enter(iLastID);
}

uint32_t SFTPChannel::enter(uint32_t id) {
  // Time that passed while nobody listened is not silence of the server.
  touch();
  iPending[id].queued = iTransport->now();
  return id;
}

std::span<std::byte> SFTPChannel::beginWrite(std::string_view handle, uint64_t offset, size_t capacity) {
  own();
  iWriteHeaderLength = 4 + 1 + 4 + 4 + handle.size() + 8 + 4;
  iWriteSpace = iOutgoing.reserve(iWriteHeaderLength + capacity);
  iWriteID = ++iLastID;
  std::byte* to = iWriteSpace.data() + 4;
  *to++ = std::byte{kSFTPWrite};
  sftpPutU32(to, iWriteID);
  sftpPutU32(to + 4, static_cast<uint32_t>(handle.size()));
  std::memcpy(to + 8, handle.data(), handle.size());
  sftpPutU64(to + 8 + handle.size(), offset);
  return iWriteSpace.subspan(iWriteHeaderLength);
}

uint32_t SFTPChannel::finishWrite(size_t length) {
  sftpPutU32(iWriteSpace.data(), static_cast<uint32_t>(iWriteHeaderLength - 4 + length));
  sftpPutU32(iWriteSpace.data() + iWriteHeaderLength - 4, static_cast<uint32_t>(length));
  iOutgoing.commit(iWriteHeaderLength + length);
  return enter(iWriteID);
}

std::optional<SFTPReply> SFTPChannel::wait(uint32_t id, NSErrorRef* error) {
  while (!hasReply(id)) {
    if (!pump(iIdleLimit, error)) return std::nullopt;
  }
  return take(id);
}

std::optional<SFTPReply> SFTPChannel::waitPatiently(uint32_t id, NSErrorRef* error) {
  iSilenceLimit = kPatience * iIdleLimit;
  auto reply = wait(id, error);
  iSilenceLimit = iIdleLimit;
  return reply;
}

bool SFTPChannel::hasReply(uint32_t id) {
  own();
  const auto found = iPending.find(id);
  return found != iPending.end() && found->second.reply.has_value();
}

std::optional<SFTPReply> SFTPChannel::take(uint32_t id) {
  own();
  const auto found = iPending.find(id);
  if (found == iPending.end() || !found->second.reply) return std::nullopt;
  SFTPReply reply = std::move(*found->second.reply);
  iPending.erase(found);
  return reply;
}

void SFTPChannel::abandon(uint32_t id) {
  own();
  const auto found = iPending.find(id);
  if (found == iPending.end()) return;
  if (!found->second.reply) {
    found->second.isAbandoned = true;
    return;
  }
  recycle(std::move(*found->second.reply));
  iPending.erase(found);
}

SFTPChannel::Clock::duration SFTPChannel::age(uint32_t id) {
  own();
  const auto found = iPending.find(id);
  return found == iPending.end() ? Clock::duration::zero() : iTransport->now() - found->second.queued;
}

std::chrono::milliseconds SFTPChannel::patience(Clock::time_point now) const {
  Clock::time_point end = iLastMovement + iSilenceLimit;
  if (iDeadline) end = std::min(end, *iDeadline);
  return std::chrono::duration_cast<std::chrono::milliseconds>(end - now + std::chrono::microseconds(999));
}

bool SFTPChannel::pump(std::chrono::milliseconds slice, NSErrorRef* error) {
  own();
  SFTPTransport::Exchanged exchanged;
  return exchange(slice, &exchanged) || reportFailure(error);
}

// False after a failure.
bool SFTPChannel::exchange(std::chrono::milliseconds slice, SFTPTransport::Exchanged* exchanged) {
  if (iFailure) return false;
  const std::chrono::milliseconds left = std::max(patience(iTransport->now()), std::chrono::milliseconds(0));
  NSErrorRef reason;
  const auto happened = iTransport->exchange(iOutgoing.front(), std::min(slice, left), *this, &reason);
  if (!happened) fail(reason);
  if (iFailure) return false;
  if (happened->sent > 0) iOutgoing.consume(happened->sent);
  if (happened->moved) iLastMovement = iTransport->now();
  // Only after a look: this thread may have slept longer than the server.
  if (isAwaiting() && patience(iTransport->now()).count() <= 0) {
    fail(QuarnKitError::errorWithCode(kQuarnKitTimedOut, "The server was silent for too long"));
    return false;
  }
  *exchanged = *happened;
  return true;
}

void SFTPChannel::lend() {
  own();
  if (!canLend() || iFailure || iOutgoing.size() == 0) return;
  if (iSender == nullptr) {
    iSender = std::make_unique<SFTPBackgroundSender>([this](bool mayWait) { return moveAlong(mayWait); });
  }
  constexpr size_t kWorthAPacket = 32 * 1024;
  iIsLent = iSender->lend(iOutgoing.size() >= kWorthAPacket);
  if (!iIsLent) flushBriefly();
}

void SFTPChannel::takeBack() {
  iSender->takeBack();
  iIsLent = false;
}

// On the sender's thread, while the channel is lent.
SFTPBackgroundSender::Step SFTPChannel::moveAlong(bool mayWait) {
  using Step = SFTPBackgroundSender::Step;
  // Whoever wants the channel back waits for this long.
  constexpr std::chrono::milliseconds kMoment{1};
  SFTPTransport::Exchanged exchanged;
  if (!exchange(mayWait ? kMoment : std::chrono::milliseconds(0), &exchanged)) return Step::done;
  if (iOutgoing.size() == 0 && !exchanged.isPending) return Step::done;
  return exchanged.moved ? Step::moved : Step::blocked;
}

bool SFTPChannel::isAwaiting() const { return !iServerVersion || !iPending.empty() || iOutgoing.size() > 0; }

void SFTPChannel::flushBriefly() {
  own();
  constexpr std::chrono::milliseconds kBrief{100};
  const auto end = iTransport->now() + kBrief;
  do {
    if (iFailure || !pump(std::chrono::milliseconds(0), nullptr)) return;
    if (iOutgoing.size() > 0 && !pump(std::chrono::milliseconds(10), nullptr)) return;
  } while (iOutgoing.size() > 0 && iTransport->now() < end);
}

void SFTPChannel::received(std::span<const std::byte> bytes) {
  if (iFailure || iAssembler.append(bytes) || iFailure) return;
  const std::string header = describeHeader(iAssembler.header());
  fail(sftpProtocolError(iServerVersion
                             ? fmt::format("a packet of impossible length (\"{}\")", header)
                             : fmt::format("text instead of the file protocol, beginning with \"{}\"; look "
                                           "for output of a login script on the server",
                                           header)));
}

bool SFTPChannel::packetArrived(SFTPBuffer packet) {
  const auto type = std::to_integer<uint8_t>(packet.data[0]);
  if (!iServerVersion) return type == kSFTPVersion && versionArrived(std::move(packet));
  if (packet.size < 5) {
    fail(sftpProtocolError("a reply without a request number"));
    return false;
  }
  SFTPReply reply;
  reply.type = type;
  reply.id = sftpGetU32(packet.data.get() + 1);
  reply.bodyOffset = 5;
  reply.packet = std::move(packet);
  return replyArrived(std::move(reply));
}

bool SFTPChannel::versionArrived(SFTPBuffer packet) {
  iServerVersion = parseSFTPVersion(packet.bytes().subspan(1), &iExtensions);
  if (!iServerVersion) {
    fail(sftpProtocolError("a version packet that cannot be read"));
    return false;
  }
  if (iTranscript->isEnabled()) iTranscript->append(sftpVersionText(*iServerVersion, iExtensions), false);
  return true;
}

bool SFTPChannel::replyArrived(SFTPReply reply) {
  const auto found = iPending.find(reply.id);
  if (found == iPending.end() || found->second.reply) {
    fail(sftpProtocolError("a reply that belongs to no request"));
    return false;
  }
  if (iTranscript->isEnabled()) appendReply(reply);
  if (found->second.isAbandoned) {
    iPending.erase(found);
    // Not `recycle`: replies also come to the sender's thread, which would wait for itself to give the
    // channel back.
    iPool.giveBack(std::move(reply.packet));
    return true;
  }
  found->second.reply = std::move(reply);
  return true;
}

void SFTPChannel::fail(NSErrorRef error) {
  // The first reason is the one that explains the others.
  if (!iFailure) iFailure = std::move(error);
  iHasFailed = true;
}

bool SFTPChannel::reportFailure(NSErrorRef* error) const {
  storeError(error, iFailure);
  return false;
}

void SFTPChannel::appendRequest(uint32_t id, std::string_view text) {
  iTranscript->append(sftpRequestText(id, text), true);
}

void SFTPChannel::appendReply(const SFTPReply& reply) { iTranscript->append(sftpReplyText(reply), false); }

}  // namespace ombra
