// The tables of the archive: numbers, strings, classes, objects, groups.
#include "platform/foundation/TypedStreamReader.h"

#include <fmt/format.h>

#include <algorithm>

#include "platform/foundation/TypedStreamTags.h"

namespace ombra {
namespace {

constexpr size_t kMaximumArchiveSize = size_t{1} << 20;
constexpr size_t kMaximumSlots = 100000;
constexpr size_t kMaximumStrings = 16384;
constexpr size_t kMaximumGroups = 500000;
constexpr size_t kMaximumCopiedBytes = size_t{16} << 20;
constexpr unsigned kMaximumClassChain = 32;
constexpr size_t kMaximumClassNameLength = 128;

bool isClassName(std::string_view name) {
  return !name.empty() && name.size() <= kMaximumClassNameLength &&
         std::all_of(name.begin(), name.end(), [](char c) { return c >= 0x20 && c <= 0x7E; });
}

}  // namespace

bool TypedStreamReader::fail(const char* fault) {
  if (iFault == nullptr) iFault = fault;
  return false;
}

std::string TypedStreamReader::fault() const {
  return fmt::format("the archive is refused at byte {}: {}", iAt, iFault != nullptr ? iFault : "no fault");
}

bool TypedStreamReader::charge(size_t bytes) {
  iCopiedBytes += bytes;
  return iCopiedBytes <= kMaximumCopiedBytes || fail("its texts are repeated too often");
}

bool TypedStreamReader::read() {
  if (iData.size() > kMaximumArchiveSize) return fail("it is too large");
  if (!readHeader()) return false;
  while (left() > 0) {
    int8_t head = 0;
    if (!readHead(head) || !groupAfterHead(head, iStream.values, iStream.groups)) return false;
  }
  return true;
}

bool TypedStreamReader::readHeader() {
  int8_t version = 0;
  int8_t length = 0;
  std::string_view signature;
  if (!readHead(version) || !readHead(length)) return false;
  if (version != kStreamerVersion || length != static_cast<int8_t>(kLittleEndianSignature.size())) {
    return fail("it is no archive of the known version");
  }
  if (!takeBytes(kLittleEndianSignature.size(), signature)) return false;
  iIsBigEndian = signature == kBigEndianSignature;
  if (!iIsBigEndian && signature != kLittleEndianSignature) return fail("its signature is unknown");
  int64_t systemVersion = 0;
  if (!readInt(systemVersion)) return false;
  return (systemVersion >= 0 && systemVersion <= INT32_MAX) || fail("its system version is impossible");
}

bool TypedStreamReader::readHead(int8_t& head) {
  if (left() == 0) return fail("it is cut off");
  // Signed on every machine; plain char is not.
  head = static_cast<int8_t>(iData[iAt++]);
  return true;
}

bool TypedStreamReader::readFixed(size_t size, uint64_t& bits) {
  if (size > left()) return fail("a number is cut off");
  bits = 0;
  for (size_t i = 0; i < size; ++i) {
    const size_t place = iIsBigEndian ? size - 1 - i : i;
    bits |= static_cast<uint64_t>(iData[iAt + i]) << (8 * place);
  }
  iAt += size;
  return true;
}

bool TypedStreamReader::takeBytes(uint64_t length, std::string_view& bytes) {
  if (length > left()) return fail("a text is longer than the archive");
  bytes = {reinterpret_cast<const char*>(iData.data()) + iAt, static_cast<size_t>(length)};
  iAt += length;
  return true;
}

bool TypedStreamReader::readInt(int64_t& number) {
  int8_t head = 0;
  return readHead(head) && intAfterHead(head, number);
}

bool TypedStreamReader::intAfterHead(int8_t head, int64_t& number) {
  number = head;
  if (head >= kLowestPlainNumber) return true;
  uint64_t bits = 0;
  switch (head) {
    case kTagInt16:
      if (!readFixed(2, bits)) return false;
      number = static_cast<int16_t>(bits);
      return true;
    case kTagInt32:
      if (!readFixed(4, bits)) return false;
      number = static_cast<int32_t>(bits);
      return true;
    case kTagInt64:
      if (!readFixed(8, bits)) return false;
      number = static_cast<int64_t>(bits);
      return true;
    default:
      return fail("a number begins with an unexpected tag");
  }
}

// A length of two bytes may be meant unsigned: some writers make those for 32 KiB and more.
bool TypedStreamReader::rawLength(int8_t head, uint64_t& length) {
  int64_t number = 0;
  if (!intAfterHead(head, number)) return false;
  if (number < 0 && head == kTagInt16) number += 65536;
  length = static_cast<uint64_t>(number);
  return number >= 0 || fail("a length is negative");
}

bool TypedStreamReader::readRawString(bool& isNil, std::string_view& bytes) {
  int8_t head = 0;
  if (!readHead(head)) return false;
  isNil = head == kTagNil;
  uint64_t length = 0;
  return isNil || (rawLength(head, length) && takeBytes(length, bytes));
}

bool TypedStreamReader::sharedStringAfterHead(int8_t head, bool& isNil, uint32_t& index) {
  isNil = head == kTagNil;
  if (isNil) return true;
  if (head != kTagNew) return tableIndexAfterHead(head, iStrings.size(), index);
  bool contentsNil = false;
  std::string_view bytes;
  if (!readRawString(contentsNil, bytes)) return false;
  if (contentsNil) return fail("a new text is nil");
  return addString(bytes, index);
}

bool TypedStreamReader::addString(std::string_view bytes, uint32_t& index) {
  if (iStrings.size() >= kMaximumStrings) return fail("it holds too many texts");
  index = static_cast<uint32_t>(iStrings.size());
  iStrings.emplace_back(bytes);
  iEncodings.emplace_back();
  return true;
}

bool TypedStreamReader::tableIndexAfterHead(int8_t head, size_t tableSize, uint32_t& index) {
  int64_t reference = 0;
  if (!intAfterHead(head, reference)) return false;
  // Compared before the subtraction, which could overflow.
  if (reference < kFirstReference || reference > INT32_MAX) return fail("a reference is out of range");
  const int64_t place = reference - kFirstReference;
  if (place >= static_cast<int64_t>(tableSize)) return fail("a reference is out of range");
  index = static_cast<uint32_t>(place);
  return true;
}

bool TypedStreamReader::addSlot(TypedStream::Slot slot, uint32_t& index) {
  if (iStream.slots.size() >= kMaximumSlots) return fail("it holds too many objects");
  index = static_cast<uint32_t>(iStream.slots.size());
  iStream.slots.push_back(std::move(slot));
  return true;
}

// A class with its superclasses; absent for nil.
bool TypedStreamReader::readClass(std::optional<uint32_t>& index) {
  const auto first = static_cast<uint32_t>(iStream.slots.size());
  std::optional<uint32_t> last;
  for (unsigned length = 0; length <= kMaximumClassChain; ++length) {
    int8_t head = 0;
    if (!readHead(head)) return false;
    if (head != kTagNew) {
      if (!endClassChain(head, first, last)) return false;
      index = iStream.slots.size() > first ? std::optional<uint32_t>(first) : last;
      return true;
    }
    if (!readNewClass(last)) return false;
  }
  return fail("a class has too many superclasses");
}

// Reads name and version of a new class, makes it the superclass of `subclass`, and takes its place.
bool TypedStreamReader::readNewClass(std::optional<uint32_t>& subclass) {
  uint32_t index = 0;
  // Its number comes before everything that is read for it.
  if (!addSlot(TypedStream::Class{}, index)) return false;
  int8_t head = 0;
  bool isNil = false;
  uint32_t name = 0;
  if (!readHead(head) || !sharedStringAfterHead(head, isNil, name)) return false;
  if (isNil || !isClassName(iStrings[name])) return fail("a class has no proper name");
  int64_t version = 0;
  if (!readInt(version)) return false;
  if (version < INT32_MIN || version > INT32_MAX) return fail("a class version is out of range");
  iStream.slots[index] = TypedStream::Class{iStrings[name], version, std::nullopt};
  if (subclass) std::get<TypedStream::Class>(iStream.slots[*subclass]).superclass = index;
  subclass = index;
  return true;
}

// The end of a chain: nil, or a class that was complete before the chain began (`first` is its first number).
// `last` is the chain's last new class and becomes the class itself when the chain has no new one.
bool TypedStreamReader::endClassChain(int8_t head, uint32_t first, std::optional<uint32_t>& last) {
  if (head == kTagNil) return true;
  uint32_t index = 0;
  if (!tableIndexAfterHead(head, iStream.slots.size(), index)) return false;
  if (index >= first) return fail("a class is its own superclass");
  if (!std::holds_alternative<TypedStream::Class>(iStream.slots[index])) {
    return fail("a reference to a class points to something else");
  }
  if (!last) {
    last = index;
    return true;
  }
  std::get<TypedStream::Class>(iStream.slots[*last]).superclass = index;
  return checkChainLength(index, iStream.slots.size() - first);
}

// A chain may be made of pieces that were read one after the other.
bool TypedStreamReader::checkChainLength(uint32_t superclass, size_t newClasses) {
  size_t length = newClasses;
  // Ends: finished chains hold no circles.
  for (std::optional<uint32_t> at = superclass; at; ++length) {
    at = std::get<TypedStream::Class>(iStream.slots[*at]).superclass;
  }
  return length <= kMaximumClassChain || fail("a class has too many superclasses");
}

bool TypedStreamReader::readNewObject(uint32_t& index) {
  if (iDepth >= kMaximumStreamDepth) return fail("it is nested too deeply");
  // An entry before the contents: they may refer back to it, and cycles are legal.
  if (!addSlot(TypedStream::Object{}, index)) return false;
  std::optional<uint32_t> objectClass;
  if (!readClass(objectClass)) return false;
  if (!objectClass) return fail("an object has no class");
  TypedStream::Object object;
  object.classIndex = *objectClass;
  ++iDepth;
  const bool complete = readObjectBody(object);
  --iDepth;
  iStream.slots[index] = std::move(object);
  return complete;
}

bool TypedStreamReader::readObjectBody(TypedStream::Object& object) {
  while (true) {
    int8_t head = 0;
    if (!readHead(head)) return false;
    if (head == kTagEnd) return true;
    if (!groupAfterHead(head, object.values, object.groups)) return false;
  }
}

bool TypedStreamReader::groupAfterHead(int8_t head, std::vector<Value>& values,
                                       std::vector<std::string>& groups) {
  if (++iGroups > kMaximumGroups) return fail("it holds too many groups");
  bool isNil = false;
  uint32_t index = 0;
  if (!sharedStringAfterHead(head, isNil, index)) return false;
  if (isNil) return fail("a group has no type encoding");
  const std::vector<TypeEncoding>* types = encodingAt(index);
  if (types == nullptr) return fail("a type encoding is malformed");
  if (!charge(std::max(iStrings[index].size(), sizeof(std::string)))) return false;
  groups.push_back(iStrings[index]);
  // The list of types stays where it is while values add strings.
  return std::all_of(types->begin(), types->end(),
                     [this, &values](const TypeEncoding& type) { return readValue(type, values); });
}

const std::vector<TypeEncoding>* TypedStreamReader::encodingAt(uint32_t stringIndex) {
  auto& encoding = iEncodings[stringIndex];
  if (encoding == nullptr) {
    auto types = parseTypeEncodings(iStrings[stringIndex]);
    if (!types) return nullptr;
    encoding = std::make_unique<const std::vector<TypeEncoding>>(std::move(*types));
  }
  return encoding.get();
}

}  // namespace ombra
