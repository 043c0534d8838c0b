#include "remote/TranscriptText.h"

namespace ombra {

void appendVisibly(char character, std::string* line) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(character);
  if (byte >= 0x20 && byte != 0x7f) {
    *line += character;
  } else {
    line->append("\\x").append({kDigits[byte >> 4], kDigits[byte & 15]});
  }
}

std::string visibleText(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  for (const char character : text) appendVisibly(character, &line);
  return line;
}

}  // namespace ombra
