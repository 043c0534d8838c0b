// Data connections.
#include <utility>

#include "remote/ftp/FTPSession.h"

namespace ombra {

namespace {
// Servers and what stands before them forget a port that nobody connects to, the most impatient after half a
// minute.
constexpr std::chrono::seconds kPortKeeps{15};
}  // namespace

FTPPatience FTPSession::patienceFor(const Request& request) {
  return {std::chrono::milliseconds(0), request.control, kFTPConnectGrace};
}

const char* FTPSession::passiveCommand() const {
  return iServer->passive() == FTPServer::Passive::kPlain ? "PASV" : "EPSV";
}

std::optional<FTPSession::Begun> FTPSession::begin(const Request& request, NSErrorRef* error) {
  // Found out now, nothing is lost; the server would refuse the data connection when it is made.
  if (iEncryption != nullptr && iEncryption->isStale()) {
    iControl.fail(QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "its TLS session is too old"));
    storeError(error, iControl.failure());
    return std::nullopt;
  }
  if (request.control != nullptr && request.control->shouldCancel()) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitCancelled, request.path));
    return std::nullopt;
  }
  iIsInWalk = iServer->noteTransfer(std::chrono::steady_clock::now());
  Begun begun;
  begun.transfer = std::make_unique<FTPTransfer>(surroundings(), request.path, request.operation,
                                                 request.control, request.restart > 0);
  // The very first time nobody knows how the server hands out data connections: one that connects by itself
  // would do so for a command that came ahead.
  const bool isAhead = iServer->mayPipeline() && iServer->passive() != FTPServer::Passive::kUnknown;
  auto result =
      isAhead ? beginAhead(request, std::move(begun), error) : beginInSteps(request, std::move(begun), error);
  // Whoever stops here leaves a server behind that waits for a data connection.
  const bool isStopped = !result && request.control != nullptr && request.control->shouldCancel();
  if (isStopped && iControl.failure() == nullptr) {
    iControl.fail(QuarnKitError::errorWithCode(kQuarnKitConnectionLost, request.path));
    if (error != nullptr) *error = iControl.failure();
  }
  return result;
}

std::optional<FTPSession::Begun> FTPSession::beginInSteps(const Request& request, Begun begun,
                                                          NSErrorRef* error) {
  // Only the command itself must not come ahead.
  const bool isTogether = iServer->mayPipeline();
  if (isTogether) {
    for (const std::string& command : request.before) iControl.queue(command);
    iControl.queue(passiveCommand());
    if (!iControl.flush(error)) return std::nullopt;
    if (!readReplies(request.before.size(), patienceFor(request), &begun.before, error)) return std::nullopt;
  } else if (!askAll(request.before, &begun.before, error)) {
    return std::nullopt;
  }
  for (const FTPReply& reply : begun.before) {
    if (!request.needsBefore || reply.isPositive()) continue;
    iControl.abandon();
    begun.transfer.reset();
    return begun;
  }
  if (!isTogether) iControl.queue(passiveCommand());
  if (!iControl.flush(error) || !openPort(request, false, *begun.transfer, error)) return std::nullopt;
  if (request.restart > 0) iControl.queue("REST " + std::to_string(request.restart));
  iControl.queue(request.command);
  if (!iControl.flush(error) || !restartAccepted(request, *begun.transfer, error)) return std::nullopt;
  return begun;
}

std::optional<FTPSession::Begun> FTPSession::beginAhead(const Request& request, Begun begun,
                                                        NSErrorRef* error) {
  begun.portIsAhead = usePortAhead(*begun.transfer);
  sendAhead(request, !begun.portIsAhead);
  if (!iControl.flush(error)) return std::nullopt;
  const bool mustOpen = !begun.transfer->isOpening();
  if (begun.portIsAhead && mustOpen && !openPort(request, true, *begun.transfer, error)) {
    const bool isStopped = request.control != nullptr && request.control->shouldCancel();
    if (iControl.failure() != nullptr || isStopped) return std::nullopt;
    // It would not be asked ahead, but may serve whoever asks when it is time.
    iServer->stopAskingAhead();
    begun.transfer.reset();
    return begin(request, error);
  }
  if (!readReplies(request.before.size(), patienceFor(request), &begun.before, error)) return std::nullopt;
  const bool isOpen = !mustOpen || begun.portIsAhead || openPort(request, true, *begun.transfer, error);
  if (!isOpen || !restartAccepted(request, *begun.transfer, error)) return std::nullopt;
  return begun;
}

bool FTPSession::usePortAhead(FTPTransfer& transfer) {
  if (!iControl.isAskedAhead()) return false;
  // Nothing but abandoned replies can come before it, nor behind it. Mostly it came with the end of the last
  // transfer.
  (void)iControl.tryNext();
  auto reply = iControl.takeAhead();
  if (!reply) {
    (void)iControl.pump();
    (void)iControl.tryNext();
    reply = iControl.takeAhead();
  }
  if (reply) {
    if (std::chrono::steady_clock::now() - iPortDate > kPortKeeps) return false;
    const bool isExtended = iServer->passive() == FTPServer::Passive::kExtended;
    const auto port = isExtended ? portOfExtendedPassive(reply->text()) : portOfPassive(reply->text());
    if (reply->isPositive() && port && transfer.tryOpen(*port)) return true;
    iServer->stopAskingAhead();
    return false;
  }
  // On its way: what is asked for now is answered behind it.
  iControl.callForAhead();
  return iControl.failure() == nullptr;
}

