#include "platform/foundation/PropertyListScan.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

namespace ombra {
namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr size_t kTrailerSize = 32;

// The high nibble of an object's first byte.
enum Marker : uint8_t {
  kSimple = 0x0,
  kInteger = 0x1,
  kReal = 0x2,
  kDate = 0x3,
  kData = 0x4,
  kASCII = 0x5,
  kUTF16 = 0x6,
  kUID = 0x8,
  kArray = 0xA,
  kSet = 0xC,
  kDictionary = 0xD,
};

// One object's head, with its payload inside the object area.
struct Object {
  Marker marker = kSimple;
  uint64_t count = 0;  // bytes, UTF-16 units, elements or pairs; for kSimple the low nibble
  size_t payload = 0;  // offset of what follows the head
  bool isContainer() const { return marker == kArray || marker == kSet || marker == kDictionary; }
  uint64_t referenceCount() const { return marker == kDictionary ? 2 * count : isContainer() ? count : 0; }
};

// What an object comes to when written out as a tree.
struct Weight {
  uint64_t nodes = 1;
  uint64_t bytes = 0;
  unsigned depth = 1;
};

enum class Colour : uint8_t { kWhite, kGrey, kBlack };

class Scanner {
 public:
  explicit Scanner(std::span<const uint8_t> data) : iData(data) {}

  bool scan() { return readTrailer() && readOffsets() && walk(); }
  const char* fault() const { return iFault; }

 private:
  struct Frame {
    uint64_t index;
    Object object;
    uint64_t next = 0;
  };

  bool refuse(const char* fault) {
    iFault = fault;
    return false;
  }

  uint64_t number(size_t offset, size_t size) const {
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) value = value << 8 | iData[offset + i];
    return value;
  }

  bool readTrailer();
  bool readOffsets();
  bool walk();
  bool enter(uint64_t index);
  bool stepTop();
  bool finishTop();
  bool addChild(Weight& weight, const Weight& child);
  bool readObject(uint64_t index, Object& object);
  bool readCount(Object& object, size_t offset, uint8_t nibble);
  bool checkScalar(const Object& object, uint8_t nibble);
  bool checkText(const Object& object);
  bool checkPayload(const Object& object);
  bool isText(uint64_t index) const;

  std::span<const uint8_t> iData;
  const char* iFault = "";
  size_t iOffsetSize = 0;
  size_t iReferenceSize = 0;
  uint64_t iCount = 0;
  uint64_t iRoot = 0;
  uint64_t iTable = 0;
  std::vector<uint64_t> iOffsets;
  std::vector<Colour> iColours;
  std::vector<Weight> iWeights;
  std::vector<Frame> iStack;
  uint64_t iReferencesSeen = 0;
};

bool Scanner::readTrailer() {
  if (iData.size() > kMaximumPropertyListSize) return refuse("it is too large");
  if (iData.size() < kMagic.size() + kTrailerSize ||
      std::memcmp(iData.data(), kMagic.data(), kMagic.size()) != 0) {
    return refuse("it is no binary property list");
  }
  const size_t trailer = iData.size() - kTrailerSize;
  iOffsetSize = iData[trailer + 6];
  iReferenceSize = iData[trailer + 7];
  iCount = number(trailer + 8, 8);
  iRoot = number(trailer + 16, 8);
  iTable = number(trailer + 24, 8);
  if (iOffsetSize < 1 || iOffsetSize > 8 || iReferenceSize < 1 || iReferenceSize > 8) {
    return refuse("its trailer gives impossible number sizes");
  }
  if (iTable < kMagic.size() || iTable > trailer) return refuse("its offset table is outside the data");
  if (iCount < 1 || iCount > (trailer - iTable) / iOffsetSize)
    return refuse("its object count is impossible");
  if (iCount > kMaximumPropertyListNodes) return refuse("it holds too many objects");
  if (iRoot >= iCount) return refuse("its root is no object of it");
  return true;
}

bool Scanner::readOffsets() {
  iOffsets.reserve(iCount);
  for (uint64_t i = 0; i < iCount; ++i) {
    const uint64_t offset = number(iTable + i * iOffsetSize, iOffsetSize);
    if (offset < kMagic.size() || offset >= iTable) return refuse("an object lies outside the data");
    iOffsets.push_back(offset);
  }
  iColours.assign(iCount, Colour::kWhite);
  iWeights.assign(iCount, Weight{});
  return true;
}

// Depth first with a stack of our own: the data decides how deep it goes.
bool Scanner::walk() {
  if (!enter(iRoot)) return false;
  while (!iStack.empty()) {
    if (!stepTop()) return false;
  }
  return true;
}

bool Scanner::enter(uint64_t index) {
  Frame frame{index, {}, 0};
  if (!readObject(index, frame.object)) return false;
  // Every object is entered once, and each reference counts at least one node of the root's tree.
  iReferencesSeen += std::min(frame.object.referenceCount(), kMaximumPropertyListNodes + 1);
  if (iReferencesSeen > kMaximumPropertyListNodes) return refuse("it holds too many objects");
  if (iStack.size() >= kMaximumPropertyListDepth) return refuse("it is nested too deeply");
  iColours[index] = Colour::kGrey;
  iStack.push_back(frame);
  return true;
}

bool Scanner::stepTop() {
  Frame& top = iStack.back();
  if (top.next == top.object.referenceCount()) return finishTop();
  const uint64_t child = number(top.object.payload + top.next * iReferenceSize, iReferenceSize);
  if (child >= iCount) return refuse("a reference points past the last object");
  if (iColours[child] == Colour::kGrey) return refuse("an object contains itself");
  if (iColours[child] == Colour::kWhite) return enter(child);
  if (top.object.marker == kDictionary && top.next < top.object.count && !isText(child)) {
    return refuse("a key is no text");
  }
  ++top.next;
  return addChild(iWeights[top.index], iWeights[child]);
}

