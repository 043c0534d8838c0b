#include "platform/foundation/NSUserDefaults.h"

#include <fmt/format.h>

#include "platform/foundation/DefaultsFile.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSProcessInfo.h"
#include "platform/foundation/NeverDestroyed.h"

namespace ombra {
namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// "-Key": one dash and a letter. "--option=" belongs to the program, "-5" is a value.
bool isKey(std::string_view argument) {
  return argument.size() >= 2 && argument[0] == '-' && argument[1] != '-' && !isDigit(argument[1]);
}

NSDictionary valuesOfArguments(const std::vector<std::string>& arguments) {
  NSDictionary values;
  for (size_t i = 1; i + 1 < arguments.size(); ++i) {
    const std::string& value = arguments[i + 1];
    // What looks like the next option is one: this key has no value then.
    if (!isKey(arguments[i]) || isKey(value) || value.starts_with("--")) continue;
    values.setObject(value, arguments[i].substr(1));
    ++i;
  }
  return values;
}

bool isTrueText(std::string_view text) {
  return !text.empty() && std::string_view("YyTt123456789").find(text.front()) != std::string_view::npos;
}

}  // namespace

NSUserDefaults& NSUserDefaults::standardUserDefaults() {
  static NeverDestroyed<NSUserDefaults> sDefaults;
  return *sDefaults;
}

void NSUserDefaults::loadIfNeeded() {
  if (iLoaded) return;
  iLoaded = true;
  iArguments = valuesOfArguments(NSProcessInfo::arguments());
  std::string reason;
  if (std::optional<NSDictionary> values = DefaultsFile::read(&reason)) {
    iFile = std::move(*values);
  } else {
    iFile = {};
    NSLog("the settings in {} are not used: {}", DefaultsFile::path(), reason);
  }
}

std::optional<PropertyValue> NSUserDefaults::objectForKey(std::string_view key) {
  MutexLock lock(iLock);
  loadIfNeeded();
  for (const NSDictionary* domain : {&iVolatile, &iArguments, &iFile}) {
    if (const PropertyValue* value = domain->objectForKey(key)) return *value;
  }
  return std::nullopt;
}

bool NSUserDefaults::boolForKey(std::string_view key) {
  const std::optional<PropertyValue> value = objectForKey(key);
  if (!value) return false;
  if (const bool* boolean = value->asBoolean()) return *boolean;
  if (const int64_t* number = value->asInteger()) return *number != 0;
  if (const double* real = value->asReal()) return *real != 0;
  if (const std::string* text = value->asString()) return isTrueText(*text);
  return false;
}

std::optional<std::string> NSUserDefaults::stringForKey(std::string_view key) {
  const std::optional<PropertyValue> value = objectForKey(key);
  if (!value) return std::nullopt;
  if (const std::string* text = value->asString()) return *text;
  if (const bool* boolean = value->asBoolean()) return *boolean ? "1" : "0";
  if (const int64_t* number = value->asInteger()) return fmt::format("{}", *number);
  if (const double* real = value->asReal()) return fmt::format("{}", *real);
  return std::nullopt;
}

bool NSUserDefaults::setObject(PropertyValue value, std::string_view forKey, NSErrorRef* error) {
  MutexLock lock(iLock);
  loadIfNeeded();
  std::optional<NSDictionary> changed = DefaultsFile::change(std::move(value), forKey, error);
  if (!changed) return false;
  iFile = std::move(*changed);
  return true;
}

NSDictionary NSUserDefaults::dictionaryRepresentation() {
  MutexLock lock(iLock);
  loadIfNeeded();
  return iFile;
}

void NSUserDefaults::setVolatileObject(PropertyValue value, std::string_view forKey) {
  MutexLock lock(iLock);
  if (value.isNull()) {
    iVolatile.removeObjectForKey(forKey);
  } else {
    iVolatile.setObject(std::move(value), forKey);
  }
}

void NSUserDefaults::reload() {
  MutexLock lock(iLock);
  iLoaded = false;
}

}  // namespace ombra
