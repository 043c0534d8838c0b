// The archived form: one group per field.
#include <limits>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSUnarchiver.h"
#include "remote/KCCredentials.h"

namespace ombra {
namespace {

constexpr std::string_view kClassName = "KCCredentials";
constexpr int64_t kVersion = 1;
constexpr size_t kFieldCount = 9;
constexpr int kHighestPort = 65535;

using Field = NSArchiver::Field;

Field textField(std::optional<std::string> text) {
  Field field{Field::Type::kString, {}, 0, {}};
  field.text = std::move(text);
  return field;
}

Field numberField(Field::Type type, int64_t number) {
  Field field{type, {}, 0, {}};
  field.number = number;
  return field;
}

void wipeFields(std::vector<Field>& fields) {
  for (Field& field : fields) {
    if (field.text) wipe(*field.text);
    for (auto& [key, value] : field.dictionary) wipe(value);
  }
}

void wipeStream(TypedStream& stream) {
  for (TypedStream::Slot& slot : stream.slots) {
    if (auto* text = std::get_if<TypedStream::Bytes>(&slot)) wipe(text->bytes);
    auto* object = std::get_if<TypedStream::Object>(&slot);
    if (object == nullptr) continue;
    for (TypedStream::Value& value : object->values) {
      if (auto* text = std::get_if<TypedStream::Bytes>(&value.data)) wipe(text->bytes);
    }
  }
}

// Reads the fields of one record, in order; the first fault is kept and ends it.
class FieldReader {
 public:
  FieldReader(const TypedStream& stream, const TypedStream::Object& record)
      : iStream(stream), iRecord(record) {}

  int64_t number(std::string_view name, int64_t lowest, int64_t highest) {
    const TypedStream::Value* value = next();
    if (value == nullptr) return 0;
    std::optional<int64_t> found;
    if (const auto* number = std::get_if<int64_t>(&value->data)) found = *number;
    if (const auto* number = std::get_if<uint64_t>(&value->data)) {
      if (*number <= static_cast<uint64_t>(highest)) found = static_cast<int64_t>(*number);
    }
    if (found && *found >= lowest && *found <= highest) return *found;
    fault(name, "is no number in its range");
    return 0;
  }

  std::optional<std::string> text(std::string_view name) {
    const TypedStream::Value* value = next();
    if (value == nullptr || std::holds_alternative<TypedStream::Nil>(value->data)) return std::nullopt;
    std::optional<std::string> text = NSUnarchiver::stringValue(iStream, *value);
    if (!text) {
      fault(name, "is no text");
    } else if (text->find('\0') != std::string::npos || !isValidUTF8(*text)) {
      wipe(*text);
      text.reset();
      fault(name, "holds bytes that no text has");
    }
    return text;
  }

  std::string requiredText(std::string_view name) {
    std::optional<std::string> text = this->text(name);
    if (!text || text->empty()) fault(name, "is missing");
    return text.value_or(std::string());
  }

  std::vector<std::pair<std::string, std::string>> dictionary(std::string_view name) {
    const TypedStream::Value* value = next();
    if (value == nullptr || std::holds_alternative<TypedStream::Nil>(value->data)) return {};
    auto entries = NSUnarchiver::stringDictionaryValue(iStream, *value);
    if (!entries) fault(name, "is no dictionary of texts");
    return entries ? std::move(*entries) : std::vector<std::pair<std::string, std::string>>();
  }

  void fault(std::string_view name, std::string_view what) {
    if (iFault.empty()) iFault.append("the credentials' ").append(name).append(" ").append(what);
  }
  const std::string& firstFault() const { return iFault; }

 private:
  const TypedStream::Value* next() {
    return iNext < iRecord.values.size() ? &iRecord.values[iNext++] : nullptr;
  }

