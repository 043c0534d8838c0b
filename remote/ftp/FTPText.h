// Small tools for the protocol's texts.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>

namespace ombra {

// Whether `text` holds `part`, in whatever case of ASCII letters; `part` is in lower case.
bool ftpContains(std::string_view text, std::string_view part);
// Without blanks and tabs at either end.
std::string_view ftpTrimmed(std::string_view text);
// Cuts the next word off `text`; the blanks around it go too. Empty at the end.
std::string_view takeFTPWord(std::string_view* text);

// A number that is all of `text`.
template <typename Number>
std::optional<Number> ftpNumber(std::string_view text, int base = 10) {
  Number value{};
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (text.empty() || result.ec != std::errc() || result.ptr != text.data() + text.size())
    return std::nullopt;
  return value;
}

}  // namespace ombra
