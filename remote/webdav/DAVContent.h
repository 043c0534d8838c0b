// What the head of an answer to GET says about the content.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "remote/http/HTTPClient.h"

namespace ombra {

// Which state of a file an answer is about: its tag, its date and its size, each as far as the server tells
// it.
struct DAVVersion {
  std::string tag;  // without the mark of a weak one: a tag may become strong with time
  bool isWeak = false;
  std::string date;  // "Last-Modified" as it stands there
  std::optional<uint64_t> size;

  static DAVVersion ofResponse(const HTTPResponse& response);
  // A form that `fromText` reads; for one who keeps it from request to request.
  std::string text() const;
  static DAVVersion fromText(std::string_view text);
  // Whether both can be the same state: nothing that both know differs.
  bool agreesWith(const DAVVersion& other) const;
};

}  // namespace ombra
