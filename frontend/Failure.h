// How the command reports: exit codes, and what went wrong in words.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// The exit codes of the command. Part of its interface: scripts depend on them; never renumber.
enum ExitCode : int {
  kExitSuccess = 0,
  kExitFailure = 1,        // the operation failed
  kExitUsage = 2,          // the command line makes no sense
  kExitNotFound = 3,       // no such volume, folder or key; not mounted
  kExitLoginRefused = 4,   // the server took none of the credentials
  kExitHostKey = 5,        // the server's key is unknown, has changed or was revoked
  kExitCannotMount = 6,    // this machine cannot mount (fuse, "/Volumes", the message bus, parts missing)
  kExitInUse = 7,          // the volume is in use
  kExitInterrupted = 130,  // stopped by Ctrl-C; other signals give 128 plus their number
};

// What happened, why, and what to do next: whole sentences, no newline. `why` and `todo` may be empty.
struct Failure {
  ExitCode code = kExitFailure;
  std::string what;
  std::string why;
  std::string todo;

  // "what why" on the first line, "todo" on the second; control characters of foreign text are replaced.
  std::string text() const;
};

// `text` fit for a terminal: control characters become "?", tabs and newlines blanks, malformed UTF-8 "?", so
// that a server's words can neither move the cursor nor change the terminal. At most `limit` bytes.
std::string printable(std::string_view text, size_t limit = 2000);

// `text` between typographic quotes, fit for a terminal.
std::string inQuotes(std::string_view text);

// `text` as one word of a shell command line.
std::string shellQuoted(std::string_view text);

// `text` begun with a capital letter and ended by a full stop unless it ends in punctuation already; empty
// stays empty.
std::string sentence(std::string_view text);

}  // namespace ombra
