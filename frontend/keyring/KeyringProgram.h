// How the command and the program that speaks to the keyring understand each other.
//
//   ombrafs-keyring MILLISECONDS check
//   ombrafs-keyring MILLISECONDS find NAME=VALUE...            the secret on standard output, nothing else
//   ombrafs-keyring MILLISECONDS store LABEL NAME=VALUE...     the secret from standard input
//   ombrafs-keyring MILLISECONDS remove NAME=VALUE...          how many there were on standard output
//
// The names and values say whose secret it is; the secret itself never stands in the arguments. The service
// has MILLISECONDS for each answer; while a person is asked to unlock the keyring no time counts here. What
// went wrong is told on standard error.
#pragma once

namespace ombra {

// The exit codes. A service that does not answer in time ends the program by SIGALRM.
enum KeyringExit : int {
  kKeyringDone = 0,
  kKeyringNothingFound = 1,
  kKeyringWrongUsage = 2,
  kKeyringAbsent = 3,  // no bus, or nobody on it keeps secrets
  kKeyringLocked = 4,  // and it could not be unlocked
  kKeyringFailed = 5,
};

constexpr unsigned kMaximumKeyringSecret = 4096;

}  // namespace ombra
