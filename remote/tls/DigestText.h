// Bytes as text.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace ombra {

// Two digits for each byte, letters in lower case.
std::string hexadecimalText(std::span<const unsigned char> bytes);
// With padding, in one line.
std::string base64Text(std::span<const unsigned char> bytes);
std::string base64Text(std::string_view bytes);

}  // namespace ombra
