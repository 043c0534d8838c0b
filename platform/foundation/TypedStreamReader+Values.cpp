// The values of the archive, by type.
#include <bit>

#include "platform/foundation/TypedStreamReader.h"
#include "platform/foundation/TypedStreamTags.h"

namespace ombra {
namespace {

// One byte of data can stand for several values when structures are nested.
constexpr size_t kMaximumValues = 500000;

}  // namespace

bool TypedStreamReader::readValue(const TypeEncoding& type, std::vector<Value>& values) {
  if (++iValues > kMaximumValues) return fail("it holds too many values");
  if (type.code == '!') return true;
  Value value{type.code, {}};
  bool complete = false;
  if (type.code == '[') {
    complete = readArray(type, value);
  } else if (type.code == '{') {
    complete = readStruct(type, value);
  } else {
    complete = readScalar(type.code, value);
  }
  if (complete) values.push_back(std::move(value));
  return complete;
}

bool TypedStreamReader::readScalar(char type, Value& value) {
  switch (type) {
    case 'c':
    case 'C':
    case 'B':
      return readByte(type, value);
    case 'f':
    case 'd':
      return readReal(type, value);
    case '@':
      return readObjectValue(value);
    case '#':
      return readClassValue(value);
    case '*':
      return readCString(value);
    case ':':
    case '%':
      return readSharedStringValue(value);
    case '+':
      return readRawStringValue(value);
    default:
      return readInteger(type, value);
  }
}

// Raw bytes: tags have no meaning here.
bool TypedStreamReader::readByte(char type, Value& value) {
  int8_t byte = 0;
  if (!readHead(byte)) return false;
  if (type == 'B' && byte != 0 && byte != 1) return fail("a Boolean is neither 0 nor 1");
  if (type == 'c') {
    value.data = int64_t{byte};
  } else {
    value.data = uint64_t{static_cast<uint8_t>(byte)};
  }
  return true;
}

// Numbers are written as signed ones of their width, whatever their type: an unsigned 2^64-3 is one byte, -3.
bool TypedStreamReader::readInteger(char type, Value& value) {
  int64_t number = 0;
  if (!readInt(number)) return false;
  const unsigned width = integerWidth(type);
  if (width < 64) {
    const int64_t half = int64_t{1} << (width - 1);
    if (number < -half || number >= 2 * half) return fail("a number does not fit its type");
  }
  const unsigned unused = 64 - width;
  const uint64_t bits = static_cast<uint64_t>(number) << unused;
  if (isUnsignedType(type)) {
    value.data = bits >> unused;
  } else {
    value.data = static_cast<int64_t>(bits) >> unused;
  }
  return true;
}

bool TypedStreamReader::readReal(char type, Value& value) {
  int8_t head = 0;
  if (!readHead(head)) return false;
  uint64_t bits = 0;
  int64_t whole = 0;
  if (head != kTagReal) {
    if (!intAfterHead(head, whole)) return false;
    value.data = type == 'f' ? static_cast<double>(static_cast<float>(whole)) : static_cast<double>(whole);
  } else if (type == 'f') {
    if (!readFixed(4, bits)) return false;
    value.data = static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(bits)));
  } else {
    if (!readFixed(8, bits)) return false;
    value.data = std::bit_cast<double>(bits);
  }
  return true;
}

bool TypedStreamReader::readObjectValue(Value& value) {
  int8_t head = 0;
  if (!readHead(head)) return false;
  if (head == kTagNil) return true;
  uint32_t index = 0;
  if (head == kTagNew) {
    if (!readNewObject(index)) return false;
  } else {
    if (!tableIndexAfterHead(head, iStream.slots.size(), index)) return false;
    // Very old archives point to classes too; such a value is never taken for an object.
    const TypedStream::Slot& slot = iStream.slots[index];
    if (!std::holds_alternative<TypedStream::Object>(slot) &&
        !std::holds_alternative<TypedStream::Class>(slot)) {
      return fail("a reference to an object points to something else");
    }
  }
  value.data = TypedStream::ObjectRef{index};
  return true;
}

bool TypedStreamReader::readClassValue(Value& value) {
  std::optional<uint32_t> index;
  if (!readClass(index)) return false;
  if (index) value.data = TypedStream::ObjectRef{*index};
  return true;
}

// Takes a number of the object table and wraps a shared string.
bool TypedStreamReader::readCString(Value& value) {
  int8_t head = 0;
  if (!readHead(head)) return false;
  if (head == kTagNil) return true;
  uint32_t index = 0;
  if (head != kTagNew) {
    if (!tableIndexAfterHead(head, iStream.slots.size(), index)) return false;
    if (!std::holds_alternative<TypedStream::Bytes>(iStream.slots[index])) {
      return fail("a reference to a C string points to something else");
    }
  } else {
    if (!addSlot(TypedStream::Bytes(), index)) return false;
    bool isNil = false;
    uint32_t text = 0;
    if (!readHead(head) || !sharedStringAfterHead(head, isNil, text)) return false;
    if (isNil) return fail("a new C string is nil");
    if (!charge(iStrings[text].size())) return false;
    iStream.slots[index] = TypedStream::Bytes(iStrings[text]);
  }
  value.data = TypedStream::ObjectRef{index};
  return true;
}

bool TypedStreamReader::readSharedStringValue(Value& value) {
  int8_t head = 0;
  bool isNil = false;
  uint32_t index = 0;
  if (!readHead(head) || !sharedStringAfterHead(head, isNil, index)) return false;
  if (isNil) return true;
  if (!charge(iStrings[index].size())) return false;
  value.data = TypedStream::Bytes(iStrings[index]);
  return true;
}

bool TypedStreamReader::readRawStringValue(Value& value) {
  bool isNil = false;
  std::string_view bytes;
  if (!readRawString(isNil, bytes)) return false;
  if (!isNil) value.data = TypedStream::Bytes(std::string(bytes));
  return true;
}

bool TypedStreamReader::readArray(const TypeEncoding& type, Value& value) {
  if (type.minimumBytes > left()) return fail("an array is longer than the archive");
  // Elements without bytes would be counted, not read.
  if (type.parts.front().minimumBytes == 0 && type.count > 1) return fail("an array of nothing has a length");
  if (type.isCharacterArray()) {
    std::string_view bytes;
    if (!takeBytes(type.count, bytes)) return false;
    value.data = TypedStream::Bytes(std::string(bytes));
    return true;
  }
  if (iDepth >= kMaximumStreamDepth) return fail("it is nested too deeply");
  std::vector<Value> elements;
  ++iDepth;
  bool complete = true;
  for (uint64_t i = 0; complete && i < type.count; ++i) complete = readValue(type.parts.front(), elements);
  --iDepth;
  value.data = std::move(elements);
  return complete;
}

bool TypedStreamReader::readStruct(const TypeEncoding& type, Value& value) {
  if (iDepth >= kMaximumStreamDepth) return fail("it is nested too deeply");
  std::vector<Value> fields;
  ++iDepth;
  bool complete = true;
  for (size_t i = 0; complete && i < type.parts.size(); ++i) complete = readValue(type.parts[i], fields);
  --iDepth;
  value.data = std::move(fields);
  return complete;
}

}  // namespace ombra
