// Cuts what comes over a data connection into lines.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace ombra {

// Lines end with LF, a CR before it is theirs; the last one may end with the data. Bounded: a line that is
// longer than any name can make it is found out.
class FTPLines {
 public:
  static constexpr size_t kMaximumLine = 64 * 1024;
  using Take = std::function<bool(std::string_view line)>;

  // Gives each whole line to `take`, until that is false. False then, or when a line is too long.
  [[nodiscard]] bool add(std::string_view bytes, const Take& take);
  // Nothing more comes.
  [[nodiscard]] bool finish(const Take& take);

 private:
  std::string iRest;
};

}  // namespace ombra
