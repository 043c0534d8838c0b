#include "remote/ftp/FTPSession.h"

#include <algorithm>
#include <utility>

#include "remote/NameEncoding.h"
#include "remote/RemotePaths.h"
#include "remote/ftp/FTPText.h"
#include "remote/net/HostOfAddress.h"

namespace ombra {

namespace {

constexpr int kPortOfFTP = 21;
constexpr int kPortOfImplicitTLS = 990;
// As long as a path may be on any system; servers cut commands off somewhere above.
constexpr size_t kMaximumFTPPath = 8192;
// A session that is asked whether it is alive has a few replies before it; a server that talks on has no end.
constexpr int kMostUnreadPieces = 64;

bool isOneLine(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

}  // namespace

FTPSession::FTPSession(const SessionEnvironment& environment, std::shared_ptr<FTPServer> server)
    : iEnvironment(environment),
      iServer(std::move(server)),
      iHost(hostOfAddress(environment.credentials->address())),
      iControl(iEnvironment, iWakeUp) {
  if (environment.credentials->protocol() != kProtocolFTP) {
    iEncryption = std::make_unique<FTPEncryption>(iEnvironment, iHost);
  }
}

FTPSession::~FTPSession() { iControl.sayGoodbye(); }

FTPSurroundings FTPSession::surroundings() { return {iControl, iEncryption.get(), iWakeUp, iEnvironment}; }

bool FTPSession::logIn(NSErrorRef* error) {
  const KCCredentials& credentials = *iEnvironment.credentials;
  const bool isImplicit = credentials.protocol() == kProtocolFTPImplicitTLS;
  const int port = credentials.port() != 0 ? credentials.port()
                   : isImplicit            ? kPortOfImplicitTLS
                                           : kPortOfFTP;
  if (!iControl.connect(iHost, port, error)) return false;
  if (isImplicit && !iControl.startTLS(*iEncryption, error)) return false;
  if (!greet(error)) return false;
  if (credentials.protocol() == kProtocolFTPExplicitTLS && !agreeOnTLS(error)) return false;
  if (!authenticate(error) || !settle(error)) return false;
  iControl.endLogin();
  iLoginDate = std::chrono::steady_clock::now();
  clearLeftovers();
  return true;
}

bool FTPSession::refuseLogin(const FTPReply& reply, QuarnKitErrorCode code, NSErrorRef* error) {
  const QuarnKitErrorCode found = isTooManyFTPSessions(reply) ? kQuarnKitTooManyConnections : code;
  storeError(error, QuarnKitError::errorWithCode(found, reply.description()));
  return false;
}

bool FTPSession::greet(NSErrorRef* error) {
  iControl.expectGreeting();
  NSErrorRef reason;
  const auto greeting = iControl.nextFinal({}, &reason);
  if (!greeting) {
    const bool isSilent = QuarnKitError::isCode(reason, kQuarnKitTimedOut);
    storeError(error, isSilent ? QuarnKitError::errorWithCode(kQuarnKitCouldNotConnect, "no greeting in time")
                               : std::move(reason));
    return false;
  }
  const auto& lines = greeting->lines;
  const bool isVsftpd = std::any_of(lines.begin(), lines.end(),
                                    [](const std::string& line) { return ftpContains(line, "vsftpd"); });
  if (isVsftpd) iServer->setReadsBetweenTransfers();
  return greeting->isPositive() || refuseLogin(*greeting, kQuarnKitCouldNotConnect, error);
}

bool FTPSession::agreeOnTLS(NSErrorRef* error) {
  const auto reply = iControl.ask("AUTH TLS", error);
  if (!reply) return false;
  if (reply->code != 234 && reply->code != 334) {
    // Never in the clear instead: somebody on the way may have made the server say so.
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported,
                                                   "the server does not encrypt: " + reply->description()));
    return false;
  }
  return iControl.startTLS(*iEncryption, error);
}

bool FTPSession::authenticate(NSErrorRef* error) {
  const std::string user = iEnvironment.credentials->username().value_or("anonymous");
  std::string password = iEnvironment.credentials->password().value_or("");
  if (!iEnvironment.credentials->username() && password.empty()) password = "anonymous@";
  if (!isOneLine(user) || !isOneLine(password)) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitLoginFailed,
                                                   "the name or the password holds a line end"));
    return false;
  }
  auto reply = iControl.ask("USER " + user, error);
  if (!reply) return false;
  if (reply->wantsMore()) {
    iControl.setSecret(password);
    iControl.queue("PASS " + password, "PASS ********");
    if (!iControl.flush(error)) return false;
    reply = iControl.nextFinal({}, error);
    if (!reply) return false;
  }
  // What else a server may want (an account) is not among the credentials.
  return reply->isPositive() || refuseLogin(*reply, kQuarnKitLoginFailed, error);
}

