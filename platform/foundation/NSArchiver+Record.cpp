// Records of plain fields.
#include "platform/foundation/NSUnarchiver.h"

namespace ombra {
namespace {

using Value = TypedStream::Value;

// Builds the stream of one record.
class RecordBuilder {
 public:
  RecordBuilder(std::string_view className, int64_t version) {
    const uint32_t base = add(TypedStream::Class{"NSObject", 0, std::nullopt});
    iString = add(TypedStream::Class{"NSString", 1, base});
    iDictionary = add(TypedStream::Class{"NSDictionary", 0, base});
    iRecord.classIndex = add(TypedStream::Class{std::string(className), version, base});
  }

  void addField(const NSArchiver::Field& field) {
    using Type = NSArchiver::Field::Type;
    switch (field.type) {
      case Type::kUnsignedInt:
        append(iRecord, "I", {'I', static_cast<uint64_t>(field.number)});
        break;
      case Type::kInt:
        append(iRecord, "i", {'i', field.number});
        break;
      case Type::kString:
        append(iRecord, "@", field.text ? text(*field.text) : Value{'@', {}});
        break;
      case Type::kStringDictionary:
        append(iRecord, "@", dictionary(field.dictionary));
        break;
    }
  }

  TypedStream finish() {
    iStream.root = add(std::move(iRecord));
    return std::move(iStream);
  }

 private:
  uint32_t add(TypedStream::Slot slot) {
    iStream.slots.push_back(std::move(slot));
    return static_cast<uint32_t>(iStream.slots.size() - 1);
  }
  static void append(TypedStream::Object& object, const char* encoding, Value value) {
    object.groups.emplace_back(encoding);
    object.values.push_back(std::move(value));
  }
  Value text(const std::string& contents) {
    TypedStream::Object object;
    object.classIndex = iString;
    append(object, "+", {'+', TypedStream::Bytes(contents)});
    return {'@', TypedStream::ObjectRef{add(std::move(object))}};
  }
  Value dictionary(const std::vector<std::pair<std::string, std::string>>& entries) {
    TypedStream::Object object;
    object.classIndex = iDictionary;
    append(object, "i", {'i', static_cast<int64_t>(entries.size())});
    for (const auto& [key, value] : entries) {
      append(object, "@", text(key));
      append(object, "@", text(value));
    }
    return {'@', TypedStream::ObjectRef{add(std::move(object))}};
  }

  TypedStream iStream;
  TypedStream::Object iRecord;
  uint32_t iString = 0;
  uint32_t iDictionary = 0;
};

}  // namespace

NSData NSArchiver::archivedDataWithRecord(std::string_view className, int64_t version,
                                          const std::vector<Field>& fields) {
  RecordBuilder builder(className, version);
  for (const Field& field : fields) builder.addField(field);
  return archivedDataWithStream(builder.finish());
}

}  // namespace ombra
