#include "platform/foundation/NSDictionary.h"

#include <algorithm>

#include "platform/foundation/NSError.h"

namespace ombra {

const NSDictionary* PropertyValue::asDictionary() const {
  const auto* dictionary = std::get_if<std::shared_ptr<const NSDictionary>>(&storage);
  return dictionary != nullptr ? dictionary->get() : nullptr;
}

NSErrorRef PropertyValue::asError() const {
  const auto* error = std::get_if<NSErrorRef>(&storage);
  return error != nullptr ? *error : nullptr;
}

bool PropertyValue::operator==(const PropertyValue& other) const {
  const NSDictionary* dictionary = asDictionary();
  const NSDictionary* otherDictionary = other.asDictionary();
  if (dictionary != nullptr && otherDictionary != nullptr) return *dictionary == *otherDictionary;
  return storage == other.storage;
}

NSDictionary::NSDictionary(std::initializer_list<Entry> entries) {
  for (const Entry& entry : entries) setObject(entry.second, entry.first);
}

NSDictionary NSDictionary::dictionaryWithObjectsAndKeys(
    std::initializer_list<std::pair<std::string, std::optional<PropertyValue>>> pairs) {
  NSDictionary dictionary;
  for (const auto& [key, value] : pairs) {
    if (!value || value->isNull()) break;
    dictionary.setObject(*value, key);
  }
  return dictionary;
}

const PropertyValue* NSDictionary::objectForKey(std::string_view key) const {
  const auto found =
      std::find_if(iEntries.begin(), iEntries.end(), [key](const Entry& e) { return e.first == key; });
  return found != iEntries.end() ? &found->second : nullptr;
}

std::optional<std::string> NSDictionary::stringForKey(std::string_view key) const {
  const PropertyValue* value = objectForKey(key);
  const std::string* text = value != nullptr ? value->asString() : nullptr;
  return text != nullptr ? std::optional<std::string>(*text) : std::nullopt;
}

void NSDictionary::setObject(PropertyValue value, std::string_view forKey) {
  const auto found =
      std::find_if(iEntries.begin(), iEntries.end(), [forKey](const Entry& e) { return e.first == forKey; });
  if (found != iEntries.end()) {
    found->second = std::move(value);
  } else {
    iEntries.emplace_back(std::string(forKey), std::move(value));
  }
}

void NSDictionary::kc_setObject(std::optional<PropertyValue> value, std::string_view forKey) {
  if (value && !value->isNull()) setObject(std::move(*value), forKey);
}

void NSDictionary::removeObjectForKey(std::string_view key) {
  std::erase_if(iEntries, [key](const Entry& e) { return e.first == key; });
}

}  // namespace ombra
