#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <nlohmann/json.hpp>

#include "frontend/Commands.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSUserDefaults.h"

namespace ombra {

namespace {

// What helpers look at.
constexpr std::array<std::string_view, 9> kSettings{
    "TracingEnabled", "DebugLogging",     "UseVerboseLogging", "MountAtRemoteRoot", "SUEnableAutomaticChecks",
    "SUFeedURL",      "SUStagingFeedURL", "SUSkippedVersion",  "VolumesFolder"};

// A word as the type that it looks like: true/false/yes/no, a whole number, else a text.
PropertyValue valueOfWord(const std::string& word) {
  if (word == "true" || word == "yes" || word == "YES") return true;
  if (word == "false" || word == "no" || word == "NO") return false;
  int64_t number = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  if (!word.empty() && error == std::errc() && end == word.data() + word.size()) return number;
  return word;
}

nlohmann::json jsonOf(const PropertyValue& value) {
  if (const bool* boolean = value.asBoolean()) return *boolean;
  if (const int64_t* integer = value.asInteger()) return *integer;
  if (const double* real = value.asReal()) return *real;
  if (const std::string* text = value.asString()) return printable(*text);
  if (const NSArray* array = value.asArray()) {
    nlohmann::json list = nlohmann::json::array();
    for (const PropertyValue& item : *array) list.push_back(jsonOf(item));
    return list;
  }
  if (const NSDictionary* dictionary = value.asDictionary()) {
    nlohmann::json object = nlohmann::json::object();
    for (const auto& [key, item] : *dictionary) object[printable(key)] = jsonOf(item);
    return object;
  }
  return nullptr;
}

std::string textOf(const PropertyValue& value) {
  if (const std::string* text = value.asString()) return printable(*text);
  return jsonOf(value).dump();
}

}  // namespace

int runDefaultsGet(const std::optional<std::string>& key, const Output& output) {
  NSUserDefaults& defaults = NSUserDefaults::standardUserDefaults();
  if (!key) {
    const NSDictionary all = defaults.dictionaryRepresentation();
    if (output.json) {
      output.result(jsonOf(std::make_shared<const NSDictionary>(all)).dump());
    } else {
      for (const auto& [name, value] : all)
        output.result(fmt::format("{} = {}", printable(name), textOf(value)));
      if (all.empty()) output.remark("Nothing is set. See: ombra defaults --help");
    }
    return kExitSuccess;
  }
  const auto value = defaults.objectForKey(*key);
  if (!value) {
    return output.fail(
        {kExitNotFound, fmt::format("{} is not set.", inQuotes(*key)), "", "See: ombra defaults --help"});
  }
  output.result(output.json ? nlohmann::json{{*key, jsonOf(*value)}}.dump() : textOf(*value));
  return kExitSuccess;
}

int runDefaultsSet(const std::string& key, const std::optional<std::string>& value, const Output& output) {
  if (key.empty() || key.front() == '-') {
    return output.fail(
        {kExitUsage, fmt::format("{} cannot be the name of a setting.", inQuotes(key)), "", ""});
  }
  NSErrorRef error;
  if (NSUserDefaults::standardUserDefaults().setObject(value ? valueOfWord(*value) : PropertyValue(), key,
                                                       &error)) {
    if (value && std::find(kSettings.begin(), kSettings.end(), key) == kSettings.end())
      output.warning(
          fmt::format("No helper knows the setting {}. See: ombra defaults --help", inQuotes(key)));
    return kExitSuccess;
  }
  return output.fail({kExitFailure, "The setting could not be stored.",
                      error ? error->localizedDescription() : "", "Check the folder ~/.config/ombrafs."});
}

}  // namespace ombra
