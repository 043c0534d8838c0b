// Typed views of what was read: a fixed list of classes, nothing is made by name.
#include <cmath>
#include <initializer_list>
#include <limits>
#include <unordered_set>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSUnarchiver.h"
#include "platform/foundation/TypedStreamTags.h"

namespace ombra {
namespace {

using Value = TypedStream::Value;

constexpr size_t kMaximumElements = 100000;
constexpr size_t kMaximumBytes = size_t{16} << 20;
constexpr double kSecondsTo2001 = 978307200;
// What fits in nanoseconds of 64 bits, about 290 years to both sides of 1970.
constexpr double kFarthestDate = 9.2e9;

struct KnownClass {
  std::string_view name;
  int64_t version;
};

// True when the class and its superclasses are exactly `chain`, ended by NSObject version 0.
bool hasChain(const TypedStream& stream, uint32_t classIndex, std::initializer_list<KnownClass> chain) {
  std::optional<uint32_t> at = classIndex;
  const auto matches = [&stream, &at](const KnownClass& known) {
    const auto* one = at ? std::get_if<TypedStream::Class>(&stream.slots.at(*at)) : nullptr;
    if (one == nullptr || one->name != known.name || one->version != known.version) return false;
    at = one->superclass;
    return true;
  };
  for (const KnownClass& known : chain) {
    if (!matches(known)) return false;
  }
  return matches({"NSObject", 0}) && !at;
}

// An immutable class and its mutable subclass.
bool isKind(const TypedStream& stream, uint32_t classIndex, KnownClass plain, std::string_view mutableName) {
  return hasChain(stream, classIndex, {plain}) ||
         hasChain(stream, classIndex, {{mutableName, plain.version}, plain});
}

const TypedStream::Object* objectOf(const TypedStream& stream, const Value& value) {
  const auto* reference = std::get_if<TypedStream::ObjectRef>(&value.data);
  return value.type == '@' && reference != nullptr ? stream.object(reference->index) : nullptr;
}

// Walks along the references with a budget, since shared objects are met once per reference.
class Decoder {
 public:
  explicit Decoder(const TypedStream& stream) : iStream(stream) {}

  std::optional<PropertyValue> decode(const Value& value, unsigned depth);
  std::optional<std::string> text(const Value& value);
  // The key and value of each entry.
  std::optional<std::vector<std::pair<const Value*, const Value*>>> entries(
      const TypedStream::Object& object);

 private:
  using Object = TypedStream::Object;

  bool spend(size_t bytes) {
    iBytes += bytes;
    return ++iElements <= kMaximumElements && iBytes <= kMaximumBytes;
  }

  std::optional<PropertyValue> decodeObject(const Object& object, unsigned depth);
  std::optional<PropertyValue> number(const Object& object);
  std::optional<PropertyValue> data(const Object& object);
  std::optional<PropertyValue> date(const Object& object);
  std::optional<PropertyValue> array(const Object& object, unsigned depth);
  std::optional<PropertyValue> dictionary(const Object& object, unsigned depth);

