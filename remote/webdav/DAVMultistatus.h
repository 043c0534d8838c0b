// Answers 207 of a WebDAV server (RFC 4918, section 13).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSDate.h"

namespace ombra {

// What was asked of an item and what the server told, of the properties that are used here. A value that is
// absent, or that makes no sense, is not there.
struct DAVProperties {
  bool isCollection = false;
  std::optional<uint64_t> contentLength;
  std::optional<NSDate> lastModified;
  std::optional<NSDate> creationDate;
  std::optional<uint64_t> quotaAvailable;
  std::optional<uint64_t> quotaUsed;
};

// One "response" of the document.
struct DAVResponse {
  std::string href;  // as it stands there, without blanks around it
  int status = 0;    // of the item as a whole; 0 when none is told
  DAVProperties properties;
};

// The responses in their order. Absent, with the reason in words, for what is no such document: not
// well-formed, another root, a document type (no server has a use for one, and entities are not expanded), or
// more elements than any folder has. The document is taken apart where it lies: that of a large folder is
// long, and should be moved here.
std::optional<std::vector<DAVResponse>> parseDAVMultistatus(std::string document, std::string* reason);

// The status of "HTTP/1.1 404 Not Found"; 0 when it is none.
int statusOfDAVText(std::string_view text);

}  // namespace ombra
