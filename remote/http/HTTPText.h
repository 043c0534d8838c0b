// Small helpers over the texts of HTTP, where letters are ASCII.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

std::string httpLowered(std::string_view text);
// Compared as names of headers, schemes and hosts are.
bool httpEqual(std::string_view a, std::string_view b);
// Without blanks, tabs and line ends at both ends.
std::string_view httpTrimmed(std::string_view text);

}  // namespace ombra
