#include "frontend/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <functional>

#include "frontend/Commands.h"
#include "platform/foundation/NSUnarchiver.h"

#ifndef OMBRA_VERSION
#define OMBRA_VERSION "unknown"
#endif

namespace ombra {

namespace {

constexpr const char* kFooter = R"(Examples:
  ombra sample                             a folder to try it with; no server needed
  ombra mount sftp://anna@nas.local/photos
  ombra list
  ombra unmount nas.local
  ombra doctor                             what is missing on this machine

Exit codes: 0 done, 1 failed, 2 wrong usage, 3 not found or not mounted, 4 login refused, 5 server not trusted,
6 this machine cannot mount, 7 volume in use, 130 stopped by Ctrl-C.)";

constexpr const char* kMountFooter = R"(URLs:
  sftp://[user@]host[:port]          the folder that the login lands in
  sftp://[user@]host[:port]/path     an absolute path
  sftp://[user@]host[:port]/~/path   a path below the login folder; the same for ftp, ftps, ftpes
  ftpes://[user@]host[:port]/path    FTP that becomes TLS; without a user anonymously
  ftps://[user@]host[:port]/path     FTP over TLS from the start (port 990)
  ftp://[user@]host[:port]/path      FTP, readable on its way
  davs://[user@]host[:port]/path     WebDAV over TLS; https:// is the same
  dav://[user@]host[:port]/path      WebDAV, readable on its way; http:// is the same
  s3://[key@][bucket][/path]         S3; without a bucket all of them
  file:///path                       a folder of this machine
Write special characters as %XX, a blank as %20. The host of sftp may be an alias of ~/.ssh/config. The key for s3 comes
from the URL, AWS_ACCESS_KEY_ID, or a profile of ~/.aws/credentials.

Examples:
  ombra mount sftp://anna@nas.local/~/photos --name Photos
  ombra mount sftp://backup@example.org:2222/srv --identity ~/.ssh/backup
  ombra mount sftp://anna@nas.local --password-file ~/.nas-password --accept-new --json
  ombra mount ftpes://anna@ftp.example.org
  ombra mount https://anna@cloud.example.org/dav/anna
  ombra mount s3://photos --region eu-central-1
  ombra mount s3://public-data --anonymous
  ombra mount s3://KEY@photos/2024 --endpoint https://s3.example.org
  ombra mount file:///srv/shared

With --save the password, the passphrase of --identity or the secret of an S3 key goes into the desktop's keyring once the
server has taken it. ombra forget removes it. Where there is no keyring the command says so and goes on asking.)";

constexpr const char* kStatusFooter =
    R"(Shows what is being fetched and sent, how fast and for how long, which files are not on the server yet, what the local
copies take, and the last error. See ombra-status(1) for the lines and the object of --json.

Examples:
  ombra status
  ombra status Photos --watch
  ombra status Photos --json)";

constexpr const char* kUnmountFooter =
    R"(Waits until everything written has reached the server, and shows what is still being sent.

Examples:
  ombra unmount Photos
  ombra unmount /Volumes/Photos
  ombra unmount --all
  ombra unmount Photos --force     when the server is gone: what has not arrived there is given up)";

constexpr const char* kForgetFooter =
    R"(The path of the URL does not matter; the user, where it names one, and the port do. For S3 the URL names the access key.

Examples:
  ombra forget sftp://anna@nas.local
  ombra forget s3://KEY@
  ombra forget --all

Exit codes: 0 done, 3 nothing was kept, 1 there is no keyring, or it stays locked.)";

constexpr const char* kDoctorFooter =
    R"(Each line begins with good, note (works without, but good to know) or WRONG (something must be done); the next line says
what to run. Nothing is changed.

Examples:
  ombra doctor
  ombra doctor --endpoint https://s3.example.org
  ombra doctor --json

Exit codes: 0 nothing is wrong, 1 something must be done.)";

class CommandLine {
 public:
  CommandLine() : iApp("Mounts folders of servers as disks below /Volumes.", "ombra") {
    iApp.require_subcommand(0, 1);
    iApp.set_version_flag("--version", "ombra " OMBRA_VERSION);
    iApp.footer(kFooter);
    addMount();
    addSample();
    addList();
    addStatus();
    addUnmount();
    addRefresh();
    addLogs();
    addForget();
    addDoctor();
    addDefaults();
  }
  ~CommandLine() {
    wipe(iMount.url);
    if (iForget.url) wipe(*iForget.url);
  }
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  int run(std::vector<std::string> arguments) {
    // The parser takes them in reverse, without the program's name.
    arguments.erase(arguments.begin());
    std::reverse(arguments.begin(), arguments.end());
    try {
      iApp.parse(std::move(arguments));
    } catch (const CLI::ExtrasError& error) {
      const std::vector<std::string> extras = iApp.remaining();
      const bool isCommand = iApp.get_subcommands().empty() && !extras.empty() && !extras[0].starts_with('-');
      return refuse(isCommand ? "There is no command " + inQuotes(extras[0]) + "." : error.what());
    } catch (const CLI::ParseError& error) {
      // Help and version are no failures; everything else is one of usage.
      return error.get_exit_code() == 0 ? iApp.exit(error) : refuse(whatIsWrong(error));
    }
    if (!iRun) return refuse("No command was given.");
    return iRun();
  }

