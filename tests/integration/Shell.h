// Commands run as a user runs them.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace ombra {

struct ShellResult {
  int status = -1;     // the exit status; 128 + number for a signal
  std::string output;  // standard output
  std::string errors;  // standard error
  double seconds = 0;
};

// Runs `script` with sh -c and waits for it; killed after `limitSeconds`. `environment` is set over this
// process's own; an empty value removes the variable. Standard input is `input`.
ShellResult shell(const std::string& script, const std::map<std::string, std::string>& environment = {},
                  const std::string& input = {}, double limitSeconds = 120);

// `text` as one word of a shell command.
std::string shellWord(const std::string& text);

}  // namespace ombra
