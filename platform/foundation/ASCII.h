// Letters of ASCII, whatever the locale: in names of protocols, headers and hosts their case does not matter.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace ombra {

constexpr char lowercasedASCII(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 0x20) : c; }

// The text with these letters in lower case. All other bytes stay.
inline std::string lowercasedASCII(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = lowercasedASCII(c);
  return result;
}

// Whether the two differ in the case of these letters at most.
inline bool equalIgnoringCase(std::string_view one, std::string_view other) {
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [](char a, char b) { return lowercasedASCII(a) == lowercasedASCII(b); });
}

}  // namespace ombra
