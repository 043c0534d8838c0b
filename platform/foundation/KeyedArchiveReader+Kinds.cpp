// One reader per kind of object.
#include <fmt/format.h>

#include <cmath>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/KeyedArchiveFormat.h"
#include "platform/foundation/KeyedArchiveReader.h"
#include "platform/foundation/PropertyList.h"

namespace ombra {
namespace {

// Our dictionaries are lists; real user infos have a handful of entries.
constexpr size_t kMaximumEntries = 4096;
constexpr size_t kUUIDSize = 16;

plist_t fieldOf(const std::map<std::string, plist_t, std::less<>>& fields, std::string_view key) {
  const auto found = fields.find(key);
  return found != fields.end() ? found->second : nullptr;
}

}  // namespace

bool KeyedArchiveReader::readErrorObject(const Fields& fields, Entry& entry, unsigned depth) {
  plist_t code = fieldOf(fields, "NSCode");
  if (code == nullptr || plist_get_node_type(code) != PLIST_UINT) return fail("an error has no code");
  uint64_t number = 0;
  plist_get_uint_val(code, &number);
  const std::optional<uint64_t> domainIndex = referenceOf(fieldOf(fields, "NSDomain"));
  if (!domainIndex) return fail("an error has no domain");
  const PropertyValue* domain = object(*domainIndex, depth + 1, entry.weight);
  if (domain == nullptr) return false;
  if (domain->asString() == nullptr) return fail("an error has no domain");
  const std::string domainText = *domain->asString();
  NSDictionary userInfo;
  ++iErrorDepth;
  const bool complete = readUserInfo(fields, entry, depth, userInfo);
  --iErrorDepth;
  if (!complete) return false;
  entry.value = NSError::errorWithDomain(domainText, static_cast<int64_t>(number), std::move(userInfo));
  return true;
}

// No key, index 0, a null and an empty dictionary all mean "none".
bool KeyedArchiveReader::readUserInfo(const Fields& fields, Entry& entry, unsigned depth,
                                      NSDictionary& userInfo) {
  plist_t field = fieldOf(fields, "NSUserInfo");
  if (field == nullptr) return true;
  const std::optional<uint64_t> index = referenceOf(field);
  if (!index) return fail("an error's facts are no reference");
  // The errors farthest beneath lose theirs, so that the chain ends there.
  if (iErrorDepth > kMaximumUnderlyingErrors) return true;
  const PropertyValue* facts = object(*index, depth + 1, entry.weight);
  if (facts == nullptr) return false;
  if (facts->isNull()) return true;
  if (facts->asDictionary() == nullptr) return fail("an error's facts are no dictionary");
  userInfo = *facts->asDictionary();
  return true;
}

bool KeyedArchiveReader::readArray(const Fields& fields, Entry& entry, unsigned depth) {
  std::vector<uint64_t> items;
  if (!indices(fields, "NS.objects", items)) return false;
  NSArray values;
  for (const uint64_t index : items) {
    const PropertyValue* value = object(index, depth + 1, entry.weight);
    if (value == nullptr) return false;
    values.push_back(*value);
  }
  entry.value = std::move(values);
  return true;
}

bool KeyedArchiveReader::readDictionary(const Fields& fields, Entry& entry, unsigned depth) {
  std::vector<uint64_t> keys;
  std::vector<uint64_t> items;
  if (!indices(fields, "NS.keys", keys) || !indices(fields, "NS.objects", items)) return false;
  if (keys.size() != items.size()) return fail("a dictionary has keys without values");
  if (keys.size() > kMaximumEntries) return fail("a dictionary has too many entries");
  auto dictionary = std::make_shared<NSDictionary>();
  for (size_t i = 0; i < keys.size(); ++i) {
    const PropertyValue* key = object(keys[i], depth + 1, entry.weight);
    const PropertyValue* value = key != nullptr ? object(items[i], depth + 1, entry.weight) : nullptr;
    if (value == nullptr) return false;
    // Keys of other types mean nothing here.
    if (key->asString() != nullptr) dictionary->setObject(*value, *key->asString());
  }
  entry.value = std::shared_ptr<const NSDictionary>(std::move(dictionary));
  return true;
}

// Mutable texts and data wrap the plain value.
bool KeyedArchiveReader::readInline(const Fields& fields, std::string_view key, plist_type type,
                                    Entry& entry) {
  plist_t contents = fieldOf(fields, key);
  if (contents == nullptr || plist_get_node_type(contents) != type) return fail("an object has no contents");
  if (type == PLIST_DATA) {
    entry.value = dataOf(contents);
    entry.weight.bytes = entry.value.asData()->size();
    return true;
  }
  entry.value = stringOf(contents);
  entry.weight.bytes = entry.value.asString()->size();
  return isValidUTF8(*entry.value.asString()) || fail("a text is no UTF-8");
}

bool KeyedArchiveReader::readDate(const Fields& fields, Entry& entry) {
  plist_t time = fieldOf(fields, "NS.time");
  if (time == nullptr || plist_get_node_type(time) != PLIST_REAL) return fail("a date has no time");
  double seconds = 0;
  plist_get_real_val(time, &seconds);
  seconds += kArchiveDateOrigin;
  // Also for NaN.
  if (!(std::abs(seconds) < kFarthestArchiveDate)) {
    entry.value = "a date out of range";
  } else {
    entry.value = NSDate::dateWithTimeIntervalSince1970(seconds);
  }
  return true;
}

// As a text; one that is relative to another tells both.
bool KeyedArchiveReader::readURL(const Fields& fields, Entry& entry, unsigned depth) {
  const std::optional<uint64_t> relativeIndex = referenceOf(fieldOf(fields, "NS.relative"));
  const std::optional<uint64_t> baseIndex = referenceOf(fieldOf(fields, "NS.base"));
  if (!relativeIndex) return fail("a URL has no text");
  const PropertyValue* relative = object(*relativeIndex, depth + 1, entry.weight);
  if (relative == nullptr) return false;
  if (relative->asString() == nullptr) return fail("a URL has no text");
  std::string text = *relative->asString();
  const PropertyValue* base = baseIndex ? object(*baseIndex, depth + 1, entry.weight) : nullptr;
  if (baseIndex && base == nullptr) return false;
  if (base != nullptr && base->asString() != nullptr) text += " -- " + *base->asString();
  entry.weight.bytes += text.size();
  entry.value = std::move(text);
  return true;
}

bool KeyedArchiveReader::readUUID(const Fields& fields, Entry& entry) {
  plist_t field = fieldOf(fields, "NS.uuidbytes");
  if (field == nullptr || plist_get_node_type(field) != PLIST_DATA) return fail("a UUID has no bytes");
  const NSData bytes = dataOf(field);
  if (bytes.size() != kUUIDSize) return fail("a UUID has the wrong length");
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += fmt::format("{:02X}", bytes[i]);
  }
  entry.value = std::move(text);
  return true;
}

}  // namespace ombra
