#include <bit>
#include <cmath>
#include <unordered_map>

#include "platform/foundation/NSUnarchiver.h"
#include "platform/foundation/TypeEncoding.h"
#include "platform/foundation/TypedStreamTags.h"

namespace ombra {
namespace {

using Value = TypedStream::Value;

// Bytes that may be secret: wiped when they are outgrown.
class SecretBuffer {
 public:
  ~SecretBuffer() { wipe(iBytes); }

  void append(const void* bytes, size_t length) {
    if (length > iBytes.capacity() - iBytes.size()) grow(length);
    const auto* from = static_cast<const uint8_t*>(bytes);
    iBytes.insert(iBytes.end(), from, from + length);
  }
  void append(uint8_t byte) { append(&byte, 1); }
  NSData take() { return std::move(iBytes); }

 private:
  void grow(size_t length) {
    NSData larger;
    larger.reserve(2 * (iBytes.size() + length) + 256);
    larger.insert(larger.end(), iBytes.begin(), iBytes.end());
    wipe(iBytes);
    iBytes = std::move(larger);
  }

  NSData iBytes;
};

// Writes little-endian. Each step is false when the stream does not hang together.
class Writer {
 public:
  explicit Writer(const TypedStream& stream) : iStream(stream) {}

  bool write() {
    iOut.append(kStreamerVersion);
    rawString(kLittleEndianSignature);
    integer(kSystemVersion);
    if (!iStream.groups.empty()) return groups(iStream.groups, iStream.values);
    Value root{'@', {}};
    if (iStream.root) root.data = TypedStream::ObjectRef{*iStream.root};
    return groups({"@"}, {root});
  }
  NSData take() { return iOut.take(); }

 private:
  void tag(StreamTag value) { iOut.append(static_cast<uint8_t>(value)); }
  void fixed(uint64_t bits, size_t size);
  void integer(int64_t number);
  void rawString(std::string_view bytes);
  void sharedString(const std::string& text);
  bool reference(uint32_t slot);
  void remember(uint32_t slot);
  template <typename T>
  const T* slotAs(uint32_t index) const {
    return index < iStream.slots.size() ? std::get_if<T>(&iStream.slots[index]) : nullptr;
  }

  bool groups(const std::vector<std::string>& encodings, const std::vector<Value>& values);
  bool value(const TypeEncoding& type, const Value& value);
  bool byte(const Value& value);
  bool wholeNumber(char type, const Value& value);
  bool real(char type, const Value& value);
  bool string(char type, const Value& value);
  bool pointer(char type, const Value& value);
  bool classChain(uint32_t index);
  bool object(uint32_t index);
  bool cString(uint32_t index);
  bool sequence(const TypeEncoding& type, const Value& value);

