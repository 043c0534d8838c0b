#include "remote/ftp/FTPControl.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <utility>

#include "remote/TranscriptText.h"
#include "remote/VerboseTranscript.h"
#include "remote/ftp/FTPErrors.h"
#include "remote/net/TCPConnector.h"

namespace ombra {

namespace {

using ControlClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kCancelTick{100};
constexpr size_t kReceiveSize = 16 * 1024;

// Replies to what was sent together come one by one. A server that gathers small pieces (Nagle's algorithm)
// waits for our word on each of them, which the kernel would hold back for 40 ms.
void acknowledge(int socket) {
  const int one = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof(one));
}

}  // namespace

FTPControl::FTPControl(const SessionEnvironment& environment, const WakeUp& wakeUp)
    : iEnvironment(environment), iWakeUp(wakeUp) {}

void FTPControl::fail(NSErrorRef error) {
  if (iFailure == nullptr) iFailure = std::move(error);
}

bool FTPControl::report(NSErrorRef* error) const {
  storeError(error, iFailure);
  return false;
}

bool FTPControl::connect(const std::string& host, int port, NSErrorRef* error) {
  iBegin = ControlClock::now();
  const int socket = connectTCP(host, port, iBegin + iEnvironment.connectLimit, iWakeUp, error);
  if (socket < 0) return false;
  iStream = std::make_unique<FTPStream>(socket);
  iLastTraffic = ControlClock::now();
  return true;
}

bool FTPControl::startTLS(FTPEncryption& encryption, NSErrorRef* error) {
  SSLHandle tls = encryption.forControl(iStream->descriptor());
  // What came in the clear after the agreement was put there by somebody on the way.
  if (!pump() || iEnd || !iParser.isEmpty() || tls == nullptr) {
    fail(ftpProtocolError("the server went on in the clear after it had agreed to encrypt"));
    return report(error);
  }
  iStream->encrypt(std::move(tls));
  while (true) {
    const FTPStream::Outcome outcome = iStream->handshake();
    if (outcome == FTPStream::Outcome::kDone) break;
    if (outcome == FTPStream::Outcome::kWait) {
      if (!wait(iStream->events(), ControlClock::now(), {}, error)) return false;
      continue;
    }
    NSErrorRef refusal = encryption.refusal();
    fail(refusal != nullptr
             ? std::move(refusal)
             : QuarnKitError::errorWithCode(kQuarnKitCouldNotConnect,
                                            "no encrypted connection came about: " + iStream->problem()));
    return report(error);
  }
  encryption.noteControl(iStream->tls());
  if (isTranscriptVerbose(iEnvironment)) {
    appendRemark(*iEnvironment.transcript, std::string("encrypted with ") + SSL_get_version(iStream->tls()) +
                                               ", " + SSL_get_cipher_name(iStream->tls()));
  }
  return true;
}

std::string FTPControl::masked(std::string_view text) const {
  std::string result(text);
  if (!iIsLoggingIn || iSecret.empty()) return result;
  constexpr std::string_view kMask = "********";
  for (size_t at = result.find(iSecret); at != std::string::npos;
       at = result.find(iSecret, at + kMask.size())) {
    result.replace(at, iSecret.size(), kMask);
  }
  return result;
}

void FTPControl::queue(std::string_view command, std::string_view shown) {
  iOutgoing.append(command).append("\r\n");
  iExpected.push_back(Fate::kWanted);
  if (!iEnvironment.transcript->isEnabled()) return;
  iEnvironment.transcript->append(visibleText(masked(shown.empty() ? command : shown)) + "\n", true);
}

void FTPControl::abandon() {
  std::replace(iExpected.begin(), iExpected.end(), Fate::kWanted, Fate::kAbandoned);
}

void FTPControl::queueAhead(std::string_view command) {
  queue(command);
  iExpected.back() = Fate::kPutAside;
}

bool FTPControl::isAskedAhead() const {
  return iAhead || std::find(iExpected.begin(), iExpected.end(), Fate::kPutAside) != iExpected.end();
}

std::optional<FTPReply> FTPControl::takeAhead() { return std::exchange(iAhead, std::nullopt); }

void FTPControl::callForAhead() {
  std::replace(iExpected.begin(), iExpected.end(), Fate::kPutAside, Fate::kWanted);
}

void FTPControl::tell(const FTPReply& reply) {
  if (!iEnvironment.transcript->isEnabled()) return;
  std::string text;
  for (size_t i = 0; i < reply.lines.size(); ++i) {
    const bool isLast = i + 1 == reply.lines.size();
    text += std::to_string(reply.code) + (isLast ? " " : "-") + visibleText(masked(reply.lines[i])) + "\n";
  }
  iEnvironment.transcript->append(text, false);
}

ControlClock::time_point FTPControl::limit(ControlClock::time_point begin,
                                           const FTPPatience& patience) const {
  if (iIsLoggingIn) return iBegin + iEnvironment.connectLimit;
  const auto silence = patience.silence.count() > 0 ? patience.silence : iEnvironment.idleLimit;
  return std::max(begin, iLastTraffic) + silence;
}

