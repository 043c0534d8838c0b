// Secrets on the command line.
#pragma once

#include <string>
#include <vector>

namespace ombra {

// The arguments as texts, secrets included; afterwards each password in a URL of `argv` reads as "xxxx", so
// that the process list shows it no longer than it took to start. Call it first of all, while no other thread
// runs.
std::vector<std::string> takeArguments(int argc, char** argv);

}  // namespace ombra
