// Errors of the connection library.
#pragma once

#include "platform/foundation/NSError.h"
#include "remote/KCTypes.h"

namespace ombra {

// An error of any domain, made by the library. A value that does not change; thread-safe.
class QuarnKitError final : public NSError {
 public:
  using NSError::NSError;

  static NSErrorRef errorWithDomain(std::string_view domain, int64_t code, NSDictionary userInfo = {});
  // An error of the library's own domain with `detail` (the server's reply, a path) after the code's text.
  static NSErrorRef errorWithCode(QuarnKitErrorCode code, std::string_view detail = {},
                                  NSErrorRef underlying = nullptr);
  // The same error as one of the library's class: domain, code and user info kept. Null stays null.
  static NSErrorRef quarnKitErrorWithError(const NSErrorRef& error);
  // What a code means, in a few words for the user ("The item does not exist on the server.").
  static std::string_view textForCode(QuarnKitErrorCode code);
  // True when `error` is of the library's domain and has that code.
  static bool isCode(const NSErrorRef& error, QuarnKitErrorCode code);
};

}  // namespace ombra
