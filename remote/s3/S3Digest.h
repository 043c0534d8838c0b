// Digests of what is sent.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/NSFileHandle.h"

namespace ombra {

// Hexadecimal.
std::string s3SHA256(std::string_view bytes);
// Base64: the value of "Content-MD5", which some requests must have.
std::string s3MD5(std::string_view bytes);
// Hexadecimal, of a range of a file; absent when it cannot be read as far.
std::optional<std::string> s3SHA256OfFile(const NSFileHandle& file, FileExtent range);

}  // namespace ombra
