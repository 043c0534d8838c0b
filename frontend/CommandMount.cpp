#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "frontend/Commands.h"
#include "frontend/MountCommon.h"
#include "frontend/PrivateMemory.h"
#include "frontend/ProtocolLogin.h"
#include "frontend/RemoteURL.h"
#include "platform/foundation/NSUnarchiver.h"
#include "remote/KCTypes.h"

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
    keepMemoryPrivate();
    Failure failure;
    const auto url = parseRemoteURL(iOptions.url, &failure);
    if (!url || !checkURL(*url, &failure) || !checkOptionsForURL(iOptions, *url, &failure) ||
        !checkVolumeOptions(&iOptions.volume, &failure))
      return iOutput.fail(failure);
    iCredentials = credentialsForURL(*url);
    if (iOptions.encoding) useEncoding(*iOptions.encoding);
    const auto helper = prepareMachine(&failure);
    if (!helper) return iOutput.fail(failure);
    // Only when somebody sits there: a command in a pipe must not wait for an answer that nobody gives.
    if (isatty(STDIN_FILENO) == 1) iPrompt = TerminalPrompt::open(iInterruption);
    const Keyring keyring(keyringProgram(), iInterruption, iOutput);
    SavedSecrets saved(keyring, iOutput, iOptions.login.save);
    const LoginTools tools{*url, iOptions, iOutput, iPrompt.get(), *iCredentials, saved};
    const auto login = ProtocolLogin::forURL(tools);
    if (!login->prepare(&failure)) return iOutput.fail(stoppedOr(failure));
    return mountAndTell(iCredentials, iOptions.volume, *helper, iInterruption, iOutput,
                        {[&login](MountResult* result) { return login->retry(result); },
                         [this, &saved] { saved.keep(*iCredentials); }});
  }

 private:
  bool checkURL(const RemoteURL& url, Failure* failure) {
    if (url.password) {
      iOutput.warning(
          "The password in the URL could be seen in the process list and is kept in the shell's history; "
          "leave it out to be asked for it, or use --password-file.");
    }
    return url.protocol != kProtocolFile || checkLocalFolder(*url.path, failure);
  }

  // The start folder travels in the server's bytes, as all remote paths do.
  void useEncoding(const std::string& name) {
    iCredentials->setEncoding(name);
    if (iCredentials->initialPath())
      iCredentials->setInitialPath(iCredentials->remoteStringForUnicodeString(*iCredentials->initialPath()));
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
};

}  // namespace

int runMount(const MountOptions& options, const Output& output) {
  return MountCommand(options, output).run();
}

}  // namespace ombra
