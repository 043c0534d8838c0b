// The non-keyed archive format ("typedstream"): a generic reader with bounds, and the matching writer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/foundation/NSDictionary.h"

namespace ombra {

// What an archive holds, as tables: objects refer to each other by index, so that cycles cost nothing.
struct TypedStream {
  struct Class {
    std::string name;
    int64_t version = 0;
    std::optional<uint32_t> superclass;  // index into slots
  };
  struct ObjectRef {
    uint32_t index = 0;
  };
  struct Nil {};
  struct Bytes {  // a '+' string, or the text of a selector, an atom or a C string
    std::string bytes;
  };
  struct Value {
    char type = 0;  // the type code that it was read or is to be written as
    std::variant<Nil, int64_t, uint64_t, double, Bytes, ObjectRef, std::vector<Value>> data;
  };
  struct Object {
    uint32_t classIndex = 0;
    std::vector<Value> values;       // of all groups, flattened
    std::vector<std::string> groups; // the type encoding of each group, in order
  };
  using Slot = std::variant<Nil, Object, Class, Bytes>;
  std::vector<Slot> slots;
  std::optional<uint32_t> root;  // absent when the root is nil

  const Object* object(uint32_t index) const { return std::get_if<Object>(&slots.at(index)); }
  // The class name of an object, empty when the index is no object.
  std::string className(uint32_t index) const;
};

// Reads one archive made of one root object. Absent, with `reason` filled (no contents in it, since records may
// hold secrets), for malformed data and for anything over the limits: 1 MiB, 64 levels, 100,000 objects,
// 16,384 strings, 500,000 groups, class chains of 32.
class NSUnarchiver {
 public:
  static std::optional<TypedStream> unarchiveStream(const NSData& data, std::string* reason);

  // Typed views of the classes that records are made of; absent when the slot is another class, another version
  // or malformed.
  static std::optional<std::string> stringValue(const TypedStream& stream, const TypedStream::Value& value);
  static std::optional<std::vector<std::pair<std::string, std::string>>> stringDictionaryValue(
      const TypedStream& stream, const TypedStream::Value& value);
};

// Writes one archive, little-endian, with the sharing of strings, classes and objects that the format asks for.
class NSArchiver {
 public:
  // `className`, `version`, superclass NSObject 0; then one group per field.
  struct Field {
    enum class Type { kUnsignedInt, kInt, kString, kStringDictionary } type;
    std::optional<std::string> text;                               // kString; absent is nil
    int64_t number = 0;                                            // kUnsignedInt ('I'), kInt ('i')
    std::vector<std::pair<std::string, std::string>> dictionary;   // kStringDictionary
  };
  static NSData archivedDataWithRecord(std::string_view className, int64_t version, const std::vector<Field>& fields);
  // Any stream, as read: the same bytes come out again for every archive that a canonical writer made.
  static NSData archivedDataWithStream(const TypedStream& stream);
};

// Overwrites the bytes before they are given back, for buffers that held secrets.
void wipe(NSData& data);
void wipe(std::string& text);

}  // namespace ombra
