// Names of this machine itself.
#pragma once

#include <string_view>

namespace ombra {

// Whether a host's name or address (lower case, no brackets) leads to this machine without any network, so
// that no proxy is asked for it and nobody else can read what goes there.
inline bool isLoopbackName(std::string_view host) {
  const bool isAddress = host.find_first_not_of("0123456789.") == std::string_view::npos;
  return host == "localhost" || host == "::1" || (isAddress && host.starts_with("127."));
}

}  // namespace ombra
