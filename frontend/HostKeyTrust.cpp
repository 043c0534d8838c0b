#include "frontend/HostKeyTrust.h"

#include <fmt/format.h>

#include "frontend/Explain.h"

namespace ombra {

namespace {

constexpr std::chrono::seconds kProbeLimit{15};

std::string serverName(const SSHServerAddress& server) {
  return server.port == 0 ? inQuotes(server.host) : inQuotes(fmt::format("{}:{}", server.host, server.port));
}

Failure refusedKey(const SSHServerAddress& server, const SSHHostKeyProbe& probe) {
  const std::string where = probe.conflict
                                ? fmt::format("{}, line {}", probe.conflict->file, probe.conflict->line)
                                : "the known_hosts file";
  const std::string shown = fmt::format("It shows the {} key {}", probe.key.type, probe.key.fingerprint);
  if (probe.status == SSHHostKeyStatus::kRevoked) {
    return {kExitHostKey, fmt::format("The key of the server {} was revoked.", serverName(server)),
            fmt::format("{}, which is marked as revoked in {}.", shown, where),
            "Do not log in there before its administrator has told you why."};
  }
  return {
      kExitHostKey,
      fmt::format("The key of the server {} has changed; somebody may be listening in.", serverName(server)),
      fmt::format("{}, but {} holds another.", shown, where),
      fmt::format(
          "If the server was set up anew, ask its administrator for the fingerprint and remove that line "
          "(ssh-keygen -R {}).",
          shellQuoted(probe.knownHostsName.empty() ? server.host : probe.knownHostsName))};
}

Failure notAccepted(const SSHServerAddress& server, const SSHHostKey& key, bool asked) {
  return {kExitHostKey, fmt::format("The server {} is not known yet.", serverName(server)),
          fmt::format("Its {} key has the fingerprint {}{}.", key.type, key.fingerprint,
                      asked ? ", and you did not accept it" : ", and there is no terminal to ask at"),
          "Compare the fingerprint with the administrator's, then run the command with --accept-new, or at a "
          "terminal."};
}

bool isAccepted(const std::optional<std::string>& answer, const SSHHostKey& key) {
  return answer == "yes" || answer == "y" || answer == key.fingerprint;
}

std::string question(const SSHServerAddress& server, const SSHHostKey& key) {
  return fmt::format(
      "The server {} is not known yet.\nIts {} key has the fingerprint {}.\n"
      "Compare it with what the server's administrator tells you.\nTrust this key and remember it? [yes/no] ",
      serverName(server), printable(key.type), printable(key.fingerprint));
}

std::optional<HostKeyDecision> acceptUnknown(const SSHServerAddress& server, const SSHHostKey& key,
                                             const HostKeyPolicy& policy, const HostKeyServices& services,
                                             Failure* failure) {
  if (!policy.acceptNew) {
    const bool canAsk = static_cast<bool>(policy.ask);
    if (!canAsk || !isAccepted(policy.ask(question(server, key)), key)) {
      *failure = notAccepted(server, key, canAsk);
      return std::nullopt;
    }
  }
  HostKeyDecision decision{key.fingerprint, {}};
  NSErrorRef error;
  if (!services.remember(server, key, &error)) {
    decision.remark =
        fmt::format("The key of {} is trusted this time, but could not be remembered: {}", serverName(server),
                    error ? error->localizedDescription() : "the known_hosts file cannot be written");
  } else if (policy.acceptNew) {
    decision.remark =
        fmt::format("Remembered the {} key of {}: {}", key.type, serverName(server), key.fingerprint);
  }
  return decision;
}

}  // namespace

HostKeyServices HostKeyServices::real() {
  return {knownSSHFingerprints,
          [](const SSHServerAddress& server, NSErrorRef* error) {
            return probeSSHHostKey(server, kProbeLimit, error);
          },
          rememberSSHHostKey};
}

std::optional<HostKeyDecision> decideHostKeyTrust(const SSHServerAddress& server, const HostKeyPolicy& policy,
                                                  const HostKeyServices& services, Failure* failure) {
  const std::string known = services.knownFingerprints(server);
  if (!known.empty() && !policy.lookAgain) return HostKeyDecision{known, {}};
  NSErrorRef error;
  const auto probe = services.probe(server, &error);
  if (!probe) {
    *failure = explainError(error, {.address = server.host, .port = server.port});
    return std::nullopt;
  }
  switch (probe->status) {
    case SSHHostKeyStatus::kKnown:
      return HostKeyDecision{probe->key.fingerprint, {}};
    case SSHHostKeyStatus::kUnknown:
      return acceptUnknown(server, probe->key, policy, services, failure);
    case SSHHostKeyStatus::kChanged:
    case SSHHostKeyStatus::kRevoked:
      break;
  }
  *failure = refusedKey(server, *probe);
  return std::nullopt;
}

}  // namespace ombra
