// Local files of a test.
#pragma once

#include <memory>
#include <string>

#include "platform/foundation/NSFileHandle.h"

namespace ombra {

// An unlinked temporary file with that content; a scratch handle has all of it noted as written.
std::unique_ptr<NSFileHandle> temporaryFile(const std::string& content = {},
                                            NSFileHandle::Kind kind = NSFileHandle::Kind::kScratch);
std::string contentOf(const NSFileHandle& handle);

}  // namespace ombra
