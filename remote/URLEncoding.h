// Percent-encoding, in one form for every engine over HTTP.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// All but the unreserved characters (letters, digits, "-", ".", "_", "~") as "%XX", upper case: the form that
// every server understands and that signatures are made over. Bytes stay bytes, whatever their encoding.
std::string percentEncoded(std::string_view text);
// The same for each component of a path: its slashes stay.
std::string percentEncodedPath(std::string_view path);
// The reverse. A "%" that no two hexadecimal digits follow stands for itself; "+" is no blank.
std::string percentDecoded(std::string_view text);

}  // namespace ombra
