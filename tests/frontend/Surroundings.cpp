#include "tests/frontend/Surroundings.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

namespace ombra {

namespace {

std::unique_ptr<TemporaryFolder> gFolder;

}  // namespace

ScopedEnvironment::ScopedEnvironment(const char* name, const char* value) : iName(name) {
  const char* before = std::getenv(name);
  iWasSet = before != nullptr;
  if (iWasSet) iBefore = before;
  if (value == nullptr) {
    unsetenv(name);
  } else {
    setenv(name, value, 1);
  }
}

ScopedEnvironment::~ScopedEnvironment() {
  if (iWasSet) {
    setenv(iName.c_str(), iBefore.c_str(), 1);
  } else {
    unsetenv(iName.c_str());
  }
}

void writeFile(const std::string& path, std::string_view content, unsigned mode) {
  std::ofstream(path, std::ios::binary) << content;
  chmod(path.c_str(), mode);
}

std::string readFile(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

void Surroundings::SetUp() {
  gFolder = std::make_unique<TemporaryFolder>();
  for (const char* name : {"DBUS_SESSION_BUS_ADDRESS",
                           "XDG_RUNTIME_DIR",
                           "SSH_AUTH_SOCK",
                           "DISPLAY",
                           "AWS_PROFILE",
                           "AWS_ACCESS_KEY_ID",
                           "AWS_SECRET_ACCESS_KEY",
                           "AWS_SESSION_TOKEN",
                           "AWS_REGION",
                           "AWS_DEFAULT_REGION",
                           "AWS_ENDPOINT_URL",
                           "AWS_ENDPOINT_URL_S3",
                           "AWS_SHARED_CREDENTIALS_FILE",
                           "AWS_CONFIG_FILE",
                           "SSL_CERT_FILE",
                           "SSL_CERT_DIR",
                           "http_proxy",
                           "https_proxy",
                           "HTTPS_PROXY",
                           "all_proxy",
                           "ALL_PROXY"})
    unsetenv(name);
  for (const char* name : {"home", "config", "data", "state", "tmp", "volumes"})
    mkdir((*gFolder / name).c_str(), 0700);
  setenv("HOME", (*gFolder / "home").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (*gFolder / "config").c_str(), 1);
  setenv("XDG_DATA_HOME", (*gFolder / "data").c_str(), 1);
  setenv("XDG_STATE_HOME", (*gFolder / "state").c_str(), 1);
  setenv("OMBRAFS_TMPDIR", (*gFolder / "tmp").c_str(), 1);
  setenv("OMBRAFS_VOLUMES", (*gFolder / "volumes").c_str(), 1);
}

void Surroundings::TearDown() {
  endPrivateBus(*gFolder / "tmp");
  gFolder.reset();
}

const std::string& Surroundings::folder() { return gFolder->path(); }

void endPrivateBus(const std::string& temporaryFolder) {
  const pid_t bus = atoi(readFile(temporaryFolder + "/bus.pid").c_str());
  const std::string commandLine = readFile("/proc/" + std::to_string(bus) + "/cmdline");
  // The number is looked at twice: only a bus that serves this very folder is ended.
  if (bus > 1 && commandLine.find(temporaryFolder) != std::string::npos) kill(bus, SIGTERM);
}

}  // namespace ombra
