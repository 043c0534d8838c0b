#include "platform/foundation/NSKeyedArchiver.h"

#include <map>
#include <string>
#include <vector>

#include "platform/foundation/KeyedArchiveFormat.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/Unicode.h"

namespace ombra {
namespace {

// Bounds on what one error may carry, within those that readers accept. A nested value needs two levels more
// for the contents of an error.
constexpr unsigned kMaximumWrittenDepth = kMaximumArchiveDepth - 2;
constexpr size_t kMaximumNodes = 80000;
constexpr size_t kNodesPerObject = 8;
constexpr size_t kNodesPerMention = 2;
constexpr size_t kMaximumContents = size_t{4} << 20;

void setItem(plist_t dictionary, const char* key, plist_t item) {
  plist_dict_set_item(dictionary, key, item);
}

// The table of objects. Index 0 stands for "none"; an object takes its index before its contents.
class ObjectTable {
 public:
  using UID = uint64_t;

  ObjectTable() { add(text(kNullText)); }

  UID addValue(const PropertyValue& value, unsigned depth, unsigned underlying);
  UID addError(const NSError& error, unsigned depth, unsigned underlying);

  // All objects as an array.
  PropertyListRef finish() {
    PropertyListRef array(plist_new_array());
    for (PropertyListRef& object : iObjects) plist_array_append_item(array.get(), object.release());
    return array;
  }

 private:
  static PropertyListRef text(std::string_view contents) {
    return PropertyListRef(plist_new_string(sanitizedUTF8(contents).c_str()));
  }
  UID add(PropertyListRef object) {
    iNodes += kNodesPerObject;
    iObjects.push_back(std::move(object));
    return iObjects.size() - 1;
  }
  UID placeholder(std::string_view contents) { return add(text(contents)); }
  // What comes after is left out.
  bool isFull() const { return iNodes > kMaximumNodes; }
  // True when that many bytes of contents still have room, which they take.
  bool takeRoom(size_t bytes) {
    if (bytes > kMaximumContents - iContents) return false;
    iContents += bytes;
    return true;
  }

  UID addScalar(const PropertyValue& value);
  UID addArray(const NSArray& values, unsigned depth, unsigned underlying);
  UID addDictionary(const NSDictionary& values, unsigned depth, unsigned underlying);
  UID addDate(NSDate date);
  // A key or a domain: those are shared. Values are not, so that no object is mentioned very often.
  UID addSharedText(const std::string& contents);
  UID addData(const NSData& contents);
  UID classFor(const char* name);

