#include "remote/ftp/FTPTransfer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace ombra {

namespace {

using TransferClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kTransferTick{100};
// Servers write a large file to its disk, or scan it, before they say that it is there.
constexpr int kPatienceForLastWord = 10;

// The server's own address: data never go, nor come from, anywhere else.
int connectToPeer(int control, int port) {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  if (getpeername(control, reinterpret_cast<sockaddr*>(&address), &length) != 0) return -1;
  if (address.ss_family == AF_INET6) {
    reinterpret_cast<sockaddr_in6*>(&address)->sin6_port = htons(static_cast<uint16_t>(port));
  } else {
    reinterpret_cast<sockaddr_in*>(&address)->sin_port = htons(static_cast<uint16_t>(port));
  }
  const int socket = ::socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket < 0) return -1;
  const int one = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  if (::connect(socket, reinterpret_cast<sockaddr*>(&address), length) == 0 || errno == EINPROGRESS)
    return socket;
  const int number = errno;
  FTPStream closer(socket);
  errno = number;
  return -1;
}

}  // namespace

FTPTransfer::FTPTransfer(const FTPSurroundings& surroundings, std::string path, FTPOperation operation,
                         TransferControl* control, bool restarts)
    : iSurroundings(surroundings),
      iPath(std::move(path)),
      iOperation(operation),
      iControl(control),
      iRestarts(restarts) {}

FTPTransfer::~FTPTransfer() {
  if (iState == State::kFinished && (!iRestarts || iHasStarted)) return;
  FTPControl& control = iSurroundings.control;
  if (iStream != nullptr && iState != State::kFinished) iStream->breakOff();
  if (control.failure() != nullptr) return;
  // One that is cut short while it agrees on encryption ends the whole session of some servers.
  const bool isWaitedFor = iState == State::kConnecting || iState == State::kHandshake;
  if (isWaitedFor && iStream != nullptr && !iFinal) {
    control.fail(
        QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "the server waits for a data connection"));
    return;
  }
  // A REST whose command was refused waits for the next command that moves a file.
  if (iRestarts) {
    control.queue("REST 0");
    (void)control.flush(nullptr);
  }
  control.abandon();
}

bool FTPTransfer::failControl(QuarnKitErrorCode code, const std::string& why, NSErrorRef* error) {
  iSurroundings.control.fail(QuarnKitError::errorWithCode(code, why));
  storeError(error, iSurroundings.control.failure());
  return false;
}

bool FTPTransfer::tryOpen(int port) {
  const int socket = connectToPeer(iSurroundings.control.descriptor(), port);
  if (socket < 0) return false;
  iStream = std::make_unique<FTPStream>(socket);
  return true;
}

bool FTPTransfer::open(int port, NSErrorRef* error) {
  return tryOpen(port) || failControl(kQuarnKitConnectionLost,
                                      std::string("no data connection: ") + std::strerror(errno), error);
}

bool FTPTransfer::isCancelled(NSErrorRef* error) {
  if (iControl == nullptr || !iControl->shouldCancel()) return false;
  if (iState == State::kConnecting) {
    if (TransferClock::now() < iBegin + kFTPConnectGrace) return false;
    return !failControl(kQuarnKitConnectionLost, "no data connection came about in time", error);
  }
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitCancelled, iPath));
  return true;
}

TransferClock::time_point FTPTransfer::limit() const {
  if (iState == State::kConnecting) return iBegin + iSurroundings.environment.connectLimit;
  return std::max(iLastTraffic, iSurroundings.control.lastTraffic()) + iSurroundings.environment.idleLimit;
}

bool FTPTransfer::takeReplies(NSErrorRef* error) {
  FTPControl& control = iSurroundings.control;
  while (!iFinal) {
    std::optional<FTPReply> reply = control.tryNext();
    if (!reply) break;
    iHasStarted = iHasStarted || !reply->isRefusal();
    if (reply->isPreliminary()) continue;
    iFinal = std::move(reply);
  }
  if (control.failure() != nullptr) {
    storeError(error, control.failure());
    return false;
  }
  if (!iFinal || !iFinal->isRefusal()) return true;
  storeError(error, errorForFTPReply(*iFinal, iOperation, iPath));
  return false;
}

bool FTPTransfer::waitForData(NSErrorRef* error) {
  do {
    if (!wait(iStream->events(), error)) return false;
  } while (!iIsReady);
  return true;
}

bool FTPTransfer::wait(short events, NSErrorRef* error) {
  iIsReady = false;
  if (isCancelled(error)) return false;
  if (iSurroundings.wakeUp.isRaised()) {
    return failControl(kQuarnKitConnectionLost, "the session was given up", error);
  }
  const auto now = TransferClock::now();
  const auto end = limit();
  if (now >= end) {
    const bool isConnecting = iState == State::kConnecting;
    return failControl(isConnecting ? kQuarnKitConnectionLost : kQuarnKitTimedOut,
                       isConnecting ? "no data connection came about" : iPath, error);
  }
  // Replies may have come along with those that were read before: they are in no poll any more.
  const bool isWaitingForReply = !iFinal;
  const auto left = std::min(std::chrono::ceil<std::chrono::milliseconds>(end - now), kTransferTick);
  pollfd fds[3] = {{events != 0 ? iStream->descriptor() : -1, events, 0},
                   {iSurroundings.wakeUp.descriptor(), POLLIN, 0},
                   {isWaitingForReply ? iSurroundings.control.descriptor() : -1, POLLIN, 0}};
  const bool isUnread = isWaitingForReply && iSurroundings.control.hasUnread();
  const int ready = poll(fds, 3, isUnread ? 0 : static_cast<int>(left.count()));
  // Data first: what came before a bad end is worth having.
  iIsReady = ready > 0 && fds[0].revents != 0;
  if (iIsReady) return true;
  if (fds[2].revents != 0) (void)iSurroundings.control.pump();
  return !isWaitingForReply || takeReplies(error);
}

