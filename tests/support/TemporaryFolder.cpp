#include "tests/support/TemporaryFolder.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace ombra {

TemporaryFolder::TemporaryFolder(const std::string& parent)
    : iPath((parent.empty() ? std::filesystem::temp_directory_path().string() : parent) +
            "/ombra-test-XXXXXX") {
  if (mkdtemp(iPath.data()) == nullptr) throw std::runtime_error("no temporary folder can be made: " + iPath);
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(iPath, ignored);
}

}  // namespace ombra
