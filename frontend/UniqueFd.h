// A descriptor that closes itself.
#pragma once

#include <unistd.h>

#include <utility>

namespace ombra {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : iFd(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : iFd(std::exchange(other.iFd, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.iFd, -1));
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return iFd; }
  explicit operator bool() const { return iFd >= 0; }
  void reset(int fd = -1) {
    if (iFd >= 0) close(iFd);
    iFd = fd;
  }

 private:
  int iFd = -1;
};

}  // namespace ombra
