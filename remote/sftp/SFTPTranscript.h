// Requests and replies as lines for the transcript, which marks their direction itself. Never the content of
// files.
#pragma once

#include <string>
#include <string_view>

#include "remote/sftp/SFTPReplies.h"

namespace ombra {

// "open id=3 "/a" flags=read": the first word of `text` is the request's name.
std::string sftpRequestText(uint32_t id, std::string_view text);
// "status id=3 ok"
std::string sftpReplyText(const SFTPReply& reply);
std::string sftpVersionText(uint32_t version, const SFTPExtensions& extensions);
// A path or name in quotes, with what would break the line written as escapes.
std::string sftpQuoted(std::string_view text);
std::string sftpOpenFlagsText(uint32_t flags);

}  // namespace ombra
