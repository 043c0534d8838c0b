// The non-keyed archive format ("typedstream"): a generic reader with bounds, and the matching writer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/foundation/NSDictionary.h"

namespace ombra {

// Overwrites the bytes before they are given back, for buffers that held secrets.
void wipe(NSData& data);
void wipe(std::string& text);

// What an archive holds, as tables: objects refer to each other by index, so that cycles cost nothing. A walk
// along the references must be bounded by its caller: a few hundred bytes can stand for 10^12 leaves.
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
  // A '+' string, the contents of a [Nc], or the text of a selector, an atom or a C string. Wiped when it
  // ends.
  struct Bytes {
    std::string bytes;
    Bytes() = default;
    explicit Bytes(std::string contents) : bytes(std::move(contents)) {}
    Bytes(const Bytes&) = default;
    Bytes(Bytes&&) = default;
    Bytes& operator=(const Bytes&) = default;
    Bytes& operator=(Bytes&&) = default;
    ~Bytes() { wipe(bytes); }
  };
  // One value, by its type code:
  //   c s i l q           int64_t
  //   C B S I L Q         uint64_t
  //   f d                 double
  //   + : %               Bytes, or Nil
  //   @                   ObjectRef to an object (from very old archives also to a class), or Nil
  //   #                   ObjectRef to a class, or Nil
  //   *                   ObjectRef to a slot of Bytes, or Nil
  //   [                   Bytes for characters, else one Value per element
  //   {                   one Value per field
  // '!' has no bytes and no value.
  struct Value {
    char type = 0;
    std::variant<Nil, int64_t, uint64_t, double, Bytes, ObjectRef, std::vector<Value>> data;
  };
  struct Object {
    uint32_t classIndex = 0;
    std::vector<Value> values;        // of all groups, flattened
    std::vector<std::string> groups;  // the type encoding of each group, in order
  };
  using Slot = std::variant<Nil, Object, Class, Bytes>;
  std::vector<Slot> slots;
  std::optional<uint32_t> root;  // absent when the root is nil

  // What stands outside of all objects: one group "@" with the root, unless a reader asked for other groups.
  // A writer takes an empty list of groups as that one.
  std::vector<Value> values;
  std::vector<std::string> groups;

  const Object* object(uint32_t index) const { return std::get_if<Object>(&slots.at(index)); }
  // The class name of an object, empty when the index is no object.
  std::string className(uint32_t index) const;
};

// Reads one archive made of one root object. Absent, with `reason` filled (no contents in it, since records
// may hold secrets), for malformed data and for anything over the limits: 1 MiB, 64 levels, 100,000 objects,
// 16,384 strings, 500,000 groups, class chains of 32.
class NSUnarchiver {
 public:
  static std::optional<TypedStream> unarchiveStream(const NSData& data, std::string* reason);
  // The same for an archive of any groups, also none: `root` stays absent.
  static std::optional<TypedStream> unarchiveGroups(const NSData& data, std::string* reason);

  // Typed views of the classes that records are made of; absent when the slot is another class, another
  // version or malformed. Texts are valid UTF-8. A view of a container costs at most 100,000 elements and 16
  // MiB.
  static std::optional<std::string> stringValue(const TypedStream& stream, const TypedStream::Value& value);
  // Duplicate keys make it malformed.
  static std::optional<std::vector<std::pair<std::string, std::string>>> stringDictionaryValue(
      const TypedStream& stream, const TypedStream::Value& value);
  // Any of NSString, NSNumber, NSData, NSDate, NSArray, NSSet, NSDictionary, NSNull and their mutable kinds,
  // with what they hold. nil and NSNull are null; a set is an array. A Boolean number cannot be told from a
  // small one.
  static std::optional<PropertyValue> propertyValue(const TypedStream& stream,
                                                    const TypedStream::Value& value);
  // An integer of any type code.
  static std::optional<int64_t> integerValue(const TypedStream::Value& value);
  // A Boolean, which is 'c' or 'B' depending on the machine that wrote it.
  static std::optional<bool> boolValue(const TypedStream::Value& value);
};

// Writes one archive, little-endian, with the sharing of strings, classes and objects that the format asks
// for.
class NSArchiver {
 public:
  // `className`, `version`, superclass NSObject 0; then one group per field.
  struct Field {
    enum class Type { kUnsignedInt, kInt, kString, kStringDictionary } type;
    std::optional<std::string> text;                              // kString; absent is nil
    int64_t number = 0;                                           // kUnsignedInt ('I'), kInt ('i')
    std::vector<std::pair<std::string, std::string>> dictionary;  // kStringDictionary
  };
  static NSData archivedDataWithRecord(std::string_view className, int64_t version,
                                       const std::vector<Field>& fields);
  // Any stream, as read: the same bytes come out again for every archive that a canonical writer made. Empty
  // when the stream does not hang together: values that do not fit their encodings, indices out of range, 64
  // levels.
  static NSData archivedDataWithStream(const TypedStream& stream);
};

}  // namespace ombra
