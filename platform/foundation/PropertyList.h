// Property lists and the values of this program, over the property-list library. For this folder's own
// sources.
#pragma once

#include <plist/plist.h>

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/NSDictionary.h"

namespace ombra {

struct PropertyListDeleter {
  void operator()(void* node) const { plist_free(node); }
};
// Owns a tree; containers own their children.
using PropertyListRef = std::unique_ptr<void, PropertyListDeleter>;

// The tree in `data`, binary or XML, after its bounds were checked. Null, with `reason` filled, for anything
// else.
PropertyListRef parsePropertyList(std::span<const uint8_t> data, std::string* reason);

// Both forms of `root`. Empty when the library fails.
NSData binaryPropertyList(plist_t root);
NSData XMLPropertyList(plist_t root);

// The children in order, without the library's linear look-ups.
std::vector<plist_t> arrayItems(plist_t array);
std::vector<std::pair<std::string, plist_t>> dictionaryItems(plist_t dictionary);
// Copies of a node's contents; the node must be of that type.
std::string stringOf(plist_t node);
NSData dataOf(plist_t node);

// `node` as a value; recursion is as deep as the tree, which the bounds hold to 64 levels. Reference numbers
// have no value and read as null.
PropertyValue propertyValueOf(plist_t node);
// The reverse. Null for what no property list can hold: errors, nulls, texts that are not valid UTF-8 or hold
// control characters, and nesting over 64 levels.
PropertyListRef propertyListOf(const PropertyValue& value);

}  // namespace ombra
