#include "platform/foundation/PropertyList.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSError.h"
#include "platform/foundation/PropertyListScan.h"

namespace ombra {
namespace {

// The library counts dates from 2001-01-01 00:00:00 UTC.
constexpr int64_t kSecondsTo2001 = 978307200;
constexpr int64_t kNanosecondsPerSecond = 1000000000;

bool isBinary(std::span<const uint8_t> data) {
  constexpr std::string_view kMagic = "bplist";
  return data.size() >= kMagic.size() && std::equal(kMagic.begin(), kMagic.end(), data.begin());
}

NSDate dateOf(plist_t node) {
  int32_t seconds = 0;
  int32_t microseconds = 0;
  plist_get_date_val(node, &seconds, &microseconds);
  return NSDate::dateWithNanoseconds((seconds + kSecondsTo2001) * kNanosecondsPerSecond +
                                     microseconds * 1000LL);
}

NSArray arrayOf(plist_t node) {
  NSArray values;
  for (plist_t item : arrayItems(node)) values.push_back(propertyValueOf(item));
  return values;
}

std::shared_ptr<const NSDictionary> dictionaryOf(plist_t node) {
  auto dictionary = std::make_shared<NSDictionary>();
  for (const auto& [key, item] : dictionaryItems(node)) dictionary->setObject(propertyValueOf(item), key);
  return dictionary;
}

// What XML and the library's C strings both carry.
bool isPlainText(std::string_view text) {
  const bool hasControls = std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 && byte != '\t' && byte != '\n';
  });
  return !hasControls && isValidUTF8(text);
}

PropertyListRef build(const PropertyValue& value, unsigned depth);

PropertyListRef buildArray(const NSArray& values, unsigned depth) {
  PropertyListRef array(plist_new_array());
  for (const PropertyValue& value : values) {
    PropertyListRef item = build(value, depth + 1);
    if (item == nullptr) return nullptr;
    plist_array_append_item(array.get(), item.release());
  }
  return array;
}

PropertyListRef buildDictionary(const NSDictionary& values, unsigned depth) {
  PropertyListRef dictionary(plist_new_dict());
  for (const auto& [key, value] : values) {
    PropertyListRef item = isPlainText(key) ? build(value, depth + 1) : nullptr;
    if (item == nullptr) return nullptr;
    plist_dict_set_item(dictionary.get(), key.c_str(), item.release());
  }
  return dictionary;
}

PropertyListRef buildDate(NSDate date) {
  const timespec time = kc_timespec(date);
  const int64_t seconds = time.tv_sec - kSecondsTo2001;
  if (seconds < std::numeric_limits<int32_t>::min() || seconds > std::numeric_limits<int32_t>::max())
    return nullptr;
  return PropertyListRef(
      plist_new_date(static_cast<int32_t>(seconds), static_cast<int32_t>(time.tv_nsec / 1000)));
}

PropertyListRef build(const PropertyValue& value, unsigned depth) {
  if (depth > kMaximumPropertyListDepth) return nullptr;
  if (const bool* boolean = value.asBoolean()) return PropertyListRef(plist_new_bool(*boolean ? 1 : 0));
  // The library reads a negative number back from the same 64 bits.
  if (const int64_t* number = value.asInteger())
    return PropertyListRef(plist_new_uint(static_cast<uint64_t>(*number)));
  if (const double* real = value.asReal()) return PropertyListRef(plist_new_real(*real));
  if (const NSDate* date = value.asDate()) return buildDate(*date);
  if (const NSArray* array = value.asArray()) return buildArray(*array, depth);
  if (const NSDictionary* dictionary = value.asDictionary()) return buildDictionary(*dictionary, depth);
  if (const std::string* text = value.asString()) {
    return isPlainText(*text) ? PropertyListRef(plist_new_string(text->c_str())) : nullptr;
  }
  if (const NSData* data = value.asData()) {
    return PropertyListRef(plist_new_data(reinterpret_cast<const char*>(data->data()), data->size()));
  }
  return nullptr;
}

NSData takeBuffer(char* buffer, uint32_t length) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(buffer);
  NSData data(bytes, bytes + (buffer != nullptr ? length : 0));
  std::free(buffer);
  return data;
}

}  // namespace

PropertyListRef parsePropertyList(std::span<const uint8_t> data, std::string* reason) {
  const bool binary = isBinary(data);
  if (!(binary ? scanBinaryPropertyList(data, reason) : scanXMLPropertyList(data, reason))) return nullptr;
  plist_t root = nullptr;
  const char* bytes = reinterpret_cast<const char*>(data.data());
  const auto length = static_cast<uint32_t>(data.size());
  if (binary) {
    plist_from_bin(bytes, length, &root);
  } else {
    plist_from_xml(bytes, length, &root);
  }
  if (root == nullptr && reason != nullptr) *reason = "the property list is malformed";
  return PropertyListRef(root);
}

NSData binaryPropertyList(plist_t root) {
  // Must be null before the call, or nothing is written.
  char* buffer = nullptr;
  uint32_t length = 0;
  plist_to_bin(root, &buffer, &length);
  return takeBuffer(buffer, length);
}

NSData XMLPropertyList(plist_t root) {
  char* buffer = nullptr;
  uint32_t length = 0;
  plist_to_xml(root, &buffer, &length);
  return takeBuffer(buffer, length);
}

std::vector<plist_t> arrayItems(plist_t array) {
  std::vector<plist_t> items;
  plist_array_iter iterator = nullptr;
  plist_array_new_iter(array, &iterator);
  plist_t item = nullptr;
  for (plist_array_next_item(array, iterator, &item); item != nullptr;
       plist_array_next_item(array, iterator, &item)) {
    items.push_back(item);
  }
  std::free(iterator);
  return items;
}

std::vector<std::pair<std::string, plist_t>> dictionaryItems(plist_t dictionary) {
  std::vector<std::pair<std::string, plist_t>> items;
  plist_dict_iter iterator = nullptr;
  plist_dict_new_iter(dictionary, &iterator);
  while (true) {
    char* key = nullptr;
    plist_t item = nullptr;
    plist_dict_next_item(dictionary, iterator, &key, &item);
    const std::unique_ptr<char, decltype(&std::free)> owned(key, &std::free);
    if (key == nullptr || item == nullptr) break;
    items.emplace_back(key, item);
  }
  std::free(iterator);
  return items;
}

std::string stringOf(plist_t node) {
  uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  return text != nullptr ? std::string(text, length) : std::string();
}

NSData dataOf(plist_t node) {
  uint64_t length = 0;
  const auto* bytes = reinterpret_cast<const uint8_t*>(plist_get_data_ptr(node, &length));
  return bytes != nullptr ? NSData(bytes, bytes + length) : NSData();
}

PropertyValue propertyValueOf(plist_t node) {
  uint8_t boolean = 0;
  uint64_t number = 0;
  double real = 0;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN:
      plist_get_bool_val(node, &boolean);
      return boolean != 0;
    case PLIST_UINT:
      plist_get_uint_val(node, &number);
      return static_cast<int64_t>(number);
    case PLIST_REAL:
      plist_get_real_val(node, &real);
      return real;
    case PLIST_STRING:
      return stringOf(node);
    case PLIST_DATE:
      return dateOf(node);
    case PLIST_DATA:
      return dataOf(node);
    case PLIST_ARRAY:
      return arrayOf(node);
    case PLIST_DICT:
      return dictionaryOf(node);
    default:
      return {};
  }
}

PropertyListRef propertyListOf(const PropertyValue& value) { return build(value, 1); }

}  // namespace ombra