 private:
  // A word that nobody knows is told first: what is missing may stand behind it.
  std::string whatIsWrong(const CLI::ParseError& error) const {
    std::vector<std::string> unknown = iApp.remaining(true);
    std::erase_if(unknown, [](const std::string& word) { return !word.starts_with('-'); });
    std::reverse(unknown.begin(), unknown.end());  // told from the last to the first
    return unknown.empty() ? error.what() : CLI::ExtrasError(unknown).what();
  }

  int refuse(const std::string& what) {
    std::string help = "ombra";
    for (const CLI::App* command = &iApp; !command->get_subcommands().empty();) {
      command = command->get_subcommands().front();
      help += " " + command->get_name();
    }
    return iOutput.fail({kExitUsage, what, "", "See: " + help + " --help"});
  }

  CLI::App* add(const char* name, const char* description, std::string footer, std::function<int()> run) {
    CLI::App* command = iApp.add_subcommand(name, description);
    command->footer(std::move(footer));
    command->callback([this, run = std::move(run)] { iRun = run; });
    return command;
  }

  void addJSON(CLI::App* command) {
    command->add_flag("--json", iOutput.json, "Print the result as one JSON object");
  }

  static void addVolumeOptions(CLI::App* command, const std::string& defaultName, VolumeOptions* options) {
    command->add_option("--name", options->name, "The volume's name (default: " + defaultName + ")")
        ->type_name("NAME");
    command->add_option("--icon", options->icon, "An icon for the volume")->type_name("PATH");
    command
        ->add_option("--passthrough", options->passthrough,
                     "Mount only once for this identifier; a further mount finds the first one")
        ->type_name("ID");
    command->add_flag("--foreground", options->foreground,
                      "Stay until the volume is unmounted; Ctrl-C unmounts it");
  }

  void addMount() {
    CLI::App* command = add("mount", "Mount a folder of a server", kMountFooter,
                            [this] { return runMount(iMount, iOutput); });
    command->add_option("URL", iMount.url, "The folder to mount")->required()->type_name("");
    addVolumeOptions(command, "the server's address, the bucket or the local folder", &iMount.volume);
    command->add_option("--identity", iMount.login.identity, "The file of the private key to log in with")
        ->type_name("FILE");
    command
        ->add_option("--password-file", iMount.login.passwordFile,
                     "A file that holds the password, or the passphrase of --identity, on one line")
        ->type_name("FILE");
    command->add_flag("--ask-password", iMount.login.askPassword,
                      "Ask for the password even when there are keys");
    command->add_flag("--save", iMount.login.save,
                      "Keep the password in the desktop's keyring and find it there from then on");
    command->add_flag(
        "--accept-new", iMount.acceptNew,
        "Trust and remember a server that is not known yet; a changed key or certificate is always refused");
    addProtocolOptions(command);
    addJSON(command);
  }

  void addProtocolOptions(CLI::App* command) {
    command->add_option("--encoding", iMount.encoding, "The encoding of the server's file names (sftp, ftp)")
        ->type_name("NAME");
    command->add_option("--endpoint", iMount.s3.endpoint, "The server, where it is not Amazon's (s3)")
        ->type_name("URL");
    command->add_option("--region", iMount.s3.region, "The region of the bucket (s3)")->type_name("NAME");
    command->add_option("--profile", iMount.s3.profile, "The profile of ~/.aws to take the key from (s3)")
        ->type_name("NAME");
    command->add_flag("--anonymous", iMount.s3.anonymous,
                      "Use no key: for buckets that are open to everybody (s3)");
    command->add_flag("--path-style", iMount.s3.pathStyle,
                      "Send the bucket in the path instead of the host name (s3)");
    command->add_flag("--streaming", iMount.streaming, "Write files as streams instead of in place (file)");
  }

  void addSample() {
    CLI::App* command = add("sample", "Mount a sample folder; needs no server, no password and no network",
                            "Example:\n  ombra sample && ls \"/Volumes/Ombra Sample\"",
                            [this] { return runSample(iSample, iOutput); });
    addVolumeOptions(command, "Ombra Sample", &iSample);
    addJSON(command);
  }

  void addList() {
    addJSON(add("list", "Show the mounted volumes", "Examples:\n  ombra list\n  ombra list --json",
                [this] { return runList(iOutput); }));
  }

  void addStatus() {
    CLI::App* command = add("status", "Show what is being transferred, and what the server has not got yet",
                            kStatusFooter, [this] { return runStatus(iStatus, iOutput); });
    command->add_option("VOLUME", iStatus.target, "The volume's name or mount path (default: all)")
        ->type_name("");
    command->add_flag("--watch,-w", iStatus.watch, "Go on showing it, until Ctrl-C");
    addJSON(command);
  }

