// Runs one step of the repair of the bundle that lies beside this program, as root. Through this program the
// person who is asked for the rights reads what they are for, and what they grant is these four steps and
// nothing else. Like the loader, it trusts nothing that its caller can choose but the command, which must be
// one of the four.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include "fshelper/DrelFSInstallerBundle/BundlePaths.h"

namespace {

constexpr int kUsage = 2;
constexpr int kFailure = 1;

using Command = std::vector<std::string>;

std::array<Command, 4> steps(const std::string& folder) {
  const std::string extension = folder + "/" + ombra::kDrelFSExtension;
  const std::string loader = folder + "/" + ombra::kDrelFSLoader;
  return {Command{"/usr/bin/chown", "-h", "-R", "-P", "--", "root:0", extension},
          Command{"/usr/bin/chmod", "-R", "--", "go-w", extension},
          Command{"/usr/bin/chown", "-h", "-R", "-P", "--", "root:0", loader},
          Command{"/usr/bin/chmod", "--", "u+s", loader}};
}

// Where this program lies; empty when the system does not tell.
std::string ownFolder() {
  std::array<char, 4096> path{};
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0 || static_cast<size_t>(length) == path.size()) return {};
  const std::string program(path.data(), static_cast<size_t>(length));
  return program.substr(0, program.rfind('/'));
}

bool isAStep(const Command& command) {
  const std::string folder = ownFolder();
  if (folder.empty()) return false;
  for (const Command& step : steps(folder)) {
    if (command == step) return true;
  }
  return false;
}

bool prepare() {
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) < 0 && ::open("/dev/null", O_RDWR) != descriptor) return false;
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int number = 1; number < NSIG; ++number) ::signal(number, SIG_DFL);
  ::alarm(0);
  ::umask(022);
  return ::close_range(3, ~0U, 0) == 0 && ::chdir("/") == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (!prepare()) return kFailure;
  Command command(argc > 1 ? argv + 1 : argv + argc, argv + argc);
  if (!isAStep(command)) {
    std::fputs("repair_drelfs: only the steps that repair the bundle of this program are run\n", stderr);
    return kUsage;
  }
  std::vector<char*> arguments;
  for (std::string& word : command) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
  char locale[] = "LC_ALL=C.UTF-8";
  char* environment[] = {path, locale, nullptr};
  ::execve(arguments[0], arguments.data(), environment);
  std::perror(arguments[0]);
  return kFailure;
}