void FTPSession::sendAhead(const Request& request, bool asksForPort) {
  for (const std::string& command : request.before) iControl.queue(command);
  if (asksForPort) iControl.queue(passiveCommand());
  if (request.restart > 0) iControl.queue("REST " + std::to_string(request.restart));
  iControl.queue(request.command);
  if (!mayAskForPort() || !iServer->readsBetweenTransfers()) return;
  iControl.queueAhead(passiveCommand());
  iPortDate = std::chrono::steady_clock::now();
}

std::optional<int> FTPSession::portOfData(const Request& request, bool isAhead, NSErrorRef* error) {
  const bool isPlain = iServer->passive() == FTPServer::Passive::kPlain;
  auto reply = iControl.nextFinal(patienceFor(request), error);
  if (!reply) {
    iControl.abandon();
    return std::nullopt;
  }
  bool isExtended = !isPlain;
  if (reply->isRefusal() && !isPlain && !isAhead) {
    reply = iControl.ask("PASV", error, patienceFor(request));
    if (!reply) {
      iControl.abandon();
      return std::nullopt;
    }
    isExtended = false;
  }
  if (reply->isRefusal()) {
    storeError(error, errorForFTPReply(*reply, FTPOperation::kOther, request.path));
    // The transfer that was sent along has nowhere to go: it is refused too.
    iControl.abandon();
    return std::nullopt;
  }
  const std::optional<int> port =
      isExtended ? portOfExtendedPassive(reply->text()) : portOfPassive(reply->text());
  if (!port) {
    iControl.fail(ftpProtocolError("no port for the data: " + reply->description()));
    storeError(error, iControl.failure());
    return std::nullopt;
  }
  if (!isAhead) iServer->setPassive(isExtended ? FTPServer::Passive::kExtended : FTPServer::Passive::kPlain);
  return port;
}

bool FTPSession::openPort(const Request& request, bool isAhead, FTPTransfer& transfer, NSErrorRef* error) {
  const std::optional<int> port = portOfData(request, isAhead, error);
  return port && transfer.open(*port, error);
}

bool FTPSession::restartAccepted(const Request& request, FTPTransfer& transfer, NSErrorRef* error) {
  if (request.restart == 0) return true;
  const auto reply = iControl.nextFinal(patienceFor(request), error);
  if (!reply) return false;
  if (!reply->isRefusal()) return true;
  storeError(error, errorForFTPReply(*reply, FTPOperation::kOther, request.path));
  // What follows would come from the beginning: it is called off.
  (void)transfer.establish(nullptr);
  return false;
}

bool FTPSession::mayAskForPort() const {
  return iIsInWalk && iServer->keepsPorts() && iServer->mayPipeline() && !iControl.isAskedAhead();
}

bool FTPSession::hasLostPort(const std::optional<Begun>& begun) {
  if (!begun || !begun->portIsAhead || begun->transfer == nullptr) return false;
  const auto& reply = begun->transfer->reply();
  const bool isRefused =
      reply && (reply->code == 425 || (reply->code == 503 && !begun->transfer->hasStarted()));
  // Or it says nothing, since it waits for somebody to connect elsewhere.
  if (isRefused || iControl.failure() != nullptr) iServer->stopAskingAhead();
  return isRefused && iControl.failure() == nullptr;
}

bool FTPSession::carryOut(const Request& request, const Work& work, NSErrorRef* error) {
  while (true) {
    NSErrorRef reason;
    std::optional<Begun> begun = begin(request, &reason);
    if (begun && work(*begun, &reason)) return true;
    // It happens once: from here on the port is asked for when it is needed.
    const bool isLost = hasLostPort(begun);
    const bool mayRepeat = isLost && (request.startsAgain || !begun->transfer->hasStarted());
    // Calls off what it has left in the conversation, before anything else is said.
    begun.reset();
    if (!mayRepeat) {
      storeError(error, std::move(reason));
      return false;
    }
    if (!request.makes.empty()) dropTemporary(request.makes);
  }
}

bool FTPSession::finish(FTPTransfer& transfer, NSErrorRef* error) {
  if (!transfer.finish(error)) return false;
  // What was asked for with the transfer is answered by now.
  iPortDate = std::chrono::steady_clock::now();
  iPortIsDue = mayAskForPort();
  return true;
}

void FTPSession::askForPort() {
  if (!std::exchange(iPortIsDue, false) || !mayAskForPort()) return;
  iControl.queueAhead(passiveCommand());
  (void)iControl.flush(nullptr);
}

}  // namespace ombra