  std::vector<PropertyListRef> iObjects;
  std::map<std::string, UID> iTexts;
  std::map<std::string, UID> iClasses;
  size_t iNodes = 0;
  size_t iContents = 0;
};

ObjectTable::UID ObjectTable::addSharedText(const std::string& contents) {
  const auto found = iTexts.find(contents);
  if (found != iTexts.end()) return found->second;
  return iTexts[contents] = add(text(takeRoom(contents.size()) ? contents : "(a text too long)"));
}

ObjectTable::UID ObjectTable::addData(const NSData& contents) {
  if (!takeRoom(contents.size())) return placeholder("(data too long)");
  return add(
      PropertyListRef(plist_new_data(reinterpret_cast<const char*>(contents.data()), contents.size())));
}

// One description per class in an archive.
ObjectTable::UID ObjectTable::classFor(const char* name) {
  const auto found = iClasses.find(name);
  if (found != iClasses.end()) return found->second;
  plist_t chain = plist_new_array();
  plist_array_append_item(chain, plist_new_string(name));
  plist_array_append_item(chain, plist_new_string("NSObject"));
  PropertyListRef description(plist_new_dict());
  setItem(description.get(), "$classname", plist_new_string(name));
  setItem(description.get(), "$classes", chain);
  return iClasses[name] = add(std::move(description));
}

ObjectTable::UID ObjectTable::addValue(const PropertyValue& value, unsigned depth, unsigned underlying) {
  if (depth > kMaximumWrittenDepth) return placeholder("(a value nested too deeply)");
  if (const NSArray* array = value.asArray()) return addArray(*array, depth, underlying);
  if (const NSDictionary* dictionary = value.asDictionary())
    return addDictionary(*dictionary, depth, underlying);
  const NSErrorRef error = value.asError();
  if (error == nullptr) return addScalar(value);
  if (underlying >= kMaximumUnderlyingErrors) return placeholder("(an error too far beneath)");
  return addError(*error, depth, underlying + 1);
}

ObjectTable::UID ObjectTable::addScalar(const PropertyValue& value) {
  if (const std::string* contents = value.asString()) {
    return takeRoom(contents->size()) ? add(text(*contents)) : placeholder("(a text too long)");
  }
  if (const bool* boolean = value.asBoolean()) return add(PropertyListRef(plist_new_bool(*boolean ? 1 : 0)));
  // Readers take the 64 bits as a signed number.
  if (const int64_t* number = value.asInteger()) {
    return add(PropertyListRef(plist_new_uint(static_cast<uint64_t>(*number))));
  }
  if (const double* real = value.asReal()) return add(PropertyListRef(plist_new_real(*real)));
  if (const NSDate* date = value.asDate()) return addDate(*date);
  if (const NSData* data = value.asData()) return addData(*data);
  PropertyListRef null(plist_new_dict());
  setItem(null.get(), "$class", plist_new_uid(classFor("NSNull")));
  return add(std::move(null));
}

ObjectTable::UID ObjectTable::addDate(NSDate date) {
  const UID index = add(PropertyListRef(plist_new_dict()));
  setItem(iObjects[index].get(), "NS.time",
          plist_new_real(date.timeIntervalSince1970() - kArchiveDateOrigin));
  setItem(iObjects[index].get(), "$class", plist_new_uid(classFor("NSDate")));
  return index;
}

ObjectTable::UID ObjectTable::addArray(const NSArray& values, unsigned depth, unsigned underlying) {
  const UID index = add(PropertyListRef(plist_new_dict()));
  plist_t objects = plist_new_array();
  setItem(iObjects[index].get(), "NS.objects", objects);
  for (const PropertyValue& value : values) {
    if (isFull()) break;
    iNodes += kNodesPerMention;
    plist_array_append_item(objects, plist_new_uid(addValue(value, depth + 1, underlying)));
  }
  setItem(iObjects[index].get(), "$class", plist_new_uid(classFor("NSArray")));
  return index;
}

ObjectTable::UID ObjectTable::addDictionary(const NSDictionary& values, unsigned depth, unsigned underlying) {
  const UID index = add(PropertyListRef(plist_new_dict()));
  plist_t keys = plist_new_array();
  plist_t objects = plist_new_array();
  setItem(iObjects[index].get(), "NS.keys", keys);
  setItem(iObjects[index].get(), "NS.objects", objects);
  for (const auto& [key, value] : values) {
    if (isFull()) break;
    iNodes += 2 * kNodesPerMention;
    plist_array_append_item(keys, plist_new_uid(addSharedText(key)));
    plist_array_append_item(objects, plist_new_uid(addValue(value, depth + 1, underlying)));
  }
  setItem(iObjects[index].get(), "$class", plist_new_uid(classFor("NSDictionary")));
  return index;
}

ObjectTable::UID ObjectTable::addError(const NSError& error, unsigned depth, unsigned underlying) {
  const UID index = add(PropertyListRef(plist_new_dict()));
  plist_t object = iObjects[index].get();
  setItem(object, "NSCode", plist_new_uint(static_cast<uint64_t>(error.code())));
  setItem(object, "NSDomain", plist_new_uid(addSharedText(error.domain())));
  const UID userInfo = error.userInfo().empty() ? 0 : addDictionary(error.userInfo(), depth + 1, underlying);
  setItem(object, "NSUserInfo", plist_new_uid(userInfo));
  setItem(object, "$class", plist_new_uid(classFor("NSError")));
  return index;
}

}  // namespace

NSData NSKeyedArchiver::archivedDataWithRootObject(const NSErrorRef& error) {
  ObjectTable table;
  const uint64_t root = error != nullptr ? table.addError(*error, 1, 0) : 0;
  plist_t top = plist_new_dict();
  setItem(top, "root", plist_new_uid(root));
  const PropertyListRef archive(plist_new_dict());
  setItem(archive.get(), "$version", plist_new_uint(kArchiveVersion));
  setItem(archive.get(), "$archiver", plist_new_string(std::string(kArchiverName).c_str()));
  setItem(archive.get(), "$top", top);
  setItem(archive.get(), "$objects", table.finish().release());
  return binaryPropertyList(archive.get());
}

}  // namespace ombra
