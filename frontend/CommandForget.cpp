#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "frontend/Commands.h"
#include "frontend/SavedSecrets.h"
#include "remote/KCTypes.h"

namespace ombra {

namespace {

// What to look for; all there is when no URL is given.
std::optional<KeyringItem> whatToForget(const ForgetOptions& options, Failure* failure) {
  if (!options.url) return KeyringItem{};
  const auto url = parseRemoteURL(*options.url, failure);
  if (!url) return std::nullopt;
  if (url->protocol == kProtocolFile) {
    *failure = {kExitUsage, "A folder of this machine has no password.", "", "See: ombra forget --help"};
    return std::nullopt;
  }
  if (url->protocol == kProtocolS3 && !url->username) {
    *failure = {kExitUsage, "The URL names no access key.", "", "Write it as s3://KEY@bucket."};
    return std::nullopt;
  }
  return keyringItemsOfURL(*url);
}

Failure forgetFailure(const Keyring::Reply& reply, const Interruption& interruption) {
  switch (reply.answer) {
    case Keyring::Answer::kInterrupted:
      return {static_cast<ExitCode>(interruption.exitCode()), "Stopped.", "", ""};
    case Keyring::Answer::kNothingFound:
      return {kExitNotFound, "The keyring keeps no such password.", "", ""};
    case Keyring::Answer::kAbsent:
      return {kExitFailure, "There is no keyring here.", reply.why,
              "Run the command within the desktop session that keeps the passwords."};
    default:
      return {kExitFailure, "The keyring cannot be used.", reply.why,
              "Unlock it in the desktop session, and try again."};
  }
}

}  // namespace

int runForget(const ForgetOptions& options, const Output& output) {
  Failure failure;
  const auto item = whatToForget(options, &failure);
  if (!item) return output.fail(failure);
  const Interruption interruption;
  const Keyring keyring(keyringProgram(), interruption, output);
  const Keyring::Reply reply = keyring.remove(*item);
  if (reply.answer != Keyring::Answer::kDone) return output.fail(forgetFailure(reply, interruption));
  if (output.json) {
    output.result(nlohmann::json{{"forgotten", reply.count}}.dump());
  } else {
    output.remark(reply.count == 1 ? "Forgot 1 password" : fmt::format("Forgot {} passwords", reply.count));
  }
  return kExitSuccess;
}

}  // namespace ombra
