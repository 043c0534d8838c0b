// The list of published versions.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ombra {

// A published version.
struct SUAppcastItem {
  std::string version;         // what is compared; as SUIsVersion
  std::string displayVersion;  // what people are told; as SUIsVersion
  std::string page;            // where to get it: an https URL in printable ASCII; empty when none is given
};

// The item with the latest version in an appcast: RSS whose items have an enclosure with "sparkle:version",
// or an element of that name. Items of other systems ("sparkle:os") and of special channels
// ("sparkle:channel") are not for us. Absent, with the reason in words, when these bytes are no such list or
// it holds no version. Hostile bytes are fine; the caller bounds their number.
std::optional<SUAppcastItem> SUNewestAppcastItem(std::string_view bytes, std::string* reason);

}  // namespace ombra
