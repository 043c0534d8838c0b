#include "tests/sftp/PeerTransport.h"

#include <fmt/format.h>

#include <algorithm>

#include "remote/QuarnKitError.h"
#include "remote/sftp/SFTPPacket.h"
#include "remote/sftp/SFTPProtocol.h"

namespace ombra::test {

namespace {
constexpr std::chrono::milliseconds kRoundTrip{100};
}  // namespace

size_t PeerTransport::countOf(uint8_t type) const {
  return static_cast<size_t>(
      std::count_if(iRequests.begin(), iRequests.end(),
                    [type](const PeerRequest& request) { return request.type == type; }));
}

bool PeerTransport::open(NSErrorRef* error) {
  if (!openError) return true;
  storeError(error, openError);
  return false;
}

std::optional<SFTPTransport::Exchanged> PeerTransport::exchange(std::span<const std::byte> outgoing,
                                                                std::chrono::milliseconds limit,
                                                                Receiver& receiver, NSErrorRef* error) {
  Exchanged exchanged;
  exchanged.sent = std::min(outgoing.size(), iCut);
  iFromClient.append(reinterpret_cast<const char*>(outgoing.data()), exchanged.sent);
  takePackets();
  if (iToClient.empty() && exchanged.sent == 0 && limit.count() > 0) {
    ++iWaits;
    iNow += kRoundTrip;
    if (iWhenIdle) {
      iWhenIdle(*this);
    } else {
      iHungUp = true;
    }
  }
  const size_t count = std::min(iToClient.size(), iCut);
  if (count > 0) {
    const std::string piece = iToClient.substr(0, count);
    iToClient.erase(0, count);
    receiver.received(std::as_bytes(std::span(piece.data(), piece.size())));
  }
  exchanged.moved = count > 0 || exchanged.sent > 0;
  if (!iHungUp || count > 0) return exchanged;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "the peer hung up"));
  return std::nullopt;
}

void PeerTransport::takePackets() {
  while (iFromClient.size() >= 4) {
    const uint32_t length = sftpGetU32(reinterpret_cast<const std::byte*>(iFromClient.data()));
    if (iFromClient.size() < 4 + length || iHungUp) return;
    PeerRequest request;
    request.bytes = iFromClient.substr(0, 4 + length);
    request.type = static_cast<uint8_t>(request.bytes[4]);
    if (request.type != kSFTPInit) {
      request.id = sftpGetU32(reinterpret_cast<const std::byte*>(request.bytes.data()) + 5);
      request.body = request.bytes.substr(9);
    }
    iFromClient.erase(0, 4 + length);
    iRequests.push_back(request);
    iHandler(request, *this);
  }
}

std::string u32(uint32_t value) {
  std::string text(4, '\0');
  sftpPutU32(reinterpret_cast<std::byte*>(text.data()), value);
  return text;
}

std::string u64(uint64_t value) {
  return u32(static_cast<uint32_t>(value >> 32)) + u32(static_cast<uint32_t>(value));
}

std::string str(std::string_view text) { return u32(static_cast<uint32_t>(text.size())).append(text); }

std::string packet(std::string_view body) { return str(body); }

std::string statusReply(uint32_t id, uint32_t code, std::string_view message) {
  return packet(std::string(1, kSFTPStatus) + u32(id) + u32(code) + str(message) + str("en"));
}

std::string handleReply(uint32_t id, std::string_view handle) {
  return packet(std::string(1, kSFTPHandle) + u32(id) + str(handle));
}

std::string dataReply(uint32_t id, std::string_view data) {
  return packet(std::string(1, kSFTPData) + u32(id) + str(data));
}

std::string attrsReply(uint32_t id, std::string_view attributes) {
  return packet(std::string(1, kSFTPAttrs) + u32(id) + std::string(attributes));
}

std::string nameReply(uint32_t id, std::string_view name) {
  return packet(std::string(1, kSFTPName) + u32(id) + u32(1) + str(name) + str(name) + u32(0));
}

std::string versionReply(const std::vector<std::pair<std::string, std::string>>& extensions) {
  std::string body = std::string(1, kSFTPVersion) + u32(3);
  for (const auto& [name, data] : extensions) body += str(name) + str(data);
  return packet(body);
}

std::string attrs(uint32_t mode, uint64_t size, uint32_t date) {
  return u32(kSFTPAttributeSize | kSFTPAttributeOwner | kSFTPAttributePermissions | kSFTPAttributeTimes) +
         u64(size) + u32(501) + u32(20) + u32(mode) + u32(date) + u32(date);
}

std::string hex(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) text += fmt::format("{:02x} ", static_cast<unsigned char>(c));
  return text;
}

}  // namespace ombra::test
