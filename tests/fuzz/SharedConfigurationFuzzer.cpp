// Whatever somebody's S3 credentials and configuration files may hold.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "frontend/SharedConfiguration.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

constexpr std::string_view kBlanks = " \t\r";

std::string_view trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

std::string_view takeWord(std::string_view* text) {
  const size_t end = std::min(text->find_first_of("=\n[]"), text->size());
  const std::string_view word = text->substr(0, end);
  text->remove_prefix(std::min(end + 1, text->size()));
  return trimmed(word);
}

// Asks for every name that the text may be taken to give, in every section that it may be taken to have.
void askForAll(const ombra::SharedConfiguration& configuration, std::string_view text) {
  std::string_view section;
  for (int asked = 0; !text.empty() && asked < 1000; ++asked) {
    const std::string_view word = takeWord(&text);
    if (configuration.hasSection(word)) section = word;
    const std::string* value = configuration.value(section, word);
    if (value == nullptr) continue;
    require(configuration.hasSection(section));
    require(!value->empty() && *value == trimmed(*value) && value->find('\n') == std::string::npos);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  const ombra::SharedConfiguration configuration(text);
  askForAll(configuration, text);
  return 0;
}
