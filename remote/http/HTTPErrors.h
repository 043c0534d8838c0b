// libcurl's failures in the library's words.
#pragma once

#include <curl/curl.h>

#include <string_view>

#include "platform/foundation/NSError.h"

namespace ombra {

// Why there is no answer. `words`: libcurl's own, which may be empty. `wasSent`: whether the request went out
// on a connection: before, a failure is one of connecting. `hasAnswered`: whether the server has answered
// before on this client: then one that cannot be reached is a lost connection, which is worth another try.
NSErrorRef httpErrorOfCurl(CURLcode code, std::string_view host, std::string_view words, bool wasSent,
                           bool hasAnswered);

}  // namespace ombra
