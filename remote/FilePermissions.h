// A POSIX permission mode.
#pragma once

#include <cstdint>

namespace ombra {

class FilePermissions {
 public:
  explicit constexpr FilePermissions(uint16_t mode) : iMode(mode) {}
  constexpr uint16_t mode() const { return iMode; }
  constexpr bool operator==(const FilePermissions&) const = default;

 private:
  uint16_t iMode;
};

}  // namespace ombra