  const TypedStream& iStream;
  size_t iElements = 0;
  size_t iBytes = 0;
};

std::optional<std::string> Decoder::text(const Value& value) {
  const Object* object = objectOf(iStream, value);
  if (object == nullptr || !isKind(iStream, object->classIndex, {"NSString", 1}, "NSMutableString")) {
    return std::nullopt;
  }
  if (object->values.size() != 1 || object->values.front().type != '+') return std::nullopt;
  const auto* contents = std::get_if<TypedStream::Bytes>(&object->values.front().data);
  if (contents == nullptr || !isValidUTF8(contents->bytes) || !spend(contents->bytes.size()))
    return std::nullopt;
  return contents->bytes;
}

// The count in front of a container's elements must tell their number exactly.
bool hasCount(const TypedStream::Object& object, char type, size_t perElement) {
  if (object.values.empty() || object.values.front().type != type) return false;
  const std::optional<int64_t> count = NSUnarchiver::integerValue(object.values.front());
  const size_t rest = object.values.size() - 1;
  return count && *count >= 0 && rest % perElement == 0 && static_cast<uint64_t>(*count) == rest / perElement;
}

std::optional<std::vector<std::pair<const Value*, const Value*>>> Decoder::entries(const Object& object) {
  if (!isKind(iStream, object.classIndex, {"NSDictionary", 0}, "NSMutableDictionary")) return std::nullopt;
  if (!hasCount(object, 'i', 2)) return std::nullopt;
  std::vector<std::pair<const Value*, const Value*>> entries;
  for (size_t i = 1; i < object.values.size(); i += 2) {
    entries.emplace_back(&object.values[i], &object.values[i + 1]);
  }
  return entries;
}

std::optional<PropertyValue> Decoder::decode(const Value& value, unsigned depth) {
  if (value.type != '@' || depth > kMaximumStreamDepth) return std::nullopt;
  if (std::holds_alternative<TypedStream::Nil>(value.data)) {
    return spend(0) ? std::optional<PropertyValue>(PropertyValue()) : std::nullopt;
  }
  const Object* object = objectOf(iStream, value);
  if (object == nullptr || !spend(0)) return std::nullopt;
  if (std::optional<std::string> string = text(value)) return PropertyValue(std::move(*string));
  return decodeObject(*object, depth);
}

std::optional<PropertyValue> Decoder::decodeObject(const Object& object, unsigned depth) {
  const uint32_t objectClass = object.classIndex;
  if (hasChain(iStream, objectClass, {{"NSNumber", 0}, {"NSValue", 0}})) return number(object);
  if (isKind(iStream, objectClass, {"NSData", 0}, "NSMutableData")) return data(object);
  if (hasChain(iStream, objectClass, {{"NSDate", 0}})) return date(object);
  if (isKind(iStream, objectClass, {"NSArray", 0}, "NSMutableArray")) {
    return hasCount(object, 'i', 1) ? array(object, depth) : std::nullopt;
  }
  if (isKind(iStream, objectClass, {"NSSet", 0}, "NSMutableSet")) {
    return hasCount(object, 'I', 1) ? array(object, depth) : std::nullopt;
  }
  if (hasChain(iStream, objectClass, {{"NSNull", 0}}) && object.values.empty()) return PropertyValue();
  return dictionary(object, depth);
}

// A C string with the type code, then a value of that type.
std::optional<PropertyValue> Decoder::number(const Object& object) {
  if (object.values.size() != 2 || object.values[0].type != '*') return std::nullopt;
  const auto* reference = std::get_if<TypedStream::ObjectRef>(&object.values[0].data);
  const auto* code =
      reference != nullptr ? std::get_if<TypedStream::Bytes>(&iStream.slots.at(reference->index)) : nullptr;
  const Value& value = object.values[1];
  if (code == nullptr || code->bytes != std::string(1, value.type)) return std::nullopt;
  if (const auto* real = std::get_if<double>(&value.data)) return PropertyValue(*real);
  if (value.type == 'B') return PropertyValue(NSUnarchiver::boolValue(value).value_or(false));
  if (const std::optional<int64_t> whole = NSUnarchiver::integerValue(value)) return PropertyValue(*whole);
  if (const auto* large = std::get_if<uint64_t>(&value.data))
    return PropertyValue(static_cast<double>(*large));
  return std::nullopt;
}

std::optional<PropertyValue> Decoder::data(const Object& object) {
  if (object.values.empty() || object.values[0].type != 'i' || object.values.size() > 2) return std::nullopt;
  const std::optional<int64_t> length = NSUnarchiver::integerValue(object.values[0]);
  if (!length || *length < 0) return std::nullopt;
  // Empty data may come without the empty array.
  if (object.values.size() == 1) return *length == 0 ? std::optional<PropertyValue>(NSData()) : std::nullopt;
  const auto* contents = std::get_if<TypedStream::Bytes>(&object.values[1].data);
  if (object.values[1].type != '[' || contents == nullptr) return std::nullopt;
  if (static_cast<uint64_t>(*length) != contents->bytes.size()) return std::nullopt;
  if (!spend(contents->bytes.size())) return std::nullopt;
  return PropertyValue(NSData(contents->bytes.begin(), contents->bytes.end()));
}

std::optional<PropertyValue> Decoder::date(const Object& object) {
  const auto* since2001 = object.values.size() == 1 ? std::get_if<double>(&object.values[0].data) : nullptr;
  if (since2001 == nullptr || object.values[0].type != 'd') return std::nullopt;
  const double seconds = *since2001 + kSecondsTo2001;
  // Also false for NaN.
  if (!(std::abs(seconds) < kFarthestDate)) return std::nullopt;
  return PropertyValue(NSDate::dateWithTimeIntervalSince1970(seconds));
}

std::optional<PropertyValue> Decoder::array(const Object& object, unsigned depth) {
  NSArray elements;
  for (size_t i = 1; i < object.values.size(); ++i) {
    std::optional<PropertyValue> element = decode(object.values[i], depth + 1);
    if (!element) return std::nullopt;
    elements.push_back(std::move(*element));
  }
  return PropertyValue(std::move(elements));
}

std::optional<PropertyValue> Decoder::dictionary(const Object& object, unsigned depth) {
  const auto pairs = entries(object);
  if (!pairs) return std::nullopt;
  auto dictionary = std::make_shared<NSDictionary>();
  std::unordered_set<std::string> seen;
  for (const auto& [key, value] : *pairs) {
    std::optional<std::string> name = text(*key);
    std::optional<PropertyValue> item = name ? decode(*value, depth + 1) : std::nullopt;
    if (!item || !seen.insert(*name).second) return std::nullopt;
    dictionary->setObject(std::move(*item), *name);
  }
  return PropertyValue(std::shared_ptr<const NSDictionary>(std::move(dictionary)));
}

}  // namespace

std::optional<int64_t> NSUnarchiver::integerValue(const Value& value) {
  if (const auto* number = std::get_if<int64_t>(&value.data)) return *number;
  const auto* number = std::get_if<uint64_t>(&value.data);
  if (number == nullptr || *number > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
    return std::nullopt;
  return static_cast<int64_t>(*number);
}

std::optional<bool> NSUnarchiver::boolValue(const Value& value) {
  const std::optional<int64_t> number = integerValue(value);
  if ((value.type != 'c' && value.type != 'B') || !number || (*number != 0 && *number != 1))
    return std::nullopt;
  return *number == 1;
}

std::optional<std::string> NSUnarchiver::stringValue(const TypedStream& stream, const Value& value) {
  return Decoder(stream).text(value);
}

std::optional<std::vector<std::pair<std::string, std::string>>> NSUnarchiver::stringDictionaryValue(
    const TypedStream& stream, const Value& value) {
  const TypedStream::Object* object = objectOf(stream, value);
  Decoder decoder(stream);
  const auto pairs = object != nullptr ? decoder.entries(*object) : std::nullopt;
  if (!pairs) return std::nullopt;
  std::vector<std::pair<std::string, std::string>> texts;
  // Grown once: growing in steps would leave copies of short secrets behind.
  texts.reserve(pairs->size());
  std::unordered_set<std::string> seen;
  for (const auto& [key, item] : *pairs) {
    std::optional<std::string> name = decoder.text(*key);
    std::optional<std::string> contents = name ? decoder.text(*item) : std::nullopt;
    if (!contents || !seen.insert(*name).second) return std::nullopt;
    texts.emplace_back(std::move(*name), std::move(*contents));
  }
  return texts;
}

std::optional<PropertyValue> NSUnarchiver::propertyValue(const TypedStream& stream, const Value& value) {
  return Decoder(stream).decode(value, 1);
}

}  // namespace ombra
