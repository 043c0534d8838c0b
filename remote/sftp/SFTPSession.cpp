#include "remote/sftp/SFTPSession.h"

#include "remote/RemotePaths.h"
#include "remote/sftp/SFTPProtocol.h"

namespace ombra {

SFTPSession::SFTPSession(std::unique_ptr<SFTPTransport> transport, const SessionEnvironment& environment,
                         std::shared_ptr<Walks> walks)
    : iChannel(std::move(transport), environment.transcript, environment.connectLimit, environment.idleLimit),
      iRequests(iChannel),
      iWalks(std::move(walks)),
      iAhead(iChannel, iRequests, iWalks) {}

bool SFTPSession::logIn(NSErrorRef* error) {
  if (!iChannel.open(error)) return false;
  const bool hasLimits = iChannel.hasExtension("limits@openssh.com", "1");
  const uint32_t limitsID = hasLimits ? iRequests.limits() : 0;
  const uint32_t pathID = iRequests.realpath(".");
  if (hasLimits) {
    auto reply = iChannel.wait(limitsID, error);
    if (!reply) return false;
    // Announced and then refused: the defaults do.
    if (const auto limits = parseSFTPLimits(*reply)) iChannel.setLimits(*limits);
    iChannel.recycle(std::move(*reply));
  }
  const auto path = waitName(pathID, ".", error);
  if (!path) return false;
  iLoginPath = normalRemotePath(*path);
  iChannel.endLogin();
  return true;
}

bool SFTPSession::isAlive() {
  if (!iChannel.pump(std::chrono::milliseconds(0), nullptr)) return false;
  if (iUpload != nullptr) iChannel.lend();
  return true;
}

bool SFTPSession::isUsablePath(std::string_view path, NSErrorRef* error) {
  iMadeFolder.reset();
  if (!path.empty() && path.size() <= kMaximumPathLength && path.find('\0') == std::string_view::npos)
    return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitNameInvalid,
                                                 path.substr(0, path.find('\0')).substr(0, 256)));
  return false;
}

void SFTPSession::refuse(const SFTPReply& reply, SFTPOperation operation, std::string_view path,
                         NSErrorRef* error) {
  const auto status = parseSFTPStatus(reply);
  const bool isRefusal = status && status->code != kSFTPStatusOK;
  storeError(error, isRefusal ? errorForSFTPStatus(*status, operation, path)
                              : sftpProtocolError("a reply of the wrong kind"));
}

bool SFTPSession::waitStatus(uint32_t id, SFTPOperation operation, std::string_view path, NSErrorRef* error) {
  return settleStatus(iChannel.wait(id, error), operation, path, error);
}

bool SFTPSession::waitStatusPatiently(uint32_t id, SFTPOperation operation, std::string_view path,
                                      NSErrorRef* error) {
  return settleStatus(iChannel.waitPatiently(id, error), operation, path, error);
}

bool SFTPSession::settleStatus(std::optional<SFTPReply> reply, SFTPOperation operation, std::string_view path,
                               NSErrorRef* error) {
  if (!reply) return false;
  const auto status = parseSFTPStatus(*reply);
  iChannel.recycle(std::move(*reply));
  if (!status) {
    storeError(error, sftpProtocolError("no status where one was due"));
    return false;
  }
  if (status->code == kSFTPStatusOK) return true;
  storeError(error, errorForSFTPStatus(*status, operation, path));
  return false;
}

std::optional<std::string> SFTPSession::waitHandle(uint32_t id, SFTPOperation operation,
                                                   std::string_view path, NSErrorRef* error) {
  auto reply = iChannel.wait(id, error);
  if (!reply) return std::nullopt;
  auto handle = parseSFTPHandle(*reply);
  if (!handle) refuse(*reply, operation, path, error);
  iChannel.recycle(std::move(*reply));
  return handle;
}

std::optional<SFTPAttributes> SFTPSession::waitAttributes(uint32_t id, SFTPOperation operation,
                                                          std::string_view path, NSErrorRef* error) {
  auto reply = iChannel.wait(id, error);
  if (!reply) return std::nullopt;
  auto attributes = parseSFTPAttributes(*reply);
  if (!attributes) refuse(*reply, operation, path, error);
  iChannel.recycle(std::move(*reply));
  return attributes;
}

std::optional<std::string> SFTPSession::waitName(uint32_t id, std::string_view path, NSErrorRef* error) {
  auto reply = iChannel.wait(id, error);
  if (!reply) return std::nullopt;
  const auto names = parseSFTPNames(*reply);
  std::optional<std::string> name;
  if (names && !names->empty() && names->front().filename.find('\0') == std::string::npos) {
    name = names->front().filename;
  } else {
    refuse(*reply, SFTPOperation::kOther, path, error);
  }
  iChannel.recycle(std::move(*reply));
  return name;
}

std::optional<SFTPAttributes> SFTPSession::lookAt(std::string_view path) {
  return waitAttributes(iRequests.lstat(path), SFTPOperation::kOther, path, nullptr);
}

}  // namespace ombra
