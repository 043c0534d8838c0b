// Data connections.
#include <utility>

#include "remote/ftp/FTPSession.h"

namespace ombra {

FTPPatience FTPSession::patienceFor(const Request& request) {
  return {std::chrono::milliseconds(0), request.control, kFTPConnectGrace};
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
  // The very first time nobody knows how the server hands out data connections: one that connects by itself
  // would do so for a command that came ahead.
  const bool isAhead = iServer->mayPipeline() && iServer->passive() != FTPServer::Passive::kUnknown;
  Begun begun;
  if (!isAhead && !request.before.empty()) {
    if (!askAll(request.before, &begun.before, error)) return std::nullopt;
    for (const FTPReply& reply : begun.before) {
      // Not even asked for then.
      if (request.needsBefore && !reply.isPositive()) return begun;
    }
  }
  const size_t asked = isAhead ? request.before.size() : 0;
  if (isAhead) {
    for (const std::string& command : request.before) iControl.queue(command);
  }
  iControl.queue(iServer->passive() == FTPServer::Passive::kPlain ? "PASV" : "EPSV");
  if (isAhead) {
    if (request.restart > 0) iControl.queue("REST " + std::to_string(request.restart));
    iControl.queue(request.command);
  }
  const bool isAgreed = iControl.flush(error) &&
                        readReplies(asked, patienceFor(request), &begun.before, error) &&
                        askForData(request, isAhead, &begun, error);
  if (isAgreed) return begun;
  // Whoever stops here leaves a server behind that waits for a data connection.
  if (iControl.failure() == nullptr && request.control != nullptr && request.control->shouldCancel()) {
    iControl.fail(QuarnKitError::errorWithCode(kQuarnKitConnectionLost, request.path));
    if (error != nullptr) *error = iControl.failure();
  }
  return std::nullopt;
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

bool FTPSession::askForData(const Request& request, bool isAhead, Begun* begun, NSErrorRef* error) {
  auto transfer = std::make_unique<FTPTransfer>(surroundings(), request.path, request.operation,
                                                request.control, request.restart > 0);
  const std::optional<int> port = portOfData(request, isAhead, error);
  if (!port) return false;
  if (!transfer->open(*port, error)) return false;
  if (!isAhead) {
    if (request.restart > 0) iControl.queue("REST " + std::to_string(request.restart));
    iControl.queue(request.command);
    if (!iControl.flush(error)) return false;
  }
  if (request.restart > 0) {
    const auto reply = iControl.nextFinal(patienceFor(request), error);
    if (!reply) return false;
    if (reply->isRefusal()) {
      storeError(error, errorForFTPReply(*reply, FTPOperation::kOther, request.path));
      // What follows would come from the beginning: it is called off.
      (void)transfer->connect(nullptr);
      return false;
    }
  }
  begun->transfer = std::move(transfer);
  return true;
}

}  // namespace ombra
