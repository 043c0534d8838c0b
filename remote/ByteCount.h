// Numbers of bytes, as servers tell them: lengths, offsets, quotas.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace ombra {

// Absent for more than a signed number of 64 bits holds: offsets are signed in the system.
std::optional<uint64_t> byteCount(uint64_t number);
// Decimal digits alone. Absent for anything else.
std::optional<uint64_t> byteCount(std::string_view digits);

}  // namespace ombra
