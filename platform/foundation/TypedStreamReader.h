// The reader behind NSUnarchiver. For this folder's own sources.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSUnarchiver.h"
#include "platform/foundation/TypeEncoding.h"

namespace ombra {

// Reads one archive. Each step is true, or false with the fault kept: then nothing more is read. Nothing is
// allocated from a length or a count before it was compared with the bytes that are left.
class TypedStreamReader {
 public:
  explicit TypedStreamReader(std::span<const uint8_t> data) : iData(data) {}

  // The header and all groups up to the end of the data.
  bool read();
  TypedStream takeStream() { return std::move(iStream); }
  // What was wrong and where; never what the archive holds.
  std::string fault() const;

 private:
  using Value = TypedStream::Value;

  bool fail(const char* fault);
  size_t left() const { return iData.size() - iAt; }

  // Bytes and numbers.
  bool readHead(int8_t& head);
  bool readFixed(size_t size, uint64_t& bits);
  bool takeBytes(uint64_t length, std::string_view& bytes);
  bool readInt(int64_t& number);
  bool intAfterHead(int8_t head, int64_t& number);

  // Strings. A null pointer stands for nil.
  bool readRawString(bool& isNil, std::string_view& bytes);
  bool rawLength(int8_t head, uint64_t& length);
  bool sharedStringAfterHead(int8_t head, bool& isNil, uint32_t& index);
  bool addString(std::string_view bytes, uint32_t& index);
  bool tableIndexAfterHead(int8_t head, size_t tableSize, uint32_t& index);

  // The object table.
  bool addSlot(TypedStream::Slot slot, uint32_t& index);
  bool readClass(std::optional<uint32_t>& index);
  bool readNewClass(std::optional<uint32_t>& subclass);
  bool endClassChain(int8_t head, uint32_t first, std::optional<uint32_t>& index);
  bool checkChainLength(uint32_t superclass, size_t newClasses);
  bool readNewObject(uint32_t& index);
  bool readObjectBody(TypedStream::Object& object);

  // Groups and values.
  bool readHeader();
  bool groupAfterHead(int8_t head, std::vector<Value>& values, std::vector<std::string>& groups);
  const std::vector<TypeEncoding>* encodingAt(uint32_t stringIndex);
  bool readValue(const TypeEncoding& type, std::vector<Value>& values);
  bool readScalar(char type, Value& value);
  bool readByte(char type, Value& value);
  bool readInteger(char type, Value& value);
  bool readReal(char type, Value& value);
  bool readObjectValue(Value& value);
  bool readClassValue(Value& value);
  bool readCString(Value& value);
  bool readSharedStringValue(Value& value);
  bool readRawStringValue(Value& value);
  bool readArray(const TypeEncoding& type, Value& value);
  bool readStruct(const TypeEncoding& type, Value& value);

  // Counts what is copied out of the string table: a reference of one byte may stand for a long text.
  bool charge(size_t bytes);

  const std::span<const uint8_t> iData;
  size_t iAt = 0;
  const char* iFault = nullptr;
  bool iIsBigEndian = false;
  unsigned iDepth = 0;
  size_t iGroups = 0;
  size_t iValues = 0;
  size_t iCopiedBytes = 0;
  TypedStream iStream;
  std::vector<std::string> iStrings;
  // By string index, parsed when first used as an encoding.
  std::vector<std::unique_ptr<const std::vector<TypeEncoding>>> iEncodings;
};

}  // namespace ombra
