// An error that was read can be written and read again.
#include <cstdlib>

#include "platform/foundation/NSKeyedArchiver.h"

using ombra::NSData;
using ombra::NSErrorRef;
using ombra::NSKeyedArchiver;
using ombra::NSKeyedUnarchiver;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  std::string reason;
  const NSErrorRef error = NSKeyedUnarchiver::unarchivedError(NSData(bytes, bytes + size), &reason);
  if ((error != nullptr) != reason.empty()) std::abort();
  if (error == nullptr) return 0;
  (void)error->description();
  if (NSKeyedUnarchiver::unarchivedError(NSKeyedArchiver::archivedDataWithRootObject(error), nullptr) ==
      nullptr) {
    std::abort();
  }
  return 0;
}
