#include "frontend/SharedConfiguration.h"

#include <fstream>

#include "platform/foundation/NSUnarchiver.h"

namespace ombra {

namespace {

constexpr size_t kLongestConfiguration = 1 << 20;
constexpr std::string_view kBlanks = " \t\r";

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string_view withoutComment(std::string_view line) {
  for (size_t i = 0; i < line.size(); ++i) {
    const bool begins = line[i] == '#' || line[i] == ';';
    if (begins && (i == 0 || kBlanks.find(line[i - 1]) != std::string_view::npos)) return line.substr(0, i);
  }
  return line;
}

}  // namespace

SharedConfiguration::SharedConfiguration(std::string_view text) {
  text = text.substr(0, kLongestConfiguration);
  Section* section = nullptr;
  std::string outer;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = withoutComment(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    const std::string_view content = trimmed(line);
    if (content.empty()) continue;
    if (content.front() == '[' && content.back() == ']') {
      section = &iSections[std::string(trimmed(content.substr(1, content.size() - 2)))];
      outer.clear();
      continue;
    }
    const size_t equals = content.find('=');
    if (section == nullptr || equals == std::string_view::npos) continue;
    const std::string name(trimmed(content.substr(0, equals)));
    const std::string value(trimmed(content.substr(equals + 1)));
    const bool isIndented = line.front() == ' ' || line.front() == '\t';
    if (!isIndented) outer = value.empty() ? name + "." : "";
    (*section)[isIndented ? outer + name : name] = value;
  }
}

SharedConfiguration SharedConfiguration::ofFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text(kLongestConfiguration, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  SharedConfiguration result(std::string_view(text).substr(0, static_cast<size_t>(file.gcount())));
  wipe(text);
  return result;
}

SharedConfiguration::~SharedConfiguration() {
  for (auto& [title, section] : iSections) {
    for (auto& [name, value] : section) wipe(value);
  }
}

bool SharedConfiguration::hasSection(std::string_view section) const {
  return iSections.find(section) != iSections.end();
}

const std::string* SharedConfiguration::value(std::string_view section, std::string_view name) const {
  const auto found = iSections.find(section);
  if (found == iSections.end()) return nullptr;
  const auto entry = found->second.find(name);
  return entry == found->second.end() || entry->second.empty() ? nullptr : &entry->second;
}

}  // namespace ombra
