// The server's refusals as library errors.
#pragma once

#include <string_view>

#include "remote/QuarnKitError.h"
#include "remote/ftp/FTPReply.h"

namespace ombra {

// What was asked for when the server refused.
enum class FTPOperation { kList, kRead, kStore, kMakeFolder, kRemove, kRename, kAttributes, kOther };

// The library's code for a refusal. The numbers say little (550 is nearly everything), so the texts of common
// servers are looked at too, `path` and its name in them put aside: a file may be called "not found".
// kQuarnKitRefused where neither tells.
QuarnKitErrorCode codeForFTPRefusal(const FTPReply& reply, FTPOperation operation, std::string_view path);
// The error with the path and the server's words.
NSErrorRef errorForFTPReply(const FTPReply& reply, FTPOperation operation, std::string_view path);
// The same words under a code that somebody found out.
NSErrorRef ftpError(QuarnKitErrorCode code, std::string_view path, const FTPReply& reply);
// An answer that makes no sense here.
NSErrorRef ftpProtocolError(std::string_view what);
// Whether a refusal of a login is about the number of sessions, so that one may succeed later.
bool isTooManyFTPSessions(const FTPReply& reply);

}  // namespace ombra
