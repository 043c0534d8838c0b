#include "fshelper/SUAppcast.h"

#include <fmt/format.h>

#include <algorithm>
#include <pugixml.hpp>

#include "fshelper/SUVersion.h"

namespace ombra {
namespace {

constexpr size_t kLongestURL = 2000;

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// The value as an attribute of the enclosure, which is how it began, or as an element of the item.
std::string_view valueOf(const pugi::xml_node& item, const char* name) {
  const pugi::xml_attribute attribute = item.child("enclosure").attribute(name);
  return trimmed(attribute ? attribute.value() : item.child_value(name));
}

// Where a browser can be sent: nothing that is shown may hide what it is.
bool isPage(std::string_view url) {
  return url.starts_with("https://") && url.size() <= kLongestURL &&
         std::all_of(url.begin(), url.end(), [](char c) { return c > ' ' && c < '\x7F'; });
}

std::string pageOf(const pugi::xml_node& item) {
  for (const std::string_view url :
       {trimmed(item.child_value("link")), trimmed(item.child("enclosure").attribute("url").value())}) {
    if (isPage(url)) return std::string(url);
  }
  return {};
}

bool isForUs(const pugi::xml_node& item) {
  const std::string_view system = valueOf(item, "sparkle:os");
  return (system.empty() || system == "linux") && valueOf(item, "sparkle:channel").empty();
}

std::optional<SUAppcastItem> readItem(const pugi::xml_node& item) {
  const std::string_view version = valueOf(item, "sparkle:version");
  if (!isForUs(item) || !SUIsVersion(version)) return std::nullopt;
  const std::string_view shown = valueOf(item, "sparkle:shortVersionString");
  return SUAppcastItem{std::string(version), std::string(SUIsVersion(shown) ? shown : version), pageOf(item)};
}

}  // namespace

std::optional<SUAppcastItem> SUNewestAppcastItem(std::string_view bytes, std::string* reason) {
  pugi::xml_document document;
  const pugi::xml_parse_result parsed = document.load_buffer(bytes.data(), bytes.size());
  if (!parsed) {
    *reason = fmt::format("it is no XML: {} at byte {}", parsed.description(), parsed.offset);
    return std::nullopt;
  }
  const pugi::xml_node channel = document.child("rss").child("channel");
  if (!channel) {
    *reason = "it is no list of versions (RSS)";
    return std::nullopt;
  }
  std::optional<SUAppcastItem> newest;
  for (const pugi::xml_node& item : channel.children("item")) {
    std::optional<SUAppcastItem> candidate = readItem(item);
    if (!candidate) continue;
    if (!newest || SUCompareVersions(candidate->version, newest->version) > 0) newest = std::move(candidate);
  }
  if (!newest) *reason = "it names no version for this system";
  return newest;
}

}  // namespace ombra
