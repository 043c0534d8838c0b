#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "frontend/Commands.h"
#include "frontend/Explain.h"
#include "frontend/HostKeyTrust.h"
#include "frontend/MountCommon.h"
#include "frontend/RemoteURL.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSUnarchiver.h"
#include "remote/KCTypes.h"
#include "remote/sftp/SSHConfiguration.h"

namespace ombra {

namespace {

bool checkLocalFolder(const std::string& path, Failure* failure) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    *failure = {kExitNotFound, fmt::format("The folder {} cannot be mounted.", inQuotes(path)),
                std::strerror(errno), "Check the path in the URL."};
    return false;
  }
  if (S_ISDIR(status.st_mode)) return true;
  *failure = {kExitNotFound, fmt::format("{} is not a folder.", inQuotes(path)), "",
              "Check the path in the URL."};
  return false;
}

std::shared_ptr<KCCredentials> credentialsForURL(const RemoteURL& url) {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(url.protocol);
  credentials->setAddress(url.host.empty() ? "localhost" : url.host);
  credentials->setPort(url.port);
  credentials->setUsername(url.username);
  credentials->setPassword(url.password);
  credentials->setInitialPath(url.path);
  credentials->setUUID(KCUUID::UUID());
  return credentials;
}

// One run of the command, from the URL to the mounted volume.
class MountCommand {
 public:
  MountCommand(MountOptions options, const Output& output) : iOptions(std::move(options)), iOutput(output) {}
  ~MountCommand() { wipe(iOptions.url); }
  MountCommand(const MountCommand&) = delete;
  MountCommand& operator=(const MountCommand&) = delete;

  int run() {
    Failure failure;
    const auto url = parseRemoteURL(iOptions.url, &failure);
    if (!url || !checkURL(*url, &failure) || !checkVolumeOptions(&iOptions.volume, &failure))
      return iOutput.fail(failure);
    iCredentials = credentialsForURL(*url);
    const auto helper = prepareMachine(&failure);
    if (!helper) return iOutput.fail(failure);
    // Only when somebody sits there: a command in a pipe must not wait for an answer that nobody gives.
    if (isatty(STDIN_FILENO) == 1) iPrompt = TerminalPrompt::open(iInterruption);
    const bool ready = url->protocol == kProtocolSFTP ? prepareSFTP(&failure) : prepareFile(*url, &failure);
    if (!ready) return iOutput.fail(stoppedOr(failure));
    return mountAndTell(iCredentials, iOptions.volume, *helper, iInterruption, iOutput,
                        [this](MountResult* result) { return retry(result); });
  }

 private:
  bool checkURL(const RemoteURL& url, Failure* failure) {
    if (!isProtocolAvailable(url.protocol)) {
      *failure = {kExitUsage, fmt::format("{}:// is not yet available in this version.", url.scheme), "",
                  "Available are sftp:// and file://."};
      return false;
    }
    if (url.password) {
      iOutput.warning(
          "The password in the URL could be seen in the process list and is kept in the shell's history; "
          "leave it out to be asked for it, or use --password-file.");
    }
    return url.protocol != kProtocolFile || checkLocalFolder(*url.path, failure);
  }

  bool prepareFile(const RemoteURL& url, Failure*) {
    iCredentials->setUsername(currentUserName());
    if (!iOptions.volume.name && *url.path != "/") iOptions.volume.name = lastPathComponent(*url.path);
    return true;
  }

  // Trust comes first: nothing secret is asked for, let alone sent, before the server is known.
  bool prepareSFTP(Failure* failure) {
    const SSHConfiguration configuration = readSSHConfiguration(server());
    if (!iCredentials->username()) {
      iCredentials->setUsername(configuration.username.empty() ? currentUserName() : configuration.username);
    }
    LoginSurroundings surroundings = LoginSurroundings::ofThisProcess();
    surroundings.configuredIdentity = configuration.identityFile;
    return settleTrust(false, failure) && gatherLoginSecrets(iOptions.login, surroundings, iPrompt.get(),
                                                             iOutput, iCredentials.get(), failure);
  }

  SSHServerAddress server() const {
    return {iCredentials->address(), iCredentials->port(), iCredentials->username().value_or("")};
  }

  bool settleTrust(bool lookAgain, Failure* failure) {
    HostKeyPolicy policy{iOptions.acceptNew, lookAgain, {}};
    if (iPrompt) policy.ask = [this](const std::string& question) { return iPrompt->line(question); };
    const auto decision = decideHostKeyTrust(server(), policy, HostKeyServices::real(), failure);
    if (!decision) return false;
    if (!decision->remark.empty()) iOutput.warning(decision->remark);
    iCredentials->setOption("fingerprint", decision->fingerprints);
    return true;
  }

  // Once each: a server whose key is not the known one is looked at to tell what is wrong with it, and a
  // refused login is tried again with a password where somebody can be asked.
  bool retry(MountResult* result) {
    if (iCredentials->protocol() != kProtocolSFTP) return false;
    const int64_t code = libraryCode(result->error);
    if (code == kQuarnKitUntrusted && !iLookedAgain) {
      iLookedAgain = true;
      return settleTrust(true, &result->failure);
    }
    if (code == kQuarnKitLoginFailed && !iAskedAgain && iPrompt) {
      iAskedAgain = true;
      iOutput.warning(fmt::format("{} {}", result->failure.what, sentence(result->failure.why)));
      return askForPassword(*iPrompt, iCredentials.get());
    }
    return false;
  }

  Failure stoppedOr(const Failure& failure) const {
    if (!iInterruption.requested()) return failure;
    return {static_cast<ExitCode>(iInterruption.exitCode()), "Stopped; nothing is mounted.", "", ""};
  }

  MountOptions iOptions;
  const Output& iOutput;
  Interruption iInterruption;
  std::shared_ptr<KCCredentials> iCredentials;
  std::unique_ptr<TerminalPrompt> iPrompt;
  bool iLookedAgain = false;
  bool iAskedAgain = false;
};

}  // namespace

int runMount(const MountOptions& options, const Output& output) {
  return MountCommand(options, output).run();
}

}  // namespace ombra
