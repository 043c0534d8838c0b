#include "frontend/FTPUpgrade.h"

#include <optional>
#include <string>

#include "frontend/ProbeConnection.h"
#include "remote/ftp/FTPReply.h"

namespace ombra {

namespace {

// More than any greeting; a server that talks on is no FTP server.
constexpr size_t kLongestReply = 16 * 1024;

bool failUpgrade(NSErrorRef* error, QuarnKitErrorCode code, const std::string& detail) {
  storeError(error, QuarnKitError::errorWithCode(code, detail));
  return false;
}

std::optional<FTPReply> readReply(ProbeConnection& connection, NSErrorRef* error) {
  FTPReplyParser parser;
  std::string line;
  for (size_t length = 0; length <= kLongestReply && !parser.isBroken(); ++length) {
    const auto byte = connection.readByte(line);
    if (!byte) return std::nullopt;
    *byte == '\n' ? line.clear() : line.push_back(*byte);
    parser.add({&*byte, 1});
    if (auto reply = parser.next()) return reply;
  }
  failUpgrade(error, kQuarnKitProtocolError, "this is no FTP server");
  return std::nullopt;
}

// The last line as it came.
std::string lastLineOf(const FTPReply& reply) {
  std::string line = std::to_string(reply.code);
  if (!reply.text().empty()) line.append(" ").append(reply.text());
  return line;
}

}  // namespace

bool upgradeFTP(int socket, std::chrono::steady_clock::time_point deadline, NSErrorRef* error) {
  ProbeConnection connection(socket, "the FTP server", deadline, error);
  auto reply = readReply(connection, error);
  // 120 announces a greeting that is to come.
  if (reply && reply->code == 120) reply = readReply(connection, error);
  if (!reply) return false;
  if (reply->code == 421 || reply->code == 530)
    return failUpgrade(error, kQuarnKitTooManyConnections, lastLineOf(*reply));
  if (reply->code != 220) return failUpgrade(error, kQuarnKitRefused, lastLineOf(*reply));
  if (!connection.send("AUTH TLS\r\n")) return false;
  reply = readReply(connection, error);
  if (!reply) return false;
  return reply->code == 234 || failUpgrade(error, kQuarnKitNotSupported, lastLineOf(*reply));
}

}  // namespace ombra
