#include "tests/integration/MountFixture.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

namespace ombra {
namespace {

std::string fileText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// A loopback address of this process alone.
std::string ownAddress() {
  const int process = getpid();
  return "127." + std::to_string(1 + (process >> 16 & 0x7f)) + "." + std::to_string(process >> 8 & 0xff) +
         "." + std::to_string(process & 0xff);
}

}  // namespace

OmbraUser::OmbraUser() {
  const std::string& folder = iHome.path();
  for (const char* name : {"/.ssh", "/tmp"}) std::filesystem::create_directories(folder + name);
  std::filesystem::permissions(folder + "/.ssh", std::filesystem::perms::owner_all);
  std::filesystem::permissions(folder + "/tmp", std::filesystem::perms::owner_all);
  iEnvironment = {{"HOME", folder},
                  {"XDG_CONFIG_HOME", folder + "/config"},
                  {"XDG_DATA_HOME", folder + "/data"},
                  {"XDG_STATE_HOME", folder + "/state"},
                  {"OMBRAFS_TMPDIR", folder + "/tmp"},
                  {"XDG_RUNTIME_DIR", ""},
                  {"DBUS_SESSION_BUS_ADDRESS", ""},
                  {"SSH_AUTH_SOCK", ""},
                  {"LC_ALL", "C.UTF-8"}};
}

OmbraUser::~OmbraUser() {
  for (const auto& [path, pid] : volumes()) {
    const ShellResult result = ombra("unmount --force " + shellWord(path));
    // One that was about to end anyway may have done so meanwhile.
    EXPECT_TRUE(result.status == 0 || !isMounted(path)) << result.errors;
  }
  // The bus that the command started for this user lives in the user's temporary folder.
  run("pkill -f " + shellWord("dbus-daemon.*" + iHome.path()));
  EXPECT_TRUE(eventually([this] { return !aHelperRuns(); })) << "a helper was left behind";
}

ShellResult OmbraUser::ombra(const std::string& arguments, const std::string& input, double limitSeconds) {
  return shell(std::string(OMBRA_BUILD_DIR) + "/bin/ombra " + arguments, iEnvironment, input, limitSeconds);
}

std::string OmbraUser::mount(const std::string& arguments) {
  const ShellResult result = ombra("mount --json " + arguments);
  EXPECT_EQ(result.status, 0) << result.errors << result.output;
  const nlohmann::json answer = nlohmann::json::parse(result.output, nullptr, false);
  if (!answer.is_object() || !answer.contains("mountPath")) {
    ADD_FAILURE() << "no mount path in: " << result.output << result.errors;
    return "/nonexistent";
  }
  iMountPaths.insert(answer["mountPath"].get<std::string>());
  return answer["mountPath"].get<std::string>();
}

std::map<std::string, pid_t> OmbraUser::helpers() {
  std::map<std::string, pid_t> helpers;
  const ShellResult result = ombra("list --json");
  const nlohmann::json answer = nlohmann::json::parse(result.output, nullptr, false);
  if (!answer.is_object() || !answer.contains("volumes")) return helpers;
  for (const nlohmann::json& volume : answer["volumes"]) {
    helpers[volume.value("mountPath", "")] = volume.value("pid", 0);
  }
  return helpers;
}

pid_t OmbraUser::helperOf(const std::string& mountPath) { return helpers()[mountPath]; }

std::map<std::string, pid_t> OmbraUser::volumes() {
  std::map<std::string, pid_t> volumes = helpers();
  std::erase_if(volumes, [this](const auto& volume) {
    return !started(volume.second) && !iMountPaths.contains(volume.first);
  });
  return volumes;
}

bool OmbraUser::started(pid_t process) const {
  const std::string environment = '\0' + fileText("/proc/" + std::to_string(process) + "/environ");
  return environment.find('\0' + ("HOME=" + iHome.path()) + '\0') != std::string::npos;
}

bool OmbraUser::aHelperRuns() const {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::error_code gone;
    const auto program = std::filesystem::read_symlink(entry.path() / "exe", gone);
    if (program.filename() == "ombrafs-helper" && started(std::atoi(entry.path().filename().c_str())))
      return true;
  }
  return false;
}

void OmbraUser::trust(const SshdFixture& server) {
  std::ofstream(iHome.path() + "/.ssh/known_hosts", std::ios::app) << server.knownHostsLine() << "\n";
}

bool eventually(const std::function<bool()>& condition, double seconds) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(static_cast<int>(seconds * 1000));
  do {
    if (condition()) return true;
    // Another process is being watched, which tells nobody when it changes: look again in a moment.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  } while (std::chrono::steady_clock::now() < deadline);
  return false;
}

bool eventually(const std::string& script, double seconds) {
  return eventually([&script] { return shell(script).status == 0; }, seconds);
}

// One that has ended and waits for the system to collect it does not count.
bool processExists(pid_t pid) {
  if (pid <= 0) return false;
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(file, line)) return false;
  const size_t end = line.rfind(") ");
  return end != std::string::npos && end + 2 < line.size() && line[end + 2] != 'Z' && line[end + 2] != 'X';
}

bool isMounted(const std::string& path) {
  // Names end at a space in there.
  std::string name;
  for (const char c : path) name += c == ' ' ? std::string("\\040") : std::string(1, c);
  return fileText("/proc/self/mounts").find(" " + name + " ") != std::string::npos;
}

std::string ownName(const std::string& text) { return text + "-" + std::to_string(getpid()); }

void MountTest::SetUp() {
  ASSERT_TRUE(std::filesystem::exists("/dev/fuse")) << "These tests mount for real and need /dev/fuse.";
  ASSERT_TRUE(std::filesystem::is_directory("/Volumes"))
      << "These tests mount below /Volumes: mkdir -m 1777 /Volumes";
  server = std::make_unique<SshdFixture>(std::vector<std::string>{}, ownAddress());
  ASSERT_TRUE(server->isRunning()) << server->whyNot();
  iData = std::make_unique<TemporaryFolder>();
  user = std::make_unique<OmbraUser>();
  user->trust(*server);
}

std::string MountTest::url(const std::string& path) const {
  return "sftp://" + server->user() + "@" + server->address() + ":" + std::to_string(server->port()) + path;
}

std::string MountTest::mountArguments(const std::string& path) const {
  return "--identity " + shellWord(server->identityFile()) + " " + shellWord(url(path));
}

}  // namespace ombra