  const TypedStream& iStream;
  SecretBuffer iOut;
  unsigned iDepth = 0;
  std::unordered_map<std::string, int64_t> iStrings;
  std::unordered_map<uint32_t, int64_t> iSlots;
};

void Writer::fixed(uint64_t bits, size_t size) {
  for (size_t i = 0; i < size; ++i) iOut.append(static_cast<uint8_t>(bits >> (8 * i)));
}

void Writer::integer(int64_t number) {
  if (number >= kLowestPlainNumber && number <= INT8_MAX) {
    iOut.append(static_cast<uint8_t>(number));
  } else if (number > INT16_MIN && number <= INT16_MAX) {  // the lowest one takes four bytes, as ever
    tag(kTagInt16);
    fixed(static_cast<uint64_t>(number), 2);
  } else if (number >= INT32_MIN && number <= INT32_MAX) {
    tag(kTagInt32);
    fixed(static_cast<uint64_t>(number), 4);
  } else {
    tag(kTagInt64);
    fixed(static_cast<uint64_t>(number), 8);
  }
}

void Writer::rawString(std::string_view bytes) {
  integer(static_cast<int64_t>(bytes.size()));
  iOut.append(bytes.data(), bytes.size());
}

void Writer::sharedString(const std::string& text) {
  const auto [entry, isNew] = iStrings.emplace(text, static_cast<int64_t>(iStrings.size()));
  if (isNew) {
    tag(kTagNew);
    rawString(text);
  } else {
    integer(entry->second + kFirstReference);
  }
}

// Writes a reference when the slot was written before.
bool Writer::reference(uint32_t slot) {
  const auto found = iSlots.find(slot);
  if (found == iSlots.end()) return false;
  integer(found->second + kFirstReference);
  return true;
}

void Writer::remember(uint32_t slot) {
  iSlots.emplace(slot, static_cast<int64_t>(iSlots.size()));
  tag(kTagNew);
}

bool Writer::groups(const std::vector<std::string>& encodings, const std::vector<Value>& values) {
  size_t next = 0;
  for (const std::string& encoding : encodings) {
    const auto types = parseTypeEncodings(encoding);
    if (!types) return false;
    sharedString(encoding);
    for (const TypeEncoding& type : *types) {
      if (type.code == '!') continue;
      if (next == values.size() || !value(type, values[next++])) return false;
    }
  }
  return next == values.size();
}

bool Writer::value(const TypeEncoding& type, const Value& item) {
  if (item.type != type.code) return false;
  switch (type.code) {
    case '[':
    case '{':
      return sequence(type, item);
    case 'c':
    case 'C':
    case 'B':
      return byte(item);
    case 'f':
    case 'd':
      return real(type.code, item);
    case '+':
    case ':':
    case '%':
      return string(type.code, item);
    case '@':
    case '#':
    case '*':
      return pointer(type.code, item);
    default:
      return wholeNumber(type.code, item);
  }
}

std::optional<uint64_t> bitsOf(const Value& value) {
  if (const auto* number = std::get_if<int64_t>(&value.data)) return static_cast<uint64_t>(*number);
  if (const auto* number = std::get_if<uint64_t>(&value.data)) return *number;
  return std::nullopt;
}

bool Writer::byte(const Value& item) {
  const std::optional<uint64_t> bits = bitsOf(item);
  if (!bits) return false;
  iOut.append(static_cast<uint8_t>(*bits));
  return true;
}

// As a signed number of the type's width, also for unsigned types.
bool Writer::wholeNumber(char type, const Value& item) {
  const std::optional<uint64_t> bits = bitsOf(item);
  if (!bits) return false;
  const unsigned unused = 64 - integerWidth(type);
  integer(static_cast<int64_t>(*bits << unused) >> unused);
  return true;
}

// The whole number that stands for `real`, through the original's detour over a float; 0 when there is none.
int64_t wholeNumberFor(double real) {
  constexpr double kLimit = 2147483646;
  constexpr float kFloatLimit = 2147483648.0F;
  if (!(std::abs(real) < kLimit)) return 0;
  const auto single = static_cast<float>(real);
  return single < kFloatLimit ? static_cast<int64_t>(single) : 0;
}

bool Writer::real(char type, const Value& item) {
  const auto* number = std::get_if<double>(&item.data);
  if (number == nullptr) return false;
  const int64_t whole = wholeNumberFor(*number);
  if (static_cast<double>(whole) == *number) {
    integer(whole);
    return true;
  }
  tag(kTagReal);
  if (type == 'f') {
    fixed(std::bit_cast<uint32_t>(static_cast<float>(*number)), 4);
  } else {
    fixed(std::bit_cast<uint64_t>(*number), 8);
  }
  return true;
}

bool Writer::string(char type, const Value& item) {
  const auto* contents = std::get_if<TypedStream::Bytes>(&item.data);
  if (contents == nullptr) {
    tag(kTagNil);
    return std::holds_alternative<TypedStream::Nil>(item.data);
  }
  if (type == '+') {
    rawString(contents->bytes);
  } else {
    sharedString(contents->bytes);
  }
  return true;
}

bool Writer::pointer(char type, const Value& item) {
  const auto* target = std::get_if<TypedStream::ObjectRef>(&item.data);
  if (target == nullptr) {
    tag(kTagNil);
    return std::holds_alternative<TypedStream::Nil>(item.data);
  }
  if (type == '*') return cString(target->index);
  return type == '#' ? classChain(target->index) : object(target->index);
}

bool Writer::cString(uint32_t index) {
  const auto* contents = slotAs<TypedStream::Bytes>(index);
  if (contents == nullptr) return false;
  if (reference(index)) return true;
  remember(index);
  sharedString(contents->bytes);
  return true;
}

bool Writer::classChain(uint32_t index) {
  std::optional<uint32_t> at = index;
  // Ends: a class that was met before is a reference.
  while (at) {
    const auto* one = slotAs<TypedStream::Class>(*at);
    if (one == nullptr) return false;
    if (reference(*at)) return true;
    remember(*at);
    sharedString(one->name);
    integer(one->version);
    at = one->superclass;
  }
  tag(kTagNil);
  return true;
}

bool Writer::object(uint32_t index) {
  const auto* contents = slotAs<TypedStream::Object>(index);
  if (contents == nullptr) return slotAs<TypedStream::Class>(index) != nullptr && reference(index);
  if (reference(index)) return true;
  if (iDepth >= kMaximumStreamDepth) return false;
  remember(index);
  ++iDepth;
  const bool complete = classChain(contents->classIndex) && groups(contents->groups, contents->values);
  --iDepth;
  tag(kTagEnd);
  return complete;
}

bool Writer::sequence(const TypeEncoding& type, const Value& item) {
  if (type.isCharacterArray()) {
    const auto* contents = std::get_if<TypedStream::Bytes>(&item.data);
    if (contents == nullptr || contents->bytes.size() != type.count) return false;
    iOut.append(contents->bytes.data(), contents->bytes.size());
    return true;
  }
  const auto* elements = std::get_if<std::vector<Value>>(&item.data);
  if (elements == nullptr || iDepth >= kMaximumStreamDepth) return false;
  const bool isArray = type.code == '[';
  // As the reader has it: elements without bytes cannot be counted.
  if (isArray && type.count > 1 && type.parts.front().minimumBytes == 0) return false;
  size_t next = 0;
  ++iDepth;
  const size_t places = isArray ? type.count : type.parts.size();
  bool complete = true;
  for (size_t i = 0; complete && i < places; ++i) {
    const TypeEncoding& part = isArray ? type.parts.front() : type.parts[i];
    if (part.code != '!') complete = next < elements->size() && value(part, (*elements)[next++]);
  }
  --iDepth;
  return complete && next == elements->size();
}

}  // namespace

NSData NSArchiver::archivedDataWithStream(const TypedStream& stream) {
  Writer writer(stream);
  return writer.write() ? writer.take() : NSData();
}

}  // namespace ombra
