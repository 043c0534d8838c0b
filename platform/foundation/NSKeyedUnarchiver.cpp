#include "platform/foundation/KeyedArchiveReader.h"
#include "platform/foundation/NSKeyedArchiver.h"
#include "platform/foundation/PropertyList.h"

namespace ombra {

NSErrorRef NSKeyedUnarchiver::unarchivedError(const NSData& data, std::string* reason) {
  std::string ignored;
  std::string& fault = reason != nullptr ? *reason : ignored;
  const PropertyListRef archive = parsePropertyList(data, &fault);
  if (archive == nullptr) return nullptr;
  KeyedArchiveReader reader;
  NSErrorRef error = reader.readError(archive.get());
  if (error == nullptr) fault = reader.fault();
  return error;
}

}  // namespace ombra
