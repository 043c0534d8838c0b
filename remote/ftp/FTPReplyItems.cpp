#include "remote/ftp/FTPReplyItems.h"
#include "remote/ByteCount.h"
#include "remote/RemotePaths.h"

#include "remote/ftp/FTPListLine.h"
#include "remote/ftp/FTPText.h"

namespace ombra {

std::optional<FTPItem> itemOfMLST(const FTPReply& reply) {
  if (!reply.isPositive()) return std::nullopt;
  for (size_t i = 1; i + 1 < reply.lines.size(); ++i) {
    std::string_view line = reply.lines[i];
    // The line stands one blank in; a server without facts to tell has a second one before the name.
    if (line.starts_with(' ')) line.remove_prefix(1);
    if (auto item = itemOfFacts(line)) return item;
  }
  return std::nullopt;
}

std::optional<FTPItem> itemOfSTAT(const FTPReply& reply, std::string_view path, NSDate now) {
  if (!reply.isPositive()) return std::nullopt;
  for (size_t i = 1; i + 1 < reply.lines.size(); ++i) {
    auto item = itemOfListLine(reply.lines[i], now);
    if (item && (item->entry.name == nameOfRemotePath(path) || item->entry.name == path)) return item;
  }
  return std::nullopt;
}

std::optional<uint64_t> sizeOfReply(const FTPReply& reply) {
  return reply.isPositive() ? byteCount(ftpTrimmed(reply.text())) : std::nullopt;
}

std::optional<NSDate> dateOfReply(const FTPReply& reply) {
  return reply.isPositive() ? dateOfFTPTime(ftpTrimmed(reply.text())) : std::nullopt;
}

}  // namespace ombra
