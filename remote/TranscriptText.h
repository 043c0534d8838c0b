// Foreign text on a line of the transcript.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// Appends a character; a control character as "\x1b", since it could forge further lines or command the
// terminal that shows them.
void appendVisibly(char character, std::string* line);
// The same for a whole text.
std::string visibleText(std::string_view text);

}  // namespace ombra