  const TypedStream& iStream;
  const TypedStream::Object& iRecord;
  size_t iNext = 0;
  std::string iFault;
};

// The root record when it is of the class and version that this program knows.
const TypedStream::Object* credentialsRecord(const TypedStream& stream, std::string* reason) {
  const TypedStream::Object* record = stream.root ? stream.object(*stream.root) : nullptr;
  if (record == nullptr || stream.className(*stream.root) != kClassName) {
    *reason = "the archive holds no credentials";
    return nullptr;
  }
  const auto* recordClass = std::get_if<TypedStream::Class>(&stream.slots.at(record->classIndex));
  if (recordClass == nullptr || recordClass->version != kVersion) {
    *reason = "the credentials are of a version that this program does not know";
    return nullptr;
  }
  if (record->values.size() != kFieldCount) {
    *reason = "the credentials have another number of fields than they should";
    return nullptr;
  }
  return record;
}

// An address travels in commands and headers: no control characters, no blanks.
bool isPlainAddress(std::string_view address) {
  for (const char character : address) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte <= 0x20 || byte == 0x7F) return false;
  }
  return true;
}

std::shared_ptr<KCCredentials> readCredentials(FieldReader& reader) {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(
      static_cast<uint32_t>(reader.number("protocol", 1, std::numeric_limits<uint32_t>::max())));
  credentials->setAddress(reader.requiredText("address"));
  if (!isPlainAddress(credentials->address()))
    reader.fault("address", "holds characters that no address has");
  credentials->setPort(static_cast<int>(reader.number("port", 0, kHighestPort)));
  credentials->setUsername(reader.text("user name"));
  credentials->setPassword(reader.text("password"));
  const std::optional<std::string> initialPath = reader.text("initial path");
  credentials->setEncoding(reader.text("encoding"));
  // Remote paths are the server's bytes, which are no text where its encoding is another.
  if (initialPath) credentials->setInitialPath(credentials->remoteStringForUnicodeString(*initialPath));
  const std::optional<KCUUID> uuid = KCUUID::uuidWithString(reader.requiredText("identifier"));
  if (uuid) {
    credentials->setUUID(*uuid);
  } else {
    reader.fault("identifier", "is no UUID");
  }
  for (auto& [key, value] : reader.dictionary("options")) {
    if (value.find('\0') != std::string::npos) reader.fault("options", "hold bytes that no text has");
    credentials->setOption(std::move(key), value);
    wipe(value);
  }
  return credentials;
}

}  // namespace

NSData KCCredentials::archivedData() const {
  std::vector<Field> fields;
  fields.reserve(kFieldCount);
  fields.push_back(numberField(Field::Type::kUnsignedInt, iProtocol));
  fields.push_back(textField(iAddress));
  fields.push_back(numberField(Field::Type::kInt, iPort));
  fields.push_back(textField(iUsername));
  fields.push_back(textField(iPassword));
  fields.push_back(
      textField(iInitialPath ? std::optional(unicodeStringForRemoteString(*iInitialPath)) : std::nullopt));
  fields.push_back(textField(iEncoding));
  fields.push_back(textField(iUUID.stringValue()));
  Field options{Field::Type::kStringDictionary, {}, 0, {}};
  options.dictionary.assign(iOptions.begin(), iOptions.end());
  fields.push_back(std::move(options));
  NSData data = NSArchiver::archivedDataWithRecord(kClassName, kVersion, fields);
  wipeFields(fields);
  return data;
}

std::shared_ptr<KCCredentials> KCCredentials::credentialsWithArchivedData(const NSData& data,
                                                                          std::string* reason) {
  std::string fault;
  std::shared_ptr<KCCredentials> credentials;
  if (std::optional<TypedStream> stream = NSUnarchiver::unarchiveStream(data, &fault)) {
    if (const TypedStream::Object* record = credentialsRecord(*stream, &fault)) {
      FieldReader reader(*stream, *record);
      credentials = readCredentials(reader);
      fault = reader.firstFault();
      if (!fault.empty()) credentials.reset();
    }
    wipeStream(*stream);
  }
  if (reason != nullptr) *reason = fault;
  return credentials;
}

}  // namespace ombra