bool Scanner::addChild(Weight& weight, const Weight& child) {
  // No overflow: both sides are within the limits.
  weight.nodes += child.nodes;
  weight.bytes += child.bytes;
  weight.depth = std::max(weight.depth, child.depth + 1);
  if (weight.nodes > kMaximumPropertyListNodes) return refuse("it holds too many objects");
  if (weight.bytes > kMaximumPropertyListBytes) return refuse("its contents are too large");
  if (weight.depth > kMaximumPropertyListDepth) return refuse("it is nested too deeply");
  return true;
}

bool Scanner::finishTop() {
  const Frame& top = iStack.back();
  if (!top.object.isContainer()) {
    iWeights[top.index].bytes = top.object.marker == kUTF16 ? 3 * top.object.count : top.object.count;
    if (iWeights[top.index].bytes > kMaximumPropertyListBytes) return refuse("its contents are too large");
  }
  iColours[top.index] = Colour::kBlack;
  iStack.pop_back();
  return true;
}

bool Scanner::isText(uint64_t index) const {
  const uint8_t marker = iData[iOffsets[index]] >> 4;
  return marker == kASCII || marker == kUTF16;
}

bool Scanner::readObject(uint64_t index, Object& object) {
  const uint64_t offset = iOffsets[index];
  const uint8_t head = iData[offset];
  const uint8_t nibble = head & 0x0F;
  object.marker = static_cast<Marker>(head >> 4);
  object.payload = offset + 1;
  switch (object.marker) {
    case kSimple:
    case kInteger:
    case kReal:
    case kDate:
    case kUID:
      return checkScalar(object, nibble);
    case kData:
    case kASCII:
    case kUTF16:
    case kArray:
    case kSet:
    case kDictionary:
      return readCount(object, offset, nibble) && checkPayload(object);
  }
  return refuse("an object is of an unknown kind");
}

// The count stands in the head, or as an integer object behind it.
bool Scanner::readCount(Object& object, size_t offset, uint8_t nibble) {
  object.count = nibble;
  if (nibble != 0x0F) return true;
  if (offset + 1 >= iTable) return refuse("a length is cut off");
  const uint8_t head = iData[offset + 1];
  const size_t size = size_t{1} << (head & 0x0F);
  if (head >> 4 != kInteger || (head & 0x0F) > 3) return refuse("a length is no number");
  if (size > iTable - (offset + 2)) return refuse("a length is cut off");
  object.count = number(offset + 2, size);
  object.payload = offset + 2 + size;
  return true;
}

bool Scanner::checkPayload(const Object& object) {
  const uint64_t room = iTable - object.payload;
  uint64_t unit = 1;
  if (object.marker == kUTF16) unit = 2;
  if (object.isContainer()) unit = iReferenceSize * (object.marker == kDictionary ? 2 : 1);
  if (object.count > room / unit) return refuse("an object is cut off");
  if (object.marker == kASCII || object.marker == kUTF16) return checkText(object);
  return true;
}

bool Scanner::checkScalar(const Object& object, uint8_t nibble) {
  size_t size = 0;
  bool known = false;
  switch (object.marker) {
    case kSimple:
      known = nibble == 0x08 || nibble == 0x09;
      break;
    case kInteger:
      known = nibble <= 4, size = size_t{1} << nibble;
      break;
    case kReal:
      known = nibble == 2 || nibble == 3, size = size_t{1} << nibble;
      break;
    case kDate:
      known = nibble == 3, size = 8;
      break;
    default:
      known = nibble <= 7, size = nibble + size_t{1};
      break;
  }
  if (!known) return refuse("an object is of an unknown kind");
  if (size > iTable - object.payload) return refuse("a number is cut off");
  // The library keeps the low eight bytes of an integer and four of a reference number.
  if (object.marker == kInteger && size == 16 && number(object.payload, 8) != 0) {
    return refuse("a number is too large");
  }
  if (object.marker == kUID && number(object.payload, size) > UINT32_MAX)
    return refuse("a reference is too large");
  return true;
}

bool Scanner::checkText(const Object& object) {
  const auto bytes = iData.subspan(object.payload);
  if (object.marker == kASCII) {
    for (uint64_t i = 0; i < object.count; ++i) {
      if (bytes[i] == 0 || bytes[i] >= 0x80) return refuse("a text holds bytes that no text has");
    }
    return true;
  }
  if (object.count == 0) return refuse("a text has an empty wide form");
  bool expectsLow = false;
  for (uint64_t i = 0; i < object.count; ++i) {
    const unsigned unit = bytes[2 * i] << 8 | bytes[2 * i + 1];
    const bool isLow = unit >= 0xDC00 && unit <= 0xDFFF;
    if (unit == 0 || isLow != expectsLow) return refuse("a text holds bytes that no text has");
    expectsLow = unit >= 0xD800 && unit <= 0xDBFF;
  }
  return !expectsLow || refuse("a text holds bytes that no text has");
}

}  // namespace

bool scanBinaryPropertyList(std::span<const uint8_t> data, std::string* reason) {
  Scanner scanner(data);
  const bool sound = scanner.scan();
  if (!sound && reason != nullptr) *reason = std::string("the property list is refused: ") + scanner.fault();
  return sound;
}

}  // namespace ombra
