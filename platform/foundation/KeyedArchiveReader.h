// The reader behind NSKeyedUnarchiver. For this folder's own sources.
#pragma once

#include <plist/plist.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSError.h"

namespace ombra {

// Decodes one archive's table of objects. Each object is decoded once; one that is met again while it is
// being decoded is a cycle, which ends everything, as no error needs one. What the result would be when
// written out as a tree is bounded too, since whoever walks it meets shared objects once per mention.
class KeyedArchiveReader {
 public:
  // The root, if it is an error. Null, with the fault kept, for anything else.
  NSErrorRef readError(plist_t archive);
  const std::string& fault() const { return iFault; }

 private:
  enum class State : uint8_t { kUnseen, kInProgress, kDone };
  // What a value comes to as a tree.
  struct Weight {
    uint64_t nodes = 1;
    uint64_t bytes = 0;
  };
  struct Entry {
    plist_t node = nullptr;
    State state = State::kUnseen;
    PropertyValue value;
    Weight weight;
  };
  // A keyed object's fields by name.
  using Fields = std::map<std::string, plist_t, std::less<>>;

  bool fail(std::string_view fault);
  bool readTop(plist_t archive, uint64_t& root);

  // The value of object `index`, decoded now or before; null with a fault. Adds its weight to `weight`.
  const PropertyValue* object(uint64_t index, unsigned depth, Weight& weight);
  bool decode(Entry& entry, unsigned depth);
  bool decodeKeyed(Entry& entry, unsigned depth);
  bool decodeKind(std::string_view kind, const Fields& fields, Entry& entry, unsigned depth);

  bool readErrorObject(const Fields& fields, Entry& entry, unsigned depth);
  bool readUserInfo(const Fields& fields, Entry& entry, unsigned depth, NSDictionary& userInfo);
  bool readArray(const Fields& fields, Entry& entry, unsigned depth);
  bool readDictionary(const Fields& fields, Entry& entry, unsigned depth);
  bool readInline(const Fields& fields, std::string_view key, plist_type type, Entry& entry);
  bool readDate(const Fields& fields, Entry& entry);
  bool readURL(const Fields& fields, Entry& entry, unsigned depth);
  bool readUUID(const Fields& fields, Entry& entry);

  // The class to decode an object as: its own or the first known one above it; empty when none is known.
  bool knownClass(const Fields& fields, std::string& kind, std::string& name);
  bool indices(const Fields& fields, std::string_view key, std::vector<uint64_t>& result);
  static Fields fieldsOf(plist_t dictionary);
  // The index that a reference node holds, in either form; absent for other nodes.
  static std::optional<uint64_t> referenceOf(plist_t node);

  std::string iFault;
  std::vector<Entry> iObjects;
  uint64_t iSteps = 0;
  // Errors inside each other, where the decoding is now.
  unsigned iErrorDepth = 0;
};

}  // namespace ombra
