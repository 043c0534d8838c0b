// Property values, and the string-keyed dictionary that carries them in notifications, errors and defaults.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/foundation/NSDate.h"

namespace ombra {

class NSError;
class NSDictionary;
struct PropertyValue;

using NSData = std::vector<uint8_t>;
using NSArray = std::vector<PropertyValue>;
using NSErrorRef = std::shared_ptr<const NSError>;

// One value of a property list, or an error object. monostate stands for "no value" (a null object).
struct PropertyValue {
  using Storage = std::variant<std::monostate, bool, int64_t, double, std::string, NSDate, NSData, NSArray,
                               std::shared_ptr<const NSDictionary>, NSErrorRef>;
  Storage storage;

  PropertyValue() = default;
  PropertyValue(bool value) : storage(value) {}                           // NOLINT: values convert
  PropertyValue(int value) : storage(static_cast<int64_t>(value)) {}      // NOLINT
  PropertyValue(int64_t value) : storage(value) {}                        // NOLINT
  PropertyValue(double value) : storage(value) {}                         // NOLINT
  PropertyValue(std::string value) : storage(std::move(value)) {}         // NOLINT
  PropertyValue(std::string_view value) : storage(std::string(value)) {}  // NOLINT
  PropertyValue(const char* value) : storage(std::string(value)) {}       // NOLINT
  PropertyValue(NSDate value) : storage(value) {}                         // NOLINT
  PropertyValue(NSData value) : storage(std::move(value)) {}              // NOLINT
  PropertyValue(NSArray value) : storage(std::move(value)) {}             // NOLINT
  PropertyValue(std::shared_ptr<const NSDictionary> value) : storage(std::move(value)) {}  // NOLINT
  PropertyValue(NSErrorRef value) : storage(std::move(value)) {}                           // NOLINT

  bool isNull() const { return std::holds_alternative<std::monostate>(storage); }
  // The value as that type, nullptr when it is of another.
  const std::string* asString() const { return std::get_if<std::string>(&storage); }
  const int64_t* asInteger() const { return std::get_if<int64_t>(&storage); }
  const bool* asBoolean() const { return std::get_if<bool>(&storage); }
  const double* asReal() const { return std::get_if<double>(&storage); }
  const NSDate* asDate() const { return std::get_if<NSDate>(&storage); }
  const NSData* asData() const { return std::get_if<NSData>(&storage); }
  const NSArray* asArray() const { return std::get_if<NSArray>(&storage); }
  const NSDictionary* asDictionary() const;
  NSErrorRef asError() const;

  bool operator==(const PropertyValue& other) const;
};

// A small dictionary in insertion order. Keys are unique. A value; not synchronised.
class NSDictionary {
 public:
  using Entry = std::pair<std::string, PropertyValue>;

  NSDictionary() = default;
  // Later duplicates of a key replace earlier ones.
  NSDictionary(std::initializer_list<Entry> entries);

  // Builds from key/value pairs up to the first absent value: that pair and all after it are left out.
  static NSDictionary dictionaryWithObjectsAndKeys(
      std::initializer_list<std::pair<std::string, std::optional<PropertyValue>>> pairs);

  // The value under `key`, nullptr when there is none. Valid until the dictionary changes.
  const PropertyValue* objectForKey(std::string_view key) const;
  // The text under `key`, absent when there is none or it is not a text.
  std::optional<std::string> stringForKey(std::string_view key) const;
  void setObject(PropertyValue value, std::string_view forKey);
  // Sets only a present, non-null value; with none it does nothing.
  void kc_setObject(std::optional<PropertyValue> value, std::string_view forKey);
  void removeObjectForKey(std::string_view key);

  size_t count() const { return iEntries.size(); }
  bool empty() const { return iEntries.empty(); }
  auto begin() const { return iEntries.begin(); }
  auto end() const { return iEntries.end(); }
  bool operator==(const NSDictionary& other) const { return iEntries == other.iEntries; }

 private:
  std::vector<Entry> iEntries;
};

}  // namespace ombra
