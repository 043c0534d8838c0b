// A registry of numbers under four-character selectors, shared by all code of the process.
#pragma once

#include <cstdint>

namespace ombra {

inline constexpr int16_t gestaltUndefSelectorErr = -5551;
inline constexpr int16_t gestaltDupSelectorErr = -5552;

// 0 and the value in `response` when the selector is registered, else gestaltUndefSelectorErr. Thread-safe.
int16_t Gestalt(uint32_t selector, int32_t* response);
// Registers a value: 0, or gestaltDupSelectorErr when the selector is taken. Thread-safe.
int16_t NewGestaltValue(uint32_t selector, int32_t value);
// Forgets a selector; for tests.
void DeleteGestaltValue(uint32_t selector);

}  // namespace ombra
