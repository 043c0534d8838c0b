// The list of published versions.
#include <cstdint>
#include <cstdlib>

#include "fshelper/SUAppcast.h"
#include "fshelper/SUVersion.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  std::string reason;
  const auto item = ombra::SUNewestAppcastItem({reinterpret_cast<const char*>(bytes), size}, &reason);
  if (item.has_value() != reason.empty()) std::abort();
  if (item && (!ombra::SUIsVersion(item->version) || !ombra::SUIsVersion(item->displayVersion))) std::abort();
  if (!item) return 0;
  const int there = ombra::SUCompareVersions(item->version, item->displayVersion);
  const int back = ombra::SUCompareVersions(item->displayVersion, item->version);
  if ((there > 0) != (back < 0) || (there < 0) != (back > 0)) std::abort();
  return 0;
}
