// What is read must hang together: it can be written, and is the same when read again.
#include <cstdlib>

#include "platform/foundation/NSUnarchiver.h"

using ombra::NSArchiver;
using ombra::NSData;
using ombra::NSUnarchiver;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const NSData data(bytes, bytes + size);
  std::string reason;
  const auto stream = NSUnarchiver::unarchiveGroups(data, &reason);
  if (stream.has_value() != reason.empty()) std::abort();
  NSUnarchiver::unarchiveStream(data, nullptr);
  if (!stream) return 0;
  for (const auto& value : stream->values) {
    NSUnarchiver::propertyValue(*stream, value);
    NSUnarchiver::stringDictionaryValue(*stream, value);
  }
  const NSData written = NSArchiver::archivedDataWithStream(*stream);
  const auto again = NSUnarchiver::unarchiveGroups(written, nullptr);
  if (!again || NSArchiver::archivedDataWithStream(*again) != written) std::abort();
  return 0;
}
