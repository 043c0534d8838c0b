// Questions to the person at the terminal.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "frontend/Interruption.h"
#include "frontend/UniqueFd.h"

namespace ombra {

// Asks on a terminal of its own, so that redirected input and output do not matter. An answer is one line of
// at most 1024 bytes; absent when the terminal ended, a longer line came, or the wait was interrupted.
class TerminalPrompt {
 public:
  // The process's controlling terminal; null when there is none.
  static std::unique_ptr<TerminalPrompt> open(const Interruption& interruption);
  // Any terminal; `interruption` must outlive the prompt.
  TerminalPrompt(UniqueFd terminal, const Interruption& interruption);

  // Shows `question` and reads a line as the terminal shows it.
  std::optional<std::string> line(std::string_view question);
  // The same without echo. The terminal's state is restored in every case, also when a signal ends the wait;
  // stopping (Ctrl-Z) waits until then. The caller wipes the answer.
  std::optional<std::string> secret(std::string_view question);

 private:
  std::optional<std::string> readLine();
  void show(std::string_view text);

  UniqueFd iTerminal;
  const Interruption& iInterruption;
};

}  // namespace ombra