bool FTPTransfer::checkConnect(NSErrorRef* error) {
  pollfd fd{iStream->descriptor(), POLLOUT, 0};
  if (poll(&fd, 1, 0) <= 0) return wait(POLLOUT, error);
  int number = 0;
  socklen_t length = sizeof(number);
  getsockopt(iStream->descriptor(), SOL_SOCKET, SO_ERROR, &number, &length);
  // A server that refuses what was sent ahead closes its port at once.
  if (number != 0) return explainBreak(std::string("no data connection: ") + std::strerror(number), error);
  touch();
  iState = State::kOpen;
  if (iSurroundings.encryption == nullptr) return true;
  SSLHandle tls = iSurroundings.encryption->forData(iStream->descriptor());
  if (tls == nullptr) return failControl(kQuarnKitConnectionLost, "no encryption of the data", error);
  iStream->encrypt(std::move(tls));
  iState = State::kHandshake;
  return true;
}

bool FTPTransfer::goOn(Outcome outcome, NSErrorRef* error) {
  if (outcome == Outcome::kWait) return waitForData(error);
  if (outcome != Outcome::kDone) return explainBreak(iStream->problem(), error);
  touch();
  return true;
}

bool FTPTransfer::establish(NSErrorRef* error) {
  while (iState == State::kConnecting) {
    if (!checkConnect(error)) return false;
  }
  while (iState == State::kHandshake) {
    const Outcome outcome = iStream->handshake();
    if (!goOn(outcome, error)) return false;
    if (outcome == Outcome::kDone) iState = State::kOpen;
  }
  return true;
}

bool FTPTransfer::start(NSErrorRef* error) {
  if (!establish(error)) return false;
  // Nothing of the data connection is waited for: neither side has sent anything.
  while (!iHasStarted) {
    if (!wait(0, error)) return false;
  }
  return true;
}

bool FTPTransfer::explainBreak(const std::string& problem, NSErrorRef* error) {
  iStream->breakOff();
  // The server notices too, and says what it makes of it.
  constexpr std::chrono::milliseconds kMoment{3000};
  while (!iFinal) {
    const auto reply =
        iSurroundings.control.next({std::min(kMoment, iSurroundings.environment.idleLimit), iControl}, error);
    if (!reply) return false;
    if (!reply->isPreliminary()) iFinal = reply;
  }
  iState = State::kFinished;
  if (iFinal->isRefusal()) {
    storeError(error, errorForFTPReply(*iFinal, iOperation, iPath));
  } else {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitConnectionLost, iPath + ": " + problem));
  }
  return false;
}

bool FTPTransfer::receive(void* buffer, size_t capacity, size_t* count, NSErrorRef* error) {
  *count = 0;
  if (isCancelled(error) || !establish(error)) return false;
  auto* bytes = static_cast<std::byte*>(buffer);
  while (!iEndWasSeen && *count < capacity) {
    size_t received = 0;
    switch (iStream->receive(bytes + *count, capacity - *count, &received)) {
      case Outcome::kDone:
        *count += received;
        break;
      case Outcome::kEnd:
        iEndWasSeen = true;
        break;
      case Outcome::kWait:
        if (*count > 0) {
          touch();
          return true;
        }
        if (!waitForData(error)) return false;
        break;
      case Outcome::kFailed:
        // What arrived is told first; the next call meets the failure again.
        return *count > 0 || explainBreak(iStream->problem(), error);
    }
  }
  touch();
  return true;
}

bool FTPTransfer::send(const void* bytes, size_t length, NSErrorRef* error) {
  if (isCancelled(error) || !establish(error)) return false;
  const auto* at = static_cast<const std::byte*>(bytes);
  while (length > 0) {
    size_t sent = 0;
    if (!goOn(iStream->send(at, length, &sent), error)) return false;
    at += sent;
    length -= sent;
  }
  return true;
}

bool FTPTransfer::finish(NSErrorRef* error) {
  // An empty file is told by a data connection that nothing comes over; and some servers that have sent all
  // wait until our direction is closed too, before they say so.
  if (!establish(error)) return false;
  while (iStream->endSending() == Outcome::kWait) {
    if (!wait(iStream->events(), error)) return false;
  }
  iState = State::kEnded;
  const FTPPatience patience{iSurroundings.environment.idleLimit * kPatienceForLastWord, iControl};
  while (!iFinal) {
    std::optional<FTPReply> reply = iSurroundings.control.next(patience, error);
    if (!reply) return false;
    iHasStarted = iHasStarted || !reply->isRefusal();
    if (!reply->isPreliminary()) iFinal = std::move(reply);
    // What the other side still says (sessions for later) is taken in: closing over it would reset what was
    // sent.
    std::array<char, 4096> rest{};
    size_t count = 0;
    while (!iEndWasSeen && iStream->receive(rest.data(), rest.size(), &count) == Outcome::kDone) {
    }
  }
  iState = State::kFinished;
  if (iFinal->isPositive()) return true;
  storeError(error, iFinal->isRefusal() ? errorForFTPReply(*iFinal, iOperation, iPath)
                                        : ftpProtocolError(iFinal->description()));
  return false;
}

}  // namespace ombra
