#include "frontend/Failure.h"

#include <algorithm>

#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

namespace {

// The length of the well-formed UTF-8 sequence at the start of `text`; 0 when there is none.
size_t sequenceLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  const size_t length = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  if (length > text.size() || !isValidUTF8(text.substr(0, length))) return 0;
  return length;
}

// C1 controls (U+0080 to U+009F) are two bytes in UTF-8, and some terminals obey them.
bool isControl(std::string_view sequence) {
  const auto first = static_cast<unsigned char>(sequence.front());
  if (sequence.size() == 1) return first < 0x20 || first == 0x7F;
  return sequence.size() == 2 && first == 0xC2 && static_cast<unsigned char>(sequence[1]) < 0xA0;
}

// "nas.local: …", "fusermount3: …", "ssh-ed25519 …": what must not be changed.
bool beginsWithName(std::string_view text) {
  const std::string_view word = text.substr(0, text.find(' '));
  return word.find_first_of(":_/@0123456789") != std::string_view::npos ||
         word.find('.') < std::max<size_t>(word.size(), 1) - 1;
}

}  // namespace

std::string printable(std::string_view text, size_t limit) {
  std::string result;
  while (!text.empty() && result.size() < limit) {
    const size_t length = sequenceLength(text);
    const std::string_view sequence = text.substr(0, length == 0 ? 1 : length);
    if (length == 0) {
      result += '?';
    } else if (sequence == "\n" || sequence == "\t") {
      result += ' ';
    } else if (isControl(sequence)) {
      result += '?';
    } else {
      result += sequence;
    }
    text.remove_prefix(sequence.size());
  }
  return result;
}

std::string inQuotes(std::string_view text) { return "“" + printable(text) + "”"; }

std::string shellQuoted(std::string_view text) {
  constexpr std::string_view kPlain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:@%+=,~";
  if (!text.empty() && text.front() != '~' && text.find_first_not_of(kPlain) == std::string_view::npos) {
    return std::string(text);
  }
  std::string result = "'";
  for (const char c : printable(text)) {
    if (c == '\'') {
      result += "'\\''";
    } else {
      result += c;
    }
  }
  return result + "'";
}

std::string sentence(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.remove_suffix(1);
  std::string result(text);
  // Often a server's or the system's words, which begin as they like.
  if (!beginsWithName(result) && !result.empty() && result.front() >= 'a' && result.front() <= 'z') {
    result.front() = static_cast<char>(result.front() - 'a' + 'A');
  }
  if (!result.empty() && std::string_view(".!?:").find(result.back()) == std::string_view::npos)
    result += '.';
  return result;
}

std::string Failure::text() const {
  std::string result = printable(sentence(what));
  if (!why.empty()) result += " " + printable(sentence(why));
  // As it is: it often ends in a command, which a full stop would spoil.
  if (!todo.empty()) result += "\n" + printable(todo);
  return result;
}

}  // namespace ombra
