// What a server's refusal means to the program.
#pragma once

#include <string_view>

#include "remote/QuarnKitError.h"
#include "remote/sftp/SFTPReplies.h"

namespace ombra {

// What was tried: the same status means different things for different requests.
enum class SFTPOperation {
  kOther,
  kList,
  kSetAttributes,
  kChangeName,  // everything that makes, moves or removes a name
  kWrite,
};

// The library's code of a status that is not OK. Where the status says nothing but "failure", the server's
// words are looked at.
QuarnKitErrorCode codeForSFTPStatus(const SFTPStatus& status, SFTPOperation operation);
// The error with the path and the server's own words in its description.
NSErrorRef errorForSFTPStatus(const SFTPStatus& status, SFTPOperation operation, std::string_view path);
// The server sent something that is no answer to what was asked.
NSErrorRef sftpProtocolError(std::string_view what);

}  // namespace ombra
