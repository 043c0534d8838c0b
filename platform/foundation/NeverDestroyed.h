// Objects that live until the process is gone.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace ombra {

// Holds a T in place and never runs its destructor. For function-local statics: detached threads may still
// use them while exit() runs the destructors of everything else.
//
//   static NeverDestroyed<Registry> sRegistry;
//   sRegistry->add(…);
template <typename T>
class NeverDestroyed {
 public:
  template <typename... Args>
  explicit NeverDestroyed(Args&&... args) : iObject(::new (iStorage) T(std::forward<Args>(args)...)) {}
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  T& operator*() { return *iObject; }
  T* operator->() { return iObject; }

 private:
  alignas(T) std::byte iStorage[sizeof(T)];
  T* const iObject;
};

}  // namespace ombra
