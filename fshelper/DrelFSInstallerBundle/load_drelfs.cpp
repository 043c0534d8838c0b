// Loads the kernel's fuse module when /dev/fuse is missing. Installed set-user-ID root, so it trusts nothing
// that its caller can choose: no arguments, no environment, no open descriptors, no pending alarms, no
// working folder.
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace {

constexpr int kUsage = 2;
constexpr int kFailure = 1;

// Descriptors 0 to 2 stay, so that the caller reads what went wrong, but are made sure to be there: a file
// opened as number 2 would receive messages.
bool haveStandardDescriptors() {
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    if (::fcntl(descriptor, F_GETFD) < 0 && ::open("/dev/null", O_RDWR) != descriptor) return false;
  }
  return ::close_range(3, ~0U, 0) == 0;
}

void resetSignals() {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  for (int number = 1; number < NSIG; ++number) ::signal(number, SIG_DFL);
  ::alarm(0);
}

}  // namespace

int main(int argc, char**) {
  if (!haveStandardDescriptors()) return kFailure;
  if (argc > 1) {
    std::fputs("usage: load_drelfs (takes no arguments)\n", stderr);
    return kUsage;
  }
  if (::access("/dev/fuse", F_OK) == 0) return 0;
  resetSignals();
  ::umask(022);
  // modprobe looks at the real user as well.
  if (::chdir("/") != 0 || ::setgroups(0, nullptr) != 0 || ::setgid(0) != 0 || ::setuid(0) != 0) {
    std::perror("load_drelfs: no administrator rights (is the program owned by root with mode 4755?)");
    return kFailure;
  }
  char name[] = "modprobe";
  char end[] = "--";
  char module[] = "fuse";
  char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
  char locale[] = "LC_ALL=C";
  char* arguments[] = {name, end, module, nullptr};
  char* environment[] = {path, locale, nullptr};
  ::execve("/sbin/modprobe", arguments, environment);
  std::perror("load_drelfs: /sbin/modprobe");
  return kFailure;
}
