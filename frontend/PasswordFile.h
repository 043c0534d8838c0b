// A password kept in a file.
#pragma once

#include <optional>
#include <string>

#include "frontend/Failure.h"

namespace ombra {

// The first line of the file (at most 1024 bytes, nothing after it), without its line end. `warning` is
// filled when others than the owner may read it. Also reads pipes ("/dev/stdin", process substitution). The
// caller wipes it.
std::optional<std::string> readPasswordFile(const std::string& path, std::string* warning, Failure* failure);

}  // namespace ombra
