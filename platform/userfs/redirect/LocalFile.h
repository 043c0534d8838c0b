// Small files of this machine, read and written as a whole.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace ombra {

struct LocalFile {
  // The content of a plain file of at most `limit` bytes; absent with errno set otherwise (EFBIG: it is
  // longer, EINVAL: it is no plain file). Never waits.
  static std::optional<std::string> contentOf(const std::string& path, size_t limit);
  // Replaces the file; there is never half of one. 0 or an errno.
  static int write(const std::string& path, std::string_view content);
  // 0 or an errno.
  static int writeAll(int descriptor, const char* bytes, size_t size);
};

// A descriptor that closes itself.
class LocalDescriptor {
 public:
  explicit LocalDescriptor(int number) : iNumber(number) {}
  ~LocalDescriptor();
  LocalDescriptor(const LocalDescriptor&) = delete;
  LocalDescriptor& operator=(const LocalDescriptor&) = delete;
  int get() const { return iNumber; }

 private:
  const int iNumber;
};

}  // namespace ombra
