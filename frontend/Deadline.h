// A moment by which a wait ends.
#pragma once

#include <algorithm>
#include <chrono>

namespace ombra {

class Deadline {
 public:
  explicit Deadline(std::chrono::milliseconds limit) : iEnd(std::chrono::steady_clock::now() + limit) {}

  bool passed() const { return std::chrono::steady_clock::now() >= iEnd; }
  // What is left, at most `cap`, as poll(2) takes it.
  int pollTimeout(std::chrono::milliseconds cap = std::chrono::hours(1)) const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(iEnd - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), cap).count());
  }

 private:
  std::chrono::steady_clock::time_point iEnd;
};

}  // namespace ombra
