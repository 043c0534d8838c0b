// A POSIX permission mode.
#pragma once

#include <cstdint>

namespace ombra {

// Of a mode: what may be set, without the type of the file.
inline constexpr uint16_t kPermissionBits = 07777;

class FilePermissions {
 public:
  explicit constexpr FilePermissions(uint16_t mode) : iMode(mode) {}
  constexpr uint16_t mode() const { return iMode; }
  constexpr bool operator==(const FilePermissions&) const = default;

 private:
  uint16_t iMode;
};

}  // namespace ombra
