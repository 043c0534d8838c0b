#include "remote/ftp/FTPText.h"

#include <algorithm>

#include "platform/foundation/ASCII.h"

namespace ombra {

namespace {
bool isBlank(char c) { return c == ' ' || c == '\t'; }
}  // namespace

bool ftpContains(std::string_view text, std::string_view part) {
  return std::search(text.begin(), text.end(), part.begin(), part.end(),
                     [](char a, char b) { return lowercasedASCII(a) == b; }) != text.end();
}

std::string_view ftpTrimmed(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

std::string_view takeFTPWord(std::string_view* text) {
  while (!text->empty() && isBlank(text->front())) text->remove_prefix(1);
  const auto end = std::find_if(text->begin(), text->end(), isBlank);
  const std::string_view word = text->substr(0, static_cast<size_t>(end - text->begin()));
  text->remove_prefix(word.size());
  return word;
}

}  // namespace ombra
