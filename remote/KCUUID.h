// An identifier with a string form.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ombra {

// A random identifier (RFC 9562, version 4). A value.
class KCUUID {
 public:
  // A fresh one, from the system's random numbers.
  static KCUUID UUID();
  // From the string form, absent when it is not one.
  static std::optional<KCUUID> uuidWithString(std::string_view text);
  // "6FA459EA-EE8A-4CA4-894E-DB77E160355E"
  std::string stringValue() const;
  bool operator==(const KCUUID&) const = default;

 private:
  std::array<uint8_t, 16> iBytes{};
};

}  // namespace ombra
