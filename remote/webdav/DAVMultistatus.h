// Answers 207 of a WebDAV server (RFC 4918, section 13).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSDate.h"
#include "remote/webdav/XMLCutter.h"

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

// Reads such a document while it arrives, in pieces of any length: no more of it is in memory than some
// responses, or one that is long. Refused, with the reason in words, is what is no such document: not
// well-formed, another root, a document type (no server has a use for one, and entities are not expanded),
// longer than an answer may be, or with more items than any folder has. What was read before that has been
// given out by then, and counts for nothing.
class DAVMultistatusReader {
 public:
  static constexpr size_t kMostItems = 4'000'000;
  using Take = std::function<void(DAVResponse response)>;

  // `take` gets the responses in their order.
  explicit DAVMultistatusReader(Take take, size_t mostItems = kMostItems);

  // False once the document is refused; what comes after that is ignored.
  bool add(std::string_view bytes);
  // Nothing more comes. Whether it was such a document.
  [[nodiscard]] bool finish();
  // Not empty once it is refused.
  const std::string& reason() const { return iReason; }

 private:
  bool read();
  bool refuse(std::string_view reason);

  const Take iTake;
  const size_t iMostItems;
  size_t iItems = 0;
  bool iHasReadRoot = false;
  XMLCutter iCutter;
  std::string iDocument;  // what is being read; kept for its memory
  std::string iReason;
};

// All of a short answer. Absent, with the reason in words, when it is refused.
std::optional<std::vector<DAVResponse>> parseDAVMultistatus(std::string_view document, std::string* reason);

// The status of "HTTP/1.1 404 Not Found"; 0 when it is none.
int statusOfDAVText(std::string_view text);

}  // namespace ombra
