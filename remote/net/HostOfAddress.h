// The host in an address as users write it.
#pragma once

#include <string_view>

namespace ombra {

// An address of IPv6 without its brackets, if it has them; anything else as it is.
inline std::string_view hostOfAddress(std::string_view address) {
  const bool isBracketed = address.size() > 2 && address.starts_with('[') && address.ends_with(']');
  return isBracketed ? address.substr(1, address.size() - 2) : address;
}

}  // namespace ombra
