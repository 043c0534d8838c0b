// Versions of the program, and their order.
#pragma once

#include <string_view>

namespace ombra {

// True for what can be compared and shown: it begins with a digit, holds letters, digits and ".-_~+" alone,
// and has at most 64 characters.
bool SUIsVersion(std::string_view text);

// Below 0 when `a` is earlier than `b`, 0 when they are the same version, above 0 when it is later. Numbers
// are compared as numbers, component by component, whatever stands between them: 1.10 is later than 1.9,
// and 1.0.0 is 1.0. Letters mark what comes before the version itself: 1.0b2 is earlier than 1.0. What
// follows a "+" does not count.
int SUCompareVersions(std::string_view a, std::string_view b);

}  // namespace ombra
