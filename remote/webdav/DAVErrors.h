// What a refusal of a WebDAV server means.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/foundation/NSError.h"
#include "remote/http/HTTPClient.h"

namespace ombra {

// What was asked for: the same status means different things.
enum class DAVRequestKind : uint8_t {
  kLogin,
  kAttributes,
  kQuota,
  kList,
  kCreateFolder,
  kMove,
  kRemove,
  kDownload,
  kUpload,
};

// The error of an answer that is no success, with the server's words beneath it. `path` is for the text.
NSErrorRef davError(DAVRequestKind kind, const HTTPResponse& response, std::string_view path);
// The same for a status inside of an answer 207.
NSErrorRef davError(DAVRequestKind kind, int status, std::string_view path);
// "WebDAV 207: what is wrong with it".
NSErrorRef davNonsense(std::string_view path, std::string_view why);

}  // namespace ombra
