// A server that answers each request of the file protocol with whatever comes.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/mman.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "remote/QuarnKitError.h"
#include "remote/sftp/SFTPPacket.h"
#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SFTPSession.h"

namespace ombra {
namespace {

// Most answers fit their request in form, so that what they hold gets as far as it can; some are mere bytes.
class HostileTransport final : public SFTPTransport {
 public:
  explicit HostileTransport(FuzzedDataProvider& data) : iData(data) {}

  bool open(NSErrorRef*) override { return true; }
  void interrupt() override {}

  std::optional<Exchanged> exchange(std::span<const std::byte> outgoing, std::chrono::milliseconds,
                                    Receiver& receiver, NSErrorRef* error) override {
    iFromClient.append(reinterpret_cast<const char*>(outgoing.data()), outgoing.size());
    answerPackets();
    if (iToClient.empty() && outgoing.empty()) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "nothing more to say"));
      return std::nullopt;
    }
    const std::string piece = std::exchange(iToClient, {});
    if (!piece.empty()) receiver.received(std::as_bytes(std::span(piece.data(), piece.size())));
    return Exchanged{outgoing.size(), true};
  }

 private:
  void answerPackets() {
    while (iFromClient.size() >= 9) {
      const auto* bytes = reinterpret_cast<const std::byte*>(iFromClient.data());
      const uint32_t length = sftpGetU32(bytes);
      if (iFromClient.size() < 4 + static_cast<size_t>(length)) return;
      answer(static_cast<uint8_t>(iFromClient[4]), sftpGetU32(bytes + 5));
      iFromClient.erase(0, 4 + static_cast<size_t>(length));
    }
  }

  void answer(uint8_t type, uint32_t id) {
    if (iData.remaining_bytes() == 0) return;
    if (iData.ConsumeIntegralInRange<int>(0, 15) == 0) {
      iToClient += iData.ConsumeRandomLengthString(64);
      return;
    }
    static constexpr uint8_t kAnswers[] = {kSFTPStatus, kSFTPHandle, kSFTPData,
                                           kSFTPName,   kSFTPAttrs,  kSFTPExtendedReply};
    std::string body(1,
                     static_cast<char>(type == kSFTPInit ? kSFTPVersion : iData.PickValueInArray(kAnswers)));
    appendU32(body, type == kSFTPInit ? 3 : id);
    body += iData.ConsumeRandomLengthString(512);
    appendU32(iToClient, static_cast<uint32_t>(body.size()));
    iToClient += body;
  }

  static void appendU32(std::string& text, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) text += static_cast<char>(value >> shift);
  }

  FuzzedDataProvider& iData;
  std::string iFromClient;
  std::string iToClient;
};

class Silent final : public SessionTranscript {
 public:
  bool isEnabled() const override { return true; }
  void append(std::string_view, bool) override {}
};

class Control final : public TransferControl {
 public:
  void progress(uint64_t) override {}
  bool shouldCancel() const override { return false; }
};

// What fails has a reason, and what succeeds has none.
void check(bool succeeded, const NSErrorRef& error) {
  if (!succeeded && error == nullptr) std::abort();
}

void callSession(SFTPSession& session, int operation) {
  NSErrorRef error;
  Control control;
  bool isDirectory = false;
  switch (operation) {
    case 0: {
      std::vector<RemoteEntry> entries;
      return check(session.list("/d", &entries, &error), error);
    }
    case 1:
      return check(session.attributes("/f", &isDirectory, &error).has_value(), error);
    case 2:
      return check(session.resolveLink("/l", &error).has_value(), error);
    case 3:
      return check(session.realPath("~/x", "/", &isDirectory, &error).has_value(), error);
    case 4:
      return check(session.fileSystemAttributes("/", &error).has_value(), error);
    case 5:
      return check(session.move("/a", false, "/b", &error), error);
    case 6:
      return check(session.remove("/a", true, &error), error);
    default:
      break;
  }
  NSFileHandle file(memfd_create("fuzz", MFD_CLOEXEC), NSFileHandle::Kind::kScratch);
  std::string version;
  if (operation == 7) return check(session.download("/f", file, 0, &version, control, &error), error);
  if (!file.writeAll("content", 7, 0)) std::abort();
  file.noteWritten({0, 7});
  check(session.upload(file, "/f", operation == 8 ? 0 : 3, control, &error), error);
  session.becameIdle();
}

}  // namespace
}  // namespace ombra

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  using namespace ombra;
  FuzzedDataProvider data(bytes, size);
  SessionEnvironment environment;
  environment.credentials = std::make_shared<KCCredentials>();
  environment.transcript = std::make_shared<Silent>();
  SFTPSession session(std::make_unique<HostileTransport>(data), environment);
  NSErrorRef error;
  if (!session.logIn(&error)) return 0;
  for (int calls = 0; calls < 16 && data.remaining_bytes() > 0; ++calls) {
    callSession(session, data.ConsumeIntegralInRange<int>(0, 9));
  }
  return 0;
}
