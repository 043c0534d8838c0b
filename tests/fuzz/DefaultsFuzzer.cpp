// The settings file, in both forms of property lists.
#include <cstdlib>

#include "platform/foundation/DefaultsFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  std::string reason;
  const auto values = ombra::DefaultsFile::parse({bytes, size}, &reason);
  if (values.has_value() != reason.empty()) std::abort();
  return 0;
}
