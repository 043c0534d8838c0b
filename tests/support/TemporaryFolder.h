// A folder for the length of a scope.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// Empty when made; removed with all that it holds then. Throws std::runtime_error when it cannot be made.
class TemporaryFolder {
 public:
  // Below `parent`; an absent one stands for the system's place for temporary files.
  explicit TemporaryFolder(const std::string& parent = {});
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  const std::string& path() const { return iPath; }
  // The path of an item in it.
  std::string operator/(std::string_view name) const { return iPath + "/" + std::string(name); }

 private:
  std::string iPath;
};

}  // namespace ombra
