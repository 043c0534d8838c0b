#include "remote/http/HTTPText.h"

#include <algorithm>

namespace ombra {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

}  // namespace

std::string_view httpTrimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

}  // namespace ombra
