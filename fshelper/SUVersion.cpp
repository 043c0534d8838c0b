#include "fshelper/SUVersion.h"

#include <algorithm>

namespace ombra {
namespace {

constexpr size_t kLongestVersion = 64;

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// Takes the next run of digits or of letters off the text; empty at its end.
std::string_view takeComponent(std::string_view& text) {
  const auto begins =
      std::find_if(text.begin(), text.end(), [](char c) { return isDigit(c) || isLetter(c); });
  text.remove_prefix(static_cast<size_t>(begins - text.begin()));
  if (text.empty()) return {};
  const bool digits = isDigit(text.front());
  const auto ends = std::find_if_not(text.begin(), text.end(),
                                     [digits](char c) { return digits ? isDigit(c) : isLetter(c); });
  const std::string_view component = text.substr(0, static_cast<size_t>(ends - text.begin()));
  text.remove_prefix(component.size());
  return component;
}

bool isNumber(std::string_view component) { return component.empty() || isDigit(component.front()); }

// No component at all is the number 0. Any length: the digits are never converted.
int compareNumbers(std::string_view a, std::string_view b) {
  a.remove_prefix(std::min(a.find_first_not_of('0'), a.size()));
  b.remove_prefix(std::min(b.find_first_not_of('0'), b.size()));
  if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
  return a.compare(b);
}

int compareComponents(std::string_view a, std::string_view b) {
  if (isNumber(a) != isNumber(b)) return isNumber(a) ? 1 : -1;
  return isNumber(a) ? compareNumbers(a, b) : a.compare(b);
}

}  // namespace

bool SUIsVersion(std::string_view text) {
  if (text.empty() || text.size() > kLongestVersion || !isDigit(text.front())) return false;
  return std::all_of(text.begin(), text.end(), [](char c) {
    return isDigit(c) || isLetter(c) || std::string_view(".-_~+").find(c) != std::string_view::npos;
  });
}

int SUCompareVersions(std::string_view a, std::string_view b) {
  a = a.substr(0, a.find('+'));
  b = b.substr(0, b.find('+'));
  for (;;) {
    const std::string_view componentOfA = takeComponent(a);
    const std::string_view componentOfB = takeComponent(b);
    if (componentOfA.empty() && componentOfB.empty()) return 0;
    if (const int order = compareComponents(componentOfA, componentOfB); order != 0) return order;
  }
}

}  // namespace ombra
