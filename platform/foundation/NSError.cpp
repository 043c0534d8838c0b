#include "platform/foundation/NSError.h"

#include <fmt/format.h>

#include "platform/foundation/KCStringAdditions.h"

namespace ombra {
namespace {
// A chain of underlying errors longer than this is cut in descriptions; real ones have two or three links.
constexpr int kMaximumDescribedErrors = 8;
}  // namespace

NSError::NSError(std::string_view domain, int64_t code, NSDictionary userInfo)
    : iDomain(domain), iCode(code), iUserInfo(std::move(userInfo)) {}

NSErrorRef NSError::errorWithDomain(std::string_view domain, int64_t code, NSDictionary userInfo) {
  return std::make_shared<const NSError>(domain, code, std::move(userInfo));
}

NSErrorRef NSError::underlyingError() const {
  const PropertyValue* value = iUserInfo.objectForKey(NSUnderlyingErrorKey);
  return value != nullptr ? value->asError() : nullptr;
}

std::string NSError::localizedDescription() const {
  if (std::optional<std::string> text = iUserInfo.stringForKey(NSLocalizedDescriptionKey)) return *text;
  if (iDomain == NSPOSIXErrorDomain) return kc_strerror(static_cast<int>(iCode));
  return fmt::format("{} {}", iDomain, iCode);
}

std::string NSError::description() const {
  std::string text = fmt::format("{} {} ({})", iDomain, iCode, localizedDescription());
  NSErrorRef next = underlyingError();
  for (int i = 0; next != nullptr && i < kMaximumDescribedErrors; ++i, next = next->underlyingError()) {
    text += fmt::format(" <- {} {} ({})", next->domain(), next->code(), next->localizedDescription());
  }
  return text;
}

}  // namespace ombra
