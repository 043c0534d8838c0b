// Walking over UTF-8 that may be broken.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// The length in bytes of the well-formed UTF-8 character at the start of `text`, 0 when there is none: not
// UTF-8 there, or at the end of the text. No surrogates, no overlong forms, nothing above U+10FFFF.
size_t utf8CharacterLength(std::string_view text);

// `text` as valid UTF-8 without NUL, for carriers that take nothing else (bus messages, property lists): each
// byte that belongs to no character, and each NUL, becomes U+FFFD.
std::string sanitizedUTF8(std::string_view text);

}  // namespace ombra
