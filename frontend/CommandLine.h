// The command line of `ombra`.
#pragma once

#include <string>
#include <vector>

namespace ombra {

// Reads the arguments (the program's name first), runs the subcommand and answers the exit code.
int runCommandLine(std::vector<std::string> arguments);

}  // namespace ombra
