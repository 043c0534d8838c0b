#include "remote/http/HTTPText.h"

#include <algorithm>

namespace ombra {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

char loweredLetter(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 0x20) : c; }

}  // namespace

std::string httpLowered(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), loweredLetter);
  return result;
}

bool httpEqual(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return loweredLetter(x) == loweredLetter(y); });
}

std::string_view httpTrimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

}  // namespace ombra