// Everything that the session needs to know and to have, asked at once: what the server can do, protected
// data connections, bytes as they are, and where the login landed.
bool FTPSession::settle(NSErrorRef* error) {
  const bool isFirst = !iServer->features().has_value();
  std::vector<std::string> commands;
  if (iEncryption != nullptr) commands.insert(commands.end(), {"PBSZ 0", "PROT P"});
  if (isFirst) commands.emplace_back("FEAT");
  if (!isFirst) askForUTF8();
  commands.insert(commands.end(), {"TYPE I", "PWD"});
  std::vector<FTPReply> replies;
  if (!askAll(commands, &replies, error)) return false;
  size_t at = 0;
  if (iEncryption != nullptr) {
    ++at;  // what the buffer's size was answered with is of no matter
    if (const FTPReply& protection = replies[at++]; !protection.isPositive()) {
      storeError(error, QuarnKitError::errorWithCode(
                            kQuarnKitNotSupported,
                            "the server does not encrypt what is transferred: " + protection.description()));
      return false;
    }
  }
  if (isFirst) iServer->setFeatures(featuresOfReply(replies[at++]));
  if (const FTPReply& type = replies[at++]; !type.isPositive()) {
    return refuseLogin(type, kQuarnKitProtocolError, error);
  }
  if (replies[at].isPositive()) {
    const auto landed = quotedFTPPath(replies[at].text());
    iLoginPath = normalRemotePath(landed.value_or("/"));
    iLoginPathIsTold = landed.has_value();
  }
  if (!isFirst) return true;
  askForUTF8();
  return iControl.flush(error);
}

// Nothing depends on the answers: a server that announces UTF-8 speaks it, and some refuse to be told.
void FTPSession::askForUTF8() {
  const FTPFeatures present = features();
  if (present.utf8 && NameEncoding::isUTF8(iEnvironment.credentials->encoding().value_or("UTF-8"))) {
    iControl.queue("OPTS UTF8 ON");
  }
  if (present.mlst && !present.factsCommand.empty()) iControl.queue(present.factsCommand);
  iControl.abandon();
}

void FTPSession::clearLeftovers() {
  const std::vector<std::string> leftovers = iServer->leftovers().take();
  if (leftovers.empty()) return;
  for (const std::string& path : leftovers) iControl.queue("DELE " + path);
  (void)iControl.flush(nullptr);
  iControl.abandon();
}

bool FTPSession::isAlive() {
  if (iControl.failure() != nullptr || iWakeUp.isRaised()) return false;
  if (iEncryption != nullptr && iEncryption->isStale()) return false;
  (void)iControl.tryNext();
  // The end may stand behind replies that nobody has waited for.
  for (int piece = 0; piece < kMostUnreadPieces && iControl.takeIn(); ++piece) (void)iControl.tryNext();
  return iControl.failure() == nullptr;
}

bool FTPSession::isUsablePath(std::string_view path, NSErrorRef* error) {
  if (!path.empty() && path.size() <= kMaximumFTPPath && isOneLine(path)) return true;
  const std::string_view shown = path.substr(0, path.find('\0')).substr(0, 256);
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitNameInvalid, shown));
  return false;
}

bool FTPSession::readReplies(size_t count, const FTPPatience& patience, std::vector<FTPReply>* replies,
                             NSErrorRef* error) {
  for (size_t i = 0; i < count; ++i) {
    std::optional<FTPReply> reply = iControl.nextFinal(patience, error);
    if (!reply) {
      iControl.abandon();
      return false;
    }
    replies->push_back(std::move(*reply));
  }
  return true;
}

bool FTPSession::askAll(const std::vector<std::string>& commands, std::vector<FTPReply>* replies,
                        NSErrorRef* error) {
  if (!iServer->mayPipeline()) {
    for (const std::string& command : commands) {
      std::optional<FTPReply> reply = iControl.ask(command, error);
      if (!reply) return false;
      replies->push_back(std::move(*reply));
    }
    return true;
  }
  for (const std::string& command : commands) iControl.queue(command);
  if (std::exchange(iPortIsDue, false) && mayAskForPort()) iControl.queueAhead(passiveCommand());
  if (!iControl.flush(error)) return false;
  const bool done = readReplies(commands.size(), {}, replies, error);
  // It took the first and never saw the others: from now on one by one.
  if (!done && !replies->empty() && QuarnKitError::isCode(iControl.failure(), kQuarnKitTimedOut)) {
    iServer->stopPipelining();
  }
  return done;
}

bool FTPSession::answer(const std::optional<FTPReply>& reply, FTPOperation operation, std::string_view path,
                        NSErrorRef* error, std::string_view otherPath) {
  if (!reply) return false;
  if (reply->isPositive()) return true;
  storeError(error, explain(errorForFTPReply(*reply, operation, path), operation, path, otherPath));
  return false;
}

}  // namespace ombra
