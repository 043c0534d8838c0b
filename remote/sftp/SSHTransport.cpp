#include "remote/sftp/SSHTransport.h"

#include <libssh/callbacks.h>
#include <poll.h>
#include <sys/mman.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include "remote/QuarnKitError.h"
#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SSHAuthentication.h"
#include "remote/sftp/SSHClient.h"
#include "remote/sftp/SSHLog.h"

namespace ombra {

namespace {

// libssh takes at most 4 KiB from the socket at a time: this much is taken before the caller looks at it.
constexpr size_t kBytesPerExchange = 256 * 1024;
// One call to libssh encrypts and queues all that it is given.
constexpr size_t kWritePerExchange = 256 * 1024;
constexpr size_t kMostEarlyBytes = 64 * 1024;
constexpr uint32_t kWindow = kSFTPTransferWindowBytes;

bool isAcceptedFingerprint(const std::string& accepted, const std::string& shown) {
  std::istringstream words(accepted);
  for (std::string word; words >> word;) {
    if (word == shown) return true;
  }
  return false;
}

}  // namespace

namespace ssh_transport {

// Memory that is never touched: libssh grows a channel's window to what a read asks for, and a read needs a
// place.
class UntouchedSpace {
 public:
  UntouchedSpace()
      : iPlace(mmap(nullptr, kWindow, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1,
                    0)) {}
  ~UntouchedSpace() {
    if (iPlace != MAP_FAILED) munmap(iPlace, kWindow);
  }
  UntouchedSpace(const UntouchedSpace&) = delete;
  UntouchedSpace& operator=(const UntouchedSpace&) = delete;
  void* place() const { return iPlace != MAP_FAILED ? iPlace : nullptr; }

 private:
  void* const iPlace;
};

}  // namespace ssh_transport

class SSHTransport::Connection {
 public:
  explicit Connection(const SessionEnvironment& environment) : iEnvironment(environment) {}
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool open(NSErrorRef* error);
  std::optional<Exchanged> exchange(std::span<const std::byte> outgoing, std::chrono::milliseconds limit,
                                    Receiver& receiver, NSErrorRef* error);
  WakeUp& wakeUp() { return iClient.wakeUp(); }

 private:
  bool checkTrust(NSErrorRef* error);
  bool openChannel(SSHClient::Clock::time_point deadline, NSErrorRef* error);
  NSErrorRef channelError() const;
  void arrived(std::span<const std::byte> bytes);
  void growWindow();
  bool turn(std::chrono::milliseconds limit);
  bool stands() const;

  static int dataArrived(ssh_session, ssh_channel, void* data, uint32_t length, int isError, void* self);
  static int woken(socket_t, int, void*) { return 0; }

  const SessionEnvironment iEnvironment;
  SSHClient iClient;
  ssh_channel iChannel = nullptr;
  ssh_event iEvent = nullptr;
  ssh_channel_callbacks_struct iCallbacks = {};
  ssh_counter_struct iSocketCounter = {};
  ssh_transport::UntouchedSpace iSpace;
  Receiver* iReceiver = nullptr;
  std::vector<std::byte> iEarly;  // what came before anybody listened
  uint64_t iArrived = 0;
  uint64_t iWindowGrownAt = 0;
};

SSHTransport::Connection::~Connection() {
  if (iEvent != nullptr) {
    ssh_event_remove_fd(iEvent, wakeUp().descriptor());
    ssh_event_remove_session(iEvent, iClient.session());
    ssh_event_free(iEvent);
  }
  // The channel goes with its session, without a farewell that could wait.
}

bool SSHTransport::Connection::open(NSErrorRef* error) {
  const auto deadline = SSHClient::Clock::now() + iEnvironment.connectLimit;
  const KCCredentials& credentials = *iEnvironment.credentials;
  const SSHServerAddress server{credentials.address(), credentials.port(),
                                credentials.username().value_or("")};
  if (!iClient.configure(server, error)) return false;
  // The user's files may have a level of their own.
  const SSHLog log(iEnvironment);
  if (!iClient.connect(deadline, error)) return false;
  if (!checkTrust(error)) return false;
  if (!authenticateSSH(iClient, credentials, deadline, error)) return false;
  return openChannel(deadline, error);
}

bool SSHTransport::Connection::checkTrust(NSErrorRef* error) {
  const auto key = iClient.serverKey();
  if (!key) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError, "no host key"));
    return false;
  }
  const auto accepted = iEnvironment.credentials->option("fingerprint");
  const bool isTrusted = accepted
                             ? isAcceptedFingerprint(*accepted, key->fingerprint)
                             : iEnvironment.isWorthyTrust && iEnvironment.isWorthyTrust(key->fingerprint);
  if (isTrusted) return true;
  storeError(error,
             QuarnKitError::errorWithCode(kQuarnKitUntrusted, iClient.host() + " shows the " + key->type +
                                                                  " key " + key->fingerprint));
  return false;
}

bool SSHTransport::Connection::openChannel(SSHClient::Clock::time_point deadline, NSErrorRef* error) {
  iChannel = ssh_channel_new(iClient.session());
  if (iChannel == nullptr) {
    storeError(error, channelError());
    return false;
  }
  iCallbacks.userdata = this;
  iCallbacks.channel_data_function = dataArrived;
  ssh_callbacks_init(&iCallbacks);
  ssh_set_channel_callbacks(iChannel, &iCallbacks);
  ssh_set_counters(iClient.session(), &iSocketCounter, nullptr);
  auto result =
      iClient.drive(SSH_AGAIN, deadline, error, [this] { return ssh_channel_open_session(iChannel); });
  if (result && *result == SSH_OK) {
    result = iClient.drive(SSH_AGAIN, deadline, error, [this] { return ssh_channel_request_sftp(iChannel); });
  }
  if (!result) return false;
  if (*result != SSH_OK) {
    storeError(error, channelError());
    return false;
  }
  iEvent = ssh_event_new();
  if (iEvent != nullptr && ssh_event_add_session(iEvent, iClient.session()) == SSH_OK &&
      ssh_event_add_fd(iEvent, wakeUp().descriptor(), POLLIN, woken, nullptr) == SSH_OK) {
    return true;
  }
  storeError(error, channelError());
  return false;
}