  void addUnmount() {
    CLI::App* command =
        add("unmount", "Unmount volumes", kUnmountFooter, [this] { return runUnmountChecked(); });
    command->add_option("VOLUME", iUnmount.targets, "The volumes' names or mount paths")->type_name("");
    command->add_flag("--all", iUnmount.all, "All volumes of this user");
    command->add_flag("--force", iUnmount.force,
                      "Do not wait for the server, nor for programs that use the volume");
    addJSON(command);
  }

  int runUnmountChecked() {
    if (iUnmount.all == iUnmount.targets.empty()) return runUnmount(iUnmount, iOutput);
    return iOutput.fail({kExitUsage,
                         iUnmount.all ? "Either name volumes or use --all." : "No volume was named.", "",
                         "See: ombra unmount --help"});
  }

  void addRefresh() {
    CLI::App* command = add("refresh", "Look again at folders that have changed on the server",
                            "Example:\n  ombra refresh /Volumes/Photos/2024",
                            [this] { return runRefresh(iRefresh, iOutput); });
    command->add_option("PATH", iRefresh, "Folders of mounted volumes")->required()->type_name("");
  }

  void addLogs() {
    CLI::App* command = add("logs", "Print the newest log of a volume",
                            "Examples:\n  ombra logs Photos\n  ombra logs Photos --transcript --follow",
                            [this] { return runLogs(iLogs, iOutput); });
    command->add_option("NAME", iLogs.name, "The volume's name or mount path")->required()->type_name("");
    command->add_flag("--transcript", iLogs.transcript,
                      "The conversation with the server instead of the messages");
    command->add_flag("--follow,-f", iLogs.follow, "Go on with what is added, until Ctrl-C");
  }

  void addForget() {
    CLI::App* command = add("forget", "Remove passwords from the keyring that mount --save has put there",
                            kForgetFooter, [this] { return runForgetChecked(); });
    command->add_option("URL", iForget.url, "The server, and the user when the URL names one")->type_name("");
    command->add_flag("--all", iForgetAll, "The passwords of all servers");
    addJSON(command);
  }

  int runForgetChecked() {
    if (iForgetAll != iForget.url.has_value()) return runForget(iForget, iOutput);
    return iOutput.fail({kExitUsage,
                         iForgetAll ? "Either name a server or use --all." : "No server was named.", "",
                         "See: ombra forget --help"});
  }

  void addDoctor() {
    CLI::App* command = add("doctor", "Look whether this machine has all that mounting and logging in need",
                            kDoctorFooter, [this] { return runDoctor(iDoctor, iOutput); });
    command->add_option("--endpoint", iDoctor.endpoint, "Compare the clock with that of this S3 server")
        ->type_name("URL");
    addJSON(command);
  }

  void addDefaults() {
    CLI::App* command = iApp.add_subcommand("defaults", "Show and change settings of the helpers");
    command->require_subcommand(0, 1);
    command->footer(
        "Settings, each true or false:\n"
        "  TracingEnabled       log each operation with its arguments\n"
        "  DebugLogging         log errors and the mount's own messages\n"
        "  UseVerboseLogging    tell in the transcript of logins and connections too\n"
        "  MountAtRemoteRoot    show the whole server and open the folder of the URL in it\n\n"
        "Examples:\n  ombra defaults get\n  ombra defaults set DebugLogging true\n  ombra defaults set "
        "DebugLogging");
    command->callback([this, command] {
      if (command->get_subcommands().empty()) iRun = [this] { return refuse("Get or set a setting?"); };
    });
    CLI::App* get = command->add_subcommand("get", "Print a setting, or all");
    get->add_option("KEY", iKey, "The setting")->type_name("");
    addJSON(get);
    get->callback([this] { iRun = [this] { return runDefaultsGet(iKey, iOutput); }; });
    CLI::App* set = command->add_subcommand("set", "Change a setting; without a value, remove it");
    set->add_option("KEY", iKey, "The setting")->required()->type_name("");
    set->add_option("VALUE", iValue, "true, false, a number or a text")->type_name("");
    set->callback([this] { iRun = [this] { return runDefaultsSet(*iKey, iValue, iOutput); }; });
  }

  CLI::App iApp;
  std::function<int()> iRun;
  Output iOutput;
  MountOptions iMount;
  VolumeOptions iSample;
  StatusOptions iStatus;
  UnmountOptions iUnmount;
  std::vector<std::string> iRefresh;
  LogsOptions iLogs;
  ForgetOptions iForget;
  DoctorOptions iDoctor;
  bool iForgetAll = false;
  std::optional<std::string> iKey;
  std::optional<std::string> iValue;
};

}  // namespace

int runCommandLine(std::vector<std::string> arguments) { return CommandLine().run(std::move(arguments)); }

}  // namespace ombra