bool FTPControl::wait(short events, ControlClock::time_point begin, const FTPPatience& patience,
                      NSErrorRef* error) {
  while (true) {
    const bool mustStop = patience.control != nullptr && patience.control->shouldCancel();
    if (mustStop && ControlClock::now() >= begin + patience.grace) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitCancelled));
      return false;
    }
    const auto end = limit(begin, patience);
    const auto now = ControlClock::now();
    if (iWakeUp.isRaised()) {
      fail(QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "the session was given up"));
      return report(error);
    }
    if (now >= end) {
      fail(QuarnKitError::errorWithCode(kQuarnKitTimedOut));
      return report(error);
    }
    auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
    if (patience.control != nullptr) left = std::min(left, kCancelTick);
    pollfd fds[2] = {{iStream->descriptor(), events, 0}, {iWakeUp.descriptor(), POLLIN, 0}};
    const int ready = poll(fds, 2, static_cast<int>(left.count()));
    if (ready > 0 && fds[0].revents != 0) return true;
  }
}

bool FTPControl::flush(NSErrorRef* error) {
  if (iFailure != nullptr) return report(error);
  const auto begin = ControlClock::now();
  while (!iOutgoing.empty()) {
    size_t count = 0;
    switch (iStream->send(iOutgoing.data(), iOutgoing.size(), &count)) {
      case FTPStream::Outcome::kDone:
        iOutgoing.erase(0, count);
        iLastTraffic = ControlClock::now();
        break;
      case FTPStream::Outcome::kWait:
        if (!wait(iStream->events(), begin, {}, error)) return false;
        break;
      default:
        fail(QuarnKitError::errorWithCode(kQuarnKitConnectionLost, iStream->problem()));
        return report(error);
    }
  }
  return true;
}

bool FTPControl::pump() {
  (void)takeIn();
  return iFailure == nullptr;
}

bool FTPControl::takeIn() {
  if (iFailure != nullptr || iEnd) return false;
  // One piece at a time is all that TLS may hold back, and keeps the parser's bound.
  std::array<char, kReceiveSize> buffer{};
  size_t count = 0;
  switch (iStream->receive(buffer.data(), buffer.size(), &count)) {
    case FTPStream::Outcome::kDone:
      iParser.add({buffer.data(), count});
      iHasUnread = true;
      iLastTraffic = ControlClock::now();
      acknowledge(iStream->descriptor());
      return true;
    case FTPStream::Outcome::kWait:
      return false;
    default:
      iEnd = iStream->problem().empty() ? "the server closed it" : iStream->problem();
      return true;
  }
}

std::optional<FTPReply> FTPControl::tryNext() {
  while (iFailure == nullptr) {
    std::optional<FTPReply> reply = iParser.next();
    if (iParser.isBroken()) fail(ftpProtocolError("what came over the control connection is no reply"));
    if (!reply) {
      iHasUnread = false;
      // What had come before the end was read first.
      if (iEnd) fail(QuarnKitError::errorWithCode(kQuarnKitConnectionLost, *iEnd));
      return std::nullopt;
    }
    // Nothing behind it that would have to be looked at before the next wait.
    if (iParser.isEmpty()) iHasUnread = false;
    tell(*reply);
    if (reply->code == 421 && !iIsLoggingIn) {
      fail(QuarnKitError::errorWithCode(kQuarnKitConnectionLost, reply->description()));
      return std::nullopt;
    }
    // Nobody asked. Servers announce things so, which are of no use here.
    if (iExpected.empty()) continue;
    const Fate fate = iExpected.front();
    if (!reply->isPreliminary()) {
      iExpected.pop_front();
      if (fate == Fate::kPutAside) iAhead = std::move(reply);
    }
    if (fate == Fate::kWanted) return reply;
  }
  return std::nullopt;
}

std::optional<FTPReply> FTPControl::next(const FTPPatience& patience, NSErrorRef* error) {
  const auto begin = ControlClock::now();
  while (true) {
    if (std::optional<FTPReply> reply = tryNext()) return reply;
    if (iFailure != nullptr) {
      report(error);
      return std::nullopt;
    }
    if (!wait(POLLIN, begin, patience, error)) return std::nullopt;
    (void)pump();
  }
}

std::optional<FTPReply> FTPControl::nextFinal(const FTPPatience& patience, NSErrorRef* error) {
  // Each byte starts the count of silence again: who only ever promises is found out by number.
  constexpr int kMostPromises = 1000;
  for (int i = 0; i < kMostPromises; ++i) {
    std::optional<FTPReply> reply = next(patience, error);
    if (!reply || !reply->isPreliminary()) return reply;
  }
  fail(ftpProtocolError("no end of preliminary replies"));
  report(error);
  return std::nullopt;
}

std::optional<FTPReply> FTPControl::ask(std::string_view command, NSErrorRef* error,
                                        const FTPPatience& patience) {
  queue(command);
  if (!flush(error)) return std::nullopt;
  return nextFinal(patience, error);
}

void FTPControl::sayGoodbye() {
  if (iStream == nullptr || iFailure != nullptr || iWakeUp.isRaised()) return;
  queue("QUIT");
  size_t count = 0;
  if (iStream->send(iOutgoing.data(), iOutgoing.size(), &count) != FTPStream::Outcome::kDone) return;
  (void)iStream->endSending();
}

}  // namespace ombra
