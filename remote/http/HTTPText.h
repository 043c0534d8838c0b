// Small helpers over the texts of HTTP.
#pragma once

#include <string_view>

namespace ombra {

// Without blanks, tabs and line ends at both ends.
std::string_view httpTrimmed(std::string_view text);

}  // namespace ombra
