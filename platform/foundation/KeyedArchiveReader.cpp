// The table of objects and their classes.
#include "platform/foundation/KeyedArchiveReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/KeyedArchiveFormat.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/PropertyListScan.h"
#include "platform/foundation/Unicode.h"

namespace ombra {
namespace {

constexpr size_t kMaximumShownClassName = 128;

// Each known class and how it is read.
struct KnownKind {
  std::string_view className;
  std::string_view kind;
};
constexpr std::array<KnownKind, 15> kKnownKinds = {{{"NSError", "error"},
                                                    {"NSDictionary", "dictionary"},
                                                    {"NSMutableDictionary", "dictionary"},
                                                    {"NSArray", "array"},
                                                    {"NSMutableArray", "array"},
                                                    {"NSSet", "array"},
                                                    {"NSMutableSet", "array"},
                                                    {"NSString", "string"},
                                                    {"NSMutableString", "string"},
                                                    {"NSData", "data"},
                                                    {"NSMutableData", "data"},
                                                    {"NSDate", "date"},
                                                    {"NSURL", "url"},
                                                    {"NSUUID", "uuid"},
                                                    {"NSNull", "null"}}};

std::string_view kindOf(std::string_view className) {
  for (const KnownKind& known : kKnownKinds) {
    if (known.className == className) return known.kind;
  }
  return {};
}

bool isType(plist_t node, plist_type type) { return node != nullptr && plist_get_node_type(node) == type; }

}  // namespace

bool KeyedArchiveReader::fail(std::string_view fault) {
  if (iFault.empty()) iFault.append("the archive is refused: ").append(fault);
  return false;
}

KeyedArchiveReader::Fields KeyedArchiveReader::fieldsOf(plist_t dictionary) {
  Fields fields;
  // The first of two fields of one name counts, as in the library's own look-up.
  for (auto& [key, item] : dictionaryItems(dictionary)) fields.emplace(std::move(key), item);
  return fields;
}

// In XML a reference is a dictionary with one certain key, which the library leaves as it is.
std::optional<uint64_t> KeyedArchiveReader::referenceOf(plist_t node) {
  uint64_t index = 0;
  if (isType(node, PLIST_UID)) {
    plist_get_uid_val(node, &index);
    return index;
  }
  if (!isType(node, PLIST_DICT) || plist_dict_get_size(node) != 1) return std::nullopt;
  plist_t number = plist_dict_get_item(node, "CF$UID");
  if (!isType(number, PLIST_UINT)) return std::nullopt;
  plist_get_uint_val(number, &index);
  return index;
}

NSErrorRef KeyedArchiveReader::readError(plist_t archive) {
  uint64_t root = 0;
  if (!readTop(archive, root)) return nullptr;
  Weight weight;
  const PropertyValue* value = object(root, 1, weight);
  if (value == nullptr) return nullptr;
  NSErrorRef error = value->asError();
  if (error == nullptr) fail("its root is no error");
  return error;
}

bool KeyedArchiveReader::readTop(plist_t archive, uint64_t& root) {
  if (!isType(archive, PLIST_DICT)) return fail("it is no dictionary");
  const Fields fields = fieldsOf(archive);
  const auto field = [&fields](std::string_view name, plist_type type) {
    const auto found = fields.find(name);
    return found != fields.end() && isType(found->second, type) ? found->second : nullptr;
  };
  plist_t archiver = field("$archiver", PLIST_STRING);
  plist_t version = field("$version", PLIST_UINT);
  plist_t top = field("$top", PLIST_DICT);
  plist_t objects = field("$objects", PLIST_ARRAY);
  if (archiver == nullptr || version == nullptr || top == nullptr || objects == nullptr) {
    return fail("it is no keyed archive");
  }
  uint64_t number = 0;
  plist_get_uint_val(version, &number);
  if (stringOf(archiver) != kArchiverName || number != kArchiveVersion)
    return fail("it is of an unknown version");
  const std::optional<uint64_t> reference = referenceOf(plist_dict_get_item(top, "root"));
  if (!reference) return fail("it has no root");
  root = *reference;
  for (plist_t node : arrayItems(objects)) iObjects.push_back({node, State::kUnseen, {}, {}});
  return !iObjects.empty() || fail("it holds no objects");
}

const PropertyValue* KeyedArchiveReader::object(uint64_t index, unsigned depth, Weight& weight) {
  if (index >= iObjects.size()) return fail("a reference points past the last object"), nullptr;
  if (depth > kMaximumArchiveDepth) return fail("it is nested too deeply"), nullptr;
  if (++iSteps > 10 * iObjects.size()) return fail("its objects are used too often"), nullptr;
  // The table is complete before decoding begins, so this stays where it is.
  Entry& entry = iObjects[index];
  if (entry.state == State::kInProgress) return fail("an object contains itself"), nullptr;
  if (entry.state == State::kUnseen) {
    entry.state = State::kInProgress;
    // Index 0 means "none", whatever stands there.
    if (index != 0 && !decode(entry, depth)) return nullptr;
    entry.state = State::kDone;
  }
  weight.nodes += entry.weight.nodes;
  weight.bytes += entry.weight.bytes;
  if (weight.nodes > kMaximumPropertyListNodes || weight.bytes > kMaximumPropertyListBytes) {
    return fail("its contents are too large"), nullptr;
  }
  return &entry.value;
}

// Texts, numbers and data stand in the table as they are; everything else is a dictionary with a class.
bool KeyedArchiveReader::decode(Entry& entry, unsigned depth) {
  switch (plist_get_node_type(entry.node)) {
    case PLIST_DICT:
      return decodeKeyed(entry, depth);
    case PLIST_STRING:
      entry.value = stringOf(entry.node);
      entry.weight.bytes = entry.value.asString()->size();
      return isValidUTF8(*entry.value.asString()) || fail("a text is no UTF-8");
    case PLIST_DATA:
      entry.value = dataOf(entry.node);
      entry.weight.bytes = entry.value.asData()->size();
      return true;
    case PLIST_BOOLEAN:
    case PLIST_UINT:
    case PLIST_REAL:
    case PLIST_DATE:
      entry.value = propertyValueOf(entry.node);
      return true;
    default:
      return fail("an object is of an unknown kind");
  }
}

bool KeyedArchiveReader::decodeKeyed(Entry& entry, unsigned depth) {
  const Fields fields = fieldsOf(entry.node);
  std::string kind;
  std::string name;
  if (!knownClass(fields, kind, name)) return false;
  if (!kind.empty()) return decodeKind(kind, fields, entry, depth);
  // One odd value must not lose the error that carries it.
  entry.value = fmt::format("object of class {}", sanitizedUTF8(name.substr(0, kMaximumShownClassName)));
  entry.weight.bytes = entry.value.asString()->size();
  return true;
}

bool KeyedArchiveReader::decodeKind(std::string_view kind, const Fields& fields, Entry& entry,
                                    unsigned depth) {
  if (kind == "error") return readErrorObject(fields, entry, depth);
  if (kind == "dictionary") return readDictionary(fields, entry, depth);
  if (kind == "array") return readArray(fields, entry, depth);
  if (kind == "string") return readInline(fields, "NS.string", PLIST_STRING, entry);
  if (kind == "data") return readInline(fields, "NS.data", PLIST_DATA, entry);
  if (kind == "date") return readDate(fields, entry);
  if (kind == "url") return readURL(fields, entry, depth);
  if (kind == "uuid") return readUUID(fields, entry);
  entry.value = PropertyValue();
  return true;
}

bool KeyedArchiveReader::knownClass(const Fields& fields, std::string& kind, std::string& name) {
  const auto reference = fields.find("$class");
  const std::optional<uint64_t> index =
      reference != fields.end() ? referenceOf(reference->second) : std::nullopt;
  if (!index || *index >= iObjects.size()) return fail("an object has no class");
  plist_t description = iObjects[*index].node;
  if (!isType(description, PLIST_DICT)) return fail("a class is malformed");
  const Fields classFields = fieldsOf(description);
  const auto className = classFields.find("$classname");
  if (className == classFields.end() || !isType(className->second, PLIST_STRING))
    return fail("a class is malformed");
  name = stringOf(className->second);
  kind = kindOf(name);
  const auto chain = classFields.find("$classes");
  if (!kind.empty() || chain == classFields.end()) return true;
  if (!isType(chain->second, PLIST_ARRAY)) return fail("a class is malformed");
  for (plist_t superclass : arrayItems(chain->second)) {
    if (!isType(superclass, PLIST_STRING)) return fail("a class is malformed");
    if (kind.empty()) kind = kindOf(stringOf(superclass));
  }
  return true;
}

bool KeyedArchiveReader::indices(const Fields& fields, std::string_view key, std::vector<uint64_t>& result) {
  const auto list = fields.find(key);
  if (list == fields.end() || !isType(list->second, PLIST_ARRAY)) return fail("a container has no contents");
  for (plist_t item : arrayItems(list->second)) {
    const std::optional<uint64_t> index = referenceOf(item);
    if (!index) return fail("a container holds something that is no reference");
    result.push_back(*index);
  }
  return true;
}

}  // namespace ombra
