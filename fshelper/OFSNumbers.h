// Offsets and object references as number values.
#pragma once

#include <cstdint>

#include "platform/foundation/NSDictionary.h"

namespace ombra {

// The number of a file offset (signed, 64 bits).
inline PropertyValue ofs_numberWithOffset(int64_t offset) { return PropertyValue(offset); }

// The number of an object reference. Numbers are signed: one of the upper half keeps its bits.
inline PropertyValue ofs_numberWithPointer(uintptr_t reference) {
  return PropertyValue(static_cast<int64_t>(reference));
}

// The number as an offset: a fraction is cut off, a truth value counts as 0 or 1, what is no number as 0.
inline int64_t ofs_offsetValue(const PropertyValue& number) {
  if (const int64_t* integer = number.asInteger()) return *integer;
  if (const double* real = number.asReal()) {
    constexpr double kLimit = 9223372036854775808.0;  // 2^63: from here on the conversion is undefined
    if (!(*real > -kLimit)) return *real <= -kLimit ? INT64_MIN : 0;
    return *real < kLimit ? static_cast<int64_t>(*real) : INT64_MAX;
  }
  const bool* truth = number.asBoolean();
  return truth != nullptr && *truth ? 1 : 0;
}

}  // namespace ombra