NSErrorRef SSHTransport::Connection::channelError() const {
  if (!ssh_is_connected(iClient.session())) return iClient.lostError();
  const std::string words = iClient.lastWords();
  // RFC 4254: open failure 4 is "resource shortage"; OpenSSH tells its limit of sessions in words.
  const bool tooMany =
      words.find("error (4)") != std::string::npos || words.find("resource shortage") != std::string::npos;
  return QuarnKitError::errorWithCode(tooMany ? kQuarnKitTooManyConnections : kQuarnKitRefused,
                                      "no file transfer (SFTP) on this server: " + words);
}

int SSHTransport::Connection::dataArrived(ssh_session, ssh_channel, void* data, uint32_t length, int isError,
                                          void* self) {
  // What the server program prints as an error is not part of the protocol.
  if (isError == 0) static_cast<Connection*>(self)->arrived({static_cast<const std::byte*>(data), length});
  return static_cast<int>(length);
}

void SSHTransport::Connection::arrived(std::span<const std::byte> bytes) {
  iArrived += bytes.size();
  if (iReceiver != nullptr) {
    iReceiver->received(bytes);
  } else if (iEarly.size() < kMostEarlyBytes) {
    iEarly.insert(iEarly.end(), bytes.begin(), bytes.end());
  }
}

// libssh's own window is 1.2 MiB, less than a long fat line holds. A read grows it to what the read asks for,
// even one that returns at once because the callback has taken everything.
void SSHTransport::Connection::growWindow() {
  const bool isFirst = iWindowGrownAt == 0;
  if (iSpace.place() == nullptr || (!isFirst && iArrived - iWindowGrownAt < kWindow / 2)) return;
  iWindowGrownAt = std::max<uint64_t>(iArrived, 1);
  ssh_channel_read_timeout(iChannel, iSpace.place(), kWindow, 0, 0);
}

bool SSHTransport::Connection::turn(std::chrono::milliseconds limit) {
  return ssh_event_dopoll(iEvent, static_cast<int>(limit.count())) != SSH_ERROR && stands();
}

bool SSHTransport::Connection::stands() const {
  return ssh_channel_is_open(iChannel) && !ssh_channel_is_eof(iChannel) &&
         ssh_is_connected(iClient.session());
}

std::optional<SFTPTransport::Exchanged> SSHTransport::Connection::exchange(
    std::span<const std::byte> outgoing, std::chrono::milliseconds limit, Receiver& receiver,
    NSErrorRef* error) {
  iReceiver = &receiver;
  const uint64_t before = iArrived;
  const uint64_t sentBefore = iSocketCounter.out_bytes;
  if (!iEarly.empty()) receiver.received(std::exchange(iEarly, {}));
  bool isOpen = !wakeUp().isRaised() && stands();
  if (isOpen) growWindow();

  Exchanged exchanged;
  if (isOpen && !outgoing.empty()) {
    const auto length = static_cast<uint32_t>(std::min(outgoing.size(), kWritePerExchange));
    const int count = ssh_channel_write(iChannel, outgoing.data(), length);
    isOpen = count >= 0;
    exchanged.sent = count > 0 ? static_cast<size_t>(count) : 0;
  }
  const bool wasPending = (ssh_get_poll_flags(iClient.session()) & SSH_WRITE_PENDING) != 0;
  // The first turn waits unless something has moved; the others take what is there already.
  bool mayWait = exchanged.sent == 0 && iArrived == before;
  while (isOpen) {
    const uint64_t arrivedBefore = iSocketCounter.in_bytes;
    isOpen = turn(mayWait ? limit : std::chrono::milliseconds(0));
    mayWait = false;
    if (iSocketCounter.in_bytes == arrivedBefore || iArrived - before >= kBytesPerExchange) break;
  }
  iReceiver = nullptr;
  // Bytes that leave libssh's own queue are movement too: a slow line takes its time for them.
  exchanged.moved =
      exchanged.sent > 0 || iArrived != before || (wasPending && iSocketCounter.out_bytes != sentBefore);
  exchanged.isPending = (ssh_get_poll_flags(iClient.session()) & SSH_WRITE_PENDING) != 0;
  if (isOpen && !wakeUp().isRaised()) return exchanged;
  storeError(error, wakeUp().isRaised() ? QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "interrupted")
                                        : iClient.lostError());
  return std::nullopt;
}

SSHTransport::SSHTransport(const SessionEnvironment& environment)
    : iConnection(std::make_unique<Connection>(environment)) {}

SSHTransport::~SSHTransport() = default;

bool SSHTransport::open(NSErrorRef* error) { return iConnection->open(error); }

std::optional<SFTPTransport::Exchanged> SSHTransport::exchange(std::span<const std::byte> outgoing,
                                                               std::chrono::milliseconds limit,
                                                               Receiver& receiver, NSErrorRef* error) {
  return iConnection->exchange(outgoing, limit, receiver, error);
}

void SSHTransport::interrupt() { iConnection->wakeUp().raise(); }

}  // namespace ombra
