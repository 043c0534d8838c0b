#include "tests/support/TemporaryFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/foundation/NSError.h"

namespace ombra {

std::unique_ptr<NSFileHandle> temporaryFile(const std::string& content, NSFileHandle::Kind kind) {
  std::string path = testing::TempDir() + "ombra-test-XXXXXX";
  const int descriptor = mkstemp(path.data());
  if (descriptor < 0) throw KCException("no temporary file");
  unlink(path.c_str());
  auto handle = std::make_unique<NSFileHandle>(descriptor, kind);
  if (!handle->writeAll(content.data(), content.size(), 0))
    throw KCException("the temporary file takes no data");
  handle->noteWritten({0, content.size()});
  return handle;
}

std::string contentOf(const NSFileHandle& handle) {
  std::string content(static_cast<size_t>(handle.fileLength()), '\0');
  const ssize_t count = handle.readAt(content.data(), content.size(), 0);
  EXPECT_EQ(count, static_cast<ssize_t>(content.size()));
  return content;
}

}  // namespace ombra
