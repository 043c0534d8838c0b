// What logging in needs.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "frontend/Checkup.h"
#include "frontend/PrivateKeys.h"
#include "frontend/SessionBus.h"
#include "frontend/UniqueFd.h"
#include "platform/foundation/NSFileManager.h"

namespace ombra {

namespace {

using State = Finding::State;

constexpr std::chrono::seconds kAgentLimit{2};

bool hasContent(const std::string& file) {
  const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  return fd && fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
}

bool hasEntries(const std::string& folder) {
  const auto names = NSFileManager::contentsOfDirectoryAtPath(folder, nullptr);
  return names && !names->empty();
}

}  // namespace

Finding checkBus(const CheckupPlaces& places) {
  constexpr const char* kSubject = "message bus";
  if (!SessionBus::desktopAddress().empty())
    return {kSubject, State::kGood, "The bus of the desktop session answers.", ""};
  if (!SessionBus::answeringAddresses().empty() || !programInPath("dbus-daemon", places.searchPath).empty())
    return {kSubject, State::kGood, "There is no desktop session; ombra has a bus of its own.", ""};
  return {kSubject, State::kWrong, "There is no message bus, and none can be started.",
          "Run: sudo apt install dbus-daemon"};
}

Finding checkKeyring(const Keyring& keyring) {
  constexpr const char* kSubject = "keyring";
  const Keyring::Reply reply = keyring.check();
  switch (reply.answer) {
    case Keyring::Answer::kDone:
      return {kSubject, State::kGood, "Passwords can be saved.", ""};
    case Keyring::Answer::kLocked:
      return {kSubject, State::kNote, "The keyring is locked; you will be asked to unlock it.", ""};
    case Keyring::Answer::kAbsent:
      return {kSubject, State::kNote, "Passwords cannot be saved. " + reply.why,
              "In a desktop session: sudo apt install gnome-keyring"};
    default:
      return {kSubject, State::kWrong, "The keyring cannot be used. " + reply.why,
              "End the desktop session and log in again."};
  }
}

Finding checkAgent(const CheckupPlaces& places) {
  constexpr const char* kSubject = "ssh agent";
  if (places.agentSocket.empty()) {
    const bool hasKeys = !defaultPrivateKeys(places.homeFolder).empty();
    return {
        kSubject, State::kGood,
        hasKeys ? "None runs; the keys in ~/.ssh are used." : "None runs, and there are no keys in ~/.ssh.",
        ""};
  }
  if (agentHasKeys(places.agentSocket, kAgentLimit)) return {kSubject, State::kGood, "It has keys.", ""};
  if (access(places.agentSocket.c_str(), F_OK) != 0) {
    return {kSubject, State::kNote, "SSH_AUTH_SOCK names an agent that is not there.",
            "Run: eval \"$(ssh-agent)\" && ssh-add"};
  }
  return {kSubject, State::kNote, "It has no keys, or does not answer.", "Run: ssh-add"};
}

Finding checkKnownHosts(const CheckupPlaces& places) {
  constexpr const char* kSubject = "known hosts";
  const std::string file = places.homeFolder + "/.ssh/known_hosts";
  if (access(file.c_str(), F_OK) != 0)
    return {kSubject, State::kGood, "No SSH server is known yet; the first login asks.", ""};
  if (access(file.c_str(), R_OK) != 0) {
    return {kSubject, State::kWrong, "~/.ssh/known_hosts may not be read.",
            "Run: sudo chown \"$USER\" ~/.ssh/known_hosts && chmod 600 ~/.ssh/known_hosts"};
  }
  if (access(file.c_str(), W_OK) != 0) {
    return {kSubject, State::kNote, "~/.ssh/known_hosts may not be written: new servers are not remembered.",
            "Run: chmod u+w ~/.ssh/known_hosts"};
  }
  return {kSubject, State::kGood, "~/.ssh/known_hosts can be read.", ""};
}

Finding checkAuthorities(const CheckupPlaces& places) {
  constexpr const char* kSubject = "certificates";
  if (hasContent(places.authorityFile) || hasEntries(places.authorityFolder))
    return {kSubject, State::kGood, "This machine knows authorities that vouch for servers.", ""};
  return {kSubject, State::kWrong, "This machine knows no authority that vouches for servers.",
          "Run: sudo apt install ca-certificates   (and look at SSL_CERT_FILE and SSL_CERT_DIR, if set)"};
}

}  // namespace ombra
