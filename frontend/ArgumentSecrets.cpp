#include "frontend/ArgumentSecrets.h"

#include <algorithm>

#include "frontend/RemoteURL.h"

namespace ombra {

std::vector<std::string> takeArguments(int argc, char** argv) {
  std::vector<std::string> arguments;
  for (int i = 0; i < argc; ++i) {
    arguments.emplace_back(argv[i]);
    // Overwritten in place: this is the memory that the process list shows.
    if (const auto range = passwordRange(arguments.back()))
      std::fill_n(argv[i] + range->first, range->second, 'x');
  }
  return arguments;
}

}  // namespace ombra
