// The other end of the file protocol, without a socket.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "remote/sftp/SFTPTransport.h"

namespace ombra::test {

// A request packet as the peer got it.
struct PeerRequest {
  uint8_t type = 0;
  uint32_t id = 0;    // 0 for the version request, which has none
  std::string body;   // what follows type and number
  std::string bytes;  // the whole packet with its length
};

// A transport whose far side is a function of the test: called for each whole packet of the client, it may
// answer with any bytes. Both directions can be cut into pieces of `cut` bytes. No threads; by its clock each
// wait of the client takes a round trip of a long line, 100 ms, and nothing else takes any time.
class PeerTransport final : public SFTPTransport {
 public:
  using Handler = std::function<void(const PeerRequest&, PeerTransport&)>;
  explicit PeerTransport(Handler handler) : iHandler(std::move(handler)) {}

  // Bytes for the client; they arrive in order, with the next exchanges.
  void send(std::string_view bytes) { iToClient.append(bytes); }
  // The connection ends once everything sent has arrived.
  void hangUp() { iHungUp = true; }
  void setCut(size_t bytes) { iCut = bytes; }
  // Called each time the client waits and there is nothing for it: time passes, or the script goes on.
  // Without it the connection ends there, so that a test never hangs.
  void setWhenIdle(std::function<void(PeerTransport&)> idle) { iWhenIdle = std::move(idle); }

  const std::vector<PeerRequest>& requests() const { return iRequests; }
  size_t countOf(uint8_t type) const;
  // Bytes that were sent to the client and that it has not taken yet.
  size_t undelivered() const { return iToClient.size(); }
  // How often the client had to wait: a measure of round trips.
  size_t waits() const { return iWaits; }
  // Time in which nobody calls.
  void letPass(std::chrono::milliseconds time) { iNow += time; }

  [[nodiscard]] bool open(NSErrorRef* error) override;
  std::optional<Exchanged> exchange(std::span<const std::byte> outgoing, std::chrono::milliseconds limit,
                                    Receiver& receiver, NSErrorRef* error) override;
  std::chrono::steady_clock::time_point now() const override { return iNow; }
  void interrupt() override { iHungUp = true; }

  // What `open` answers with, null for success.
  NSErrorRef openError;

 private:
  void takePackets();

  const Handler iHandler;
  std::function<void(PeerTransport&)> iWhenIdle;
  std::string iFromClient;
  std::string iToClient;
  std::vector<PeerRequest> iRequests;
  size_t iCut = SIZE_MAX;
  size_t iWaits = 0;
  std::chrono::steady_clock::time_point iNow;
  bool iHungUp = false;
};

// Bytes of packets, for tables and answers.
std::string u32(uint32_t value);
std::string u64(uint64_t value);
std::string str(std::string_view text);
// A length in front.
std::string packet(std::string_view body);
std::string statusReply(uint32_t id, uint32_t code, std::string_view message = "");
std::string handleReply(uint32_t id, std::string_view handle);
std::string dataReply(uint32_t id, std::string_view data);
std::string attrsReply(uint32_t id, std::string_view attributes);
std::string nameReply(uint32_t id, std::string_view name);
std::string versionReply(const std::vector<std::pair<std::string, std::string>>& extensions = {});
// An attribute record: mode with type bits, size, date.
std::string attrs(uint32_t mode, uint64_t size, uint32_t date = 1000);
// Readable form for failures: "00 00 00 05 …".
std::string hex(std::string_view bytes);

}  // namespace ombra::test
