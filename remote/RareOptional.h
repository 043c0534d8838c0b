// An optional that costs a pointer as long as it has no value.
#pragma once

#include <concepts>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace ombra {

// For what few of many objects have: the value is allocated. Otherwise like std::optional, into which it
// turns by itself; copies are copies of the value.
template <typename T>
class RareOptional {
 public:
  RareOptional() = default;
  RareOptional(std::nullopt_t) {}
  template <typename U>
  requires std::convertible_to<U, T> RareOptional(U&& value)
      : iValue(std::make_unique<T>(std::forward<U>(value))) {}
  RareOptional(std::optional<T> value) {
    if (value) iValue = std::make_unique<T>(std::move(*value));
  }
  RareOptional(const RareOptional& other) {
    if (other) iValue = std::make_unique<T>(*other);
  }
  RareOptional& operator=(const RareOptional& other) {
    RareOptional copy(other);
    iValue.swap(copy.iValue);
    return *this;
  }
  RareOptional(RareOptional&&) noexcept = default;
  RareOptional& operator=(RareOptional&&) noexcept = default;
  ~RareOptional() = default;

  bool has_value() const { return iValue != nullptr; }
  explicit operator bool() const { return has_value(); }
  // A value that is there.
  T& operator*() { return *iValue; }
  const T& operator*() const { return *iValue; }
  T* operator->() { return iValue.get(); }
  const T* operator->() const { return iValue.get(); }
  void reset() { iValue.reset(); }
  operator std::optional<T>() const& { return iValue ? std::optional<T>(*iValue) : std::nullopt; }
  operator std::optional<T>() && { return iValue ? std::optional<T>(std::move(*iValue)) : std::nullopt; }

  friend bool operator==(const RareOptional& one, const std::optional<T>& other) {
    return one && other ? *one == *other : one.has_value() == other.has_value();
  }
  // Whether it has that value.
  template <typename U>
  requires std::convertible_to<const U&, T>
  friend bool operator==(const RareOptional& optional, const U& value) {
    return optional && *optional == value;
  }

 private:
  std::unique_ptr<T> iValue;
};

}  // namespace ombra
