#include "platform/foundation/NSUnarchiver.h"

#include <cstring>

#include "platform/foundation/TypedStreamReader.h"

namespace ombra {

void wipe(NSData& data) {
  // Up to the capacity: what was cut off earlier lies there still.
  data.resize(data.capacity());
  if (!data.empty()) explicit_bzero(data.data(), data.size());
  data.clear();
}

void wipe(std::string& text) {
  text.resize(text.capacity());
  explicit_bzero(text.data(), text.size());
  text.clear();
}

std::string TypedStream::className(uint32_t index) const {
  const Object* found = object(index);
  const auto* objectClass = found != nullptr ? std::get_if<Class>(&slots.at(found->classIndex)) : nullptr;
  return objectClass != nullptr ? objectClass->name : std::string();
}

std::optional<TypedStream> NSUnarchiver::unarchiveGroups(const NSData& data, std::string* reason) {
  TypedStreamReader reader(data);
  if (reader.read()) return reader.takeStream();
  if (reason != nullptr) *reason = reader.fault();
  return std::nullopt;
}

std::optional<TypedStream> NSUnarchiver::unarchiveStream(const NSData& data, std::string* reason) {
  std::optional<TypedStream> stream = unarchiveGroups(data, reason);
  if (!stream) return std::nullopt;
  if (stream->groups != std::vector<std::string>{"@"}) {
    if (reason != nullptr) *reason = "the archive is refused: it is not made of one root object";
    return std::nullopt;
  }
  const auto* root = std::get_if<TypedStream::ObjectRef>(&stream->values.front().data);
  if (root != nullptr) stream->root = root->index;
  return stream;
}

}  // namespace ombra
