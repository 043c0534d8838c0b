#include "packaging/mount/VolumeMount.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

extern "C" {
#include <sys/pidfd.h>  // the header itself forgets to say that it is C
}

namespace ombra {
namespace {

constexpr size_t kMaximumOutput = 16 * 1024;
constexpr int kUsageOfCommand = 2;

std::string reason() { return std::strerror(errno); }

MountStatus fail(const std::string& text, MountStatus status = kMountSystem) {
  complain(text);
  return status;
}

void closeEnd(int& descriptor) {
  if (descriptor >= 0) ::close(descriptor);
  descriptor = -1;
}

// Both ends are closed in every case, so that each side sees the other one's end.
struct Pipe {
  int ends[2] = {-1, -1};
  Pipe() {
    if (::pipe2(ends, O_CLOEXEC) != 0) ends[0] = ends[1] = -1;
  }
  ~Pipe() {
    closeEnd(ends[0]);
    closeEnd(ends[1]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
};

int statusOfChild(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return kMountSystem;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::vector<char*> pointers(std::vector<std::string>& words) {
  std::vector<char*> result;
  for (std::string& word : words) result.push_back(word.data());
  result.push_back(nullptr);
  return result;
}

std::vector<std::string> mountWords(const MountHelperOptions& options, const std::string& command) {
  std::vector<std::string> words{command, "mount", "--name=" + options.volumeName};
  words.insert(words.end(), options.arguments.begin(), options.arguments.end());
  words.insert(words.end(), {"--", options.source});
  return words;
}

[[noreturn]] void runAsUser(std::vector<std::string> words, const MountUser& user, int output) {
  std::vector<std::string> variables = user.environment();
  if (::dup2(output, STDOUT_FILENO) < 0 || !user.become()) {
    complain(fmt::format("“{}” cannot be run as the user “{}”: {}", words[0], user.name, reason()));
    ::_exit(kMountSystem);
  }
  ::execve(words[0].c_str(), pointers(words).data(), pointers(variables).data());
  complain(fmt::format("“{}” cannot be run: {}. Install the program again.", words[0], reason()));
  ::_exit(kMountSystem);
}

// Runs the command, which says itself what goes wrong, and takes the line that it prints. The helper that it
// starts holds no end of the pipe.
MountStatus runCommand(std::vector<std::string> words, const MountUser& user, std::string* line) {
  Pipe pipe;
  const pid_t child = ::fork();
  if (child < 0) return fail("No process can be started: " + reason());
  if (child == 0) runAsUser(std::move(words), user, pipe.ends[1]);
  closeEnd(pipe.ends[1]);
  char buffer[1024];
  ssize_t count = 0;
  while ((count = ::read(pipe.ends[0], buffer, sizeof buffer)) > 0 || (count < 0 && errno == EINTR)) {
    if (count > 0 && line->size() < kMaximumOutput) line->append(buffer, static_cast<size_t>(count));
  }
  const int status = statusOfChild(child);
  while (line->ends_with('\n')) line->pop_back();
  if (status == kUsageOfCommand) return kMountUsage;
  return status == 0 ? kMountDone : kMountFailed;
}

// The kernel writes blanks and the like in octal.
std::string decoded(const std::string& field) {
  std::string result;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      result +=
          static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
      i += 3;
    } else {
      result += field[i];
    }
  }
  return result;
}

// The fifth field of a line of /proc/self/mountinfo.
std::string mountPointOf(const std::string& line) {
  size_t start = 0;
  for (int fields = 0; fields < 4; ++fields) start = line.find(' ', start) + 1;
  return decoded(line.substr(start, line.find(' ', start) - start));
}

// Where something is mounted, in the order of mounting.
std::vector<std::string> mountPoints() {
  std::vector<std::string> result;
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) result.push_back(mountPointOf(line));
  return result;
}

// An empty folder of volumes that only this process and its children see. What was mounted below the real one
// is let go of here: a volume lives until the last place that shows it is unmounted.
bool makePrivateVolumesFolder(const std::string& folder) {
  if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0)
    return false;
  const std::vector<std::string> all = mountPoints();
  for (auto path = all.rbegin(); path != all.rend(); ++path) {
    if (path->starts_with(folder + "/")) ::umount2(path->c_str(), MNT_DETACH | UMOUNT_NOFOLLOW);
  }
  return ::mount("ombra", folder.c_str(), "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=1777,size=64k") ==
         0;
}

// The folder of volumes is everybody's, and the path is what a program of the user says: no link is followed.
bool setAttributes(const std::string& path, uint64_t attributes) {
  mount_attr change{};
  change.attr_set = attributes;
  if ((attributes & MOUNT_ATTR_NOATIME) != 0) change.attr_clr = MOUNT_ATTR__ATIME;
  return attributes == 0 ||
         ::mount_setattr(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, &change, sizeof change) == 0;
}

// The volume at `path` without a place; negative on failure.
int takeVolume(const std::string& path, uint64_t attributes) {
  const int tree =
      setAttributes(path, attributes)
          ? ::open_tree(AT_FDCWD, path.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_SYMLINK_NOFOLLOW)
          : -1;
  const int saved = errno;
  ::umount2(path.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW);
  errno = saved;
  return tree;
}

MountStatus refuseOtherName(const std::string& path) {
  return fail(
      fmt::format("The volume can only be mounted at “{}”, as names of volumes are written: use that mount "
                  "point, or one without accents.",
                  path),
      kMountUsage);
}

// The half with the private folder: tells the number of its descriptor of the volume, and keeps it until the
// other half has taken it.
MountStatus mountInPrivate(const MountHelperOptions& options, const MountUser& user,
                           const std::string& command, const std::string& volumesFolder, int tell,
                           int taken) {
  if (!makePrivateVolumesFolder(volumesFolder))
    return fail("No mount namespace can be made: " + reason() +
                ". Only an administrator can mount like this.");
  std::string path;
  const MountStatus status = runCommand(mountWords(options, command), user, &path);
  if (status != kMountDone) return status;
  if (path != options.mountPoint) {
    std::string ignored;
    runCommand({command, "unmount", "--", path}, user, &ignored);
    return refuseOtherName(path);
  }
  const int tree = takeVolume(path, options.attributes);
  if (tree < 0)
    return fail(fmt::format("The volume cannot be moved to “{}”: {}", options.mountPoint, reason()));
  char byte = 0;
  if (::write(tell, &tree, sizeof tree) != sizeof tree || ::read(taken, &byte, 1) < 0) return kMountSystem;
  return kMountDone;
}

// A volume whose helper was killed leaves a mount that answers nothing.
void clearDeadMount(const std::string& path) {
  struct stat status {};
  while (::stat(path.c_str(), &status) != 0 && errno == ENOTCONN) {
    if (::umount2(path.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) != 0) return;
  }
}

bool isVolume(const std::string& path) {
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    if (line.find(" OmbraFS/") != std::string::npos && mountPointOf(line) == path) return true;
  }
  return false;
}

MountStatus refuseSecondMount(const std::string& path) {
  return fail(fmt::format("A volume is mounted at “{0}” already. To unmount it: umount {0}", path),
              kMountFailed);
}

MountStatus moveTo(int tree, const std::string& path) {
  if (::move_mount(tree, "", AT_FDCWD, path.c_str(), MOVE_MOUNT_F_EMPTY_PATH) != 0)
    return fail(fmt::format("Nothing can be mounted at “{}”: {}", path, reason()), kMountFailed);
  return kMountDone;
}

bool makeVolumesFolder(const std::string& folder) {
  // chmod, since mkdir's mode goes through the umask.
  if (::mkdir(folder.c_str(), 0755) == 0) return ::chmod(folder.c_str(), 01777) == 0;
  return errno == EEXIST;
}

bool isMountPoint(const std::string& path) {
  const std::vector<std::string> all = mountPoints();
  return std::find(all.begin(), all.end(), path) != all.end();
}

MountStatus mountOver(const MountHelperOptions& options, const MountUser& user, const std::string& command,
                      const std::string& volumesFolder) {
  Pipe tell;
  Pipe taken;
  const pid_t child = ::fork();
  if (child < 0) return fail("No process can be started: " + reason());
  if (child == 0) {
    closeEnd(tell.ends[0]);
    closeEnd(taken.ends[1]);
    ::_exit(mountInPrivate(options, user, command, volumesFolder, tell.ends[1], taken.ends[0]));
  }
  closeEnd(tell.ends[1]);
  closeEnd(taken.ends[0]);
  int number = -1;
  MountStatus result = kMountDone;
  if (::read(tell.ends[0], &number, sizeof number) == sizeof number) {
    const int process = ::pidfd_open(child, 0);
    int tree = process < 0 ? -1 : ::pidfd_getfd(process, number, 0);
    result =
        tree < 0 ? fail("The volume cannot be taken over: " + reason()) : moveTo(tree, options.mountPoint);
    closeEnd(tree);
    if (process >= 0) ::close(process);
  }
  closeEnd(taken.ends[1]);
  const int status = statusOfChild(child);
  return result != kMountDone ? result : static_cast<MountStatus>(status);
}

MountStatus mountAtFreePlace(const MountHelperOptions& options, const MountUser& user,
                             const std::string& command) {
  if (::rmdir(options.mountPoint.c_str()) != 0 && errno != ENOENT)
    return fail(
        fmt::format(
            "“{0}” is in the way: {1}. Remove it (sudo rmdir {0}); the folder is made when it is needed.",
            options.mountPoint, reason()),
        kMountFailed);
  std::string path;
  MountStatus status = runCommand(mountWords(options, command), user, &path);
  if (status != kMountDone) return status;
  if (path != options.mountPoint) {
    status = refuseOtherName(path);
  } else if (::geteuid() == 0 && !setAttributes(path, options.attributes)) {
    status = fail(fmt::format("The options cannot be applied to “{}”: {}", path, reason()));
  }
  std::string ignored;
  if (status != kMountDone) runCommand({command, "unmount", "--", path}, user, &ignored);
  return status;
}

}  // namespace

void complain(const std::string& text) { fmt::print(stderr, "mount.ombra: {}\n", text); }

MountStatus mountVolume(const MountHelperOptions& options, const MountUser& user, const std::string& command,
                        const std::string& volumesFolder) {
  const bool isAdministrator = ::geteuid() == 0;
  if (!isAdministrator && (options.attributes & MOUNT_ATTR_RDONLY) != 0)
    return fail("Only an administrator can mount a volume read-only.", kMountUsage);
  if (isAdministrator) {
    if (!makeVolumesFolder(volumesFolder))
      return fail(fmt::format("The folder “{}” cannot be made: {}", volumesFolder, reason()));
    clearDeadMount(options.mountPoint);
  }
  if (isVolume(options.mountPoint)) return refuseSecondMount(options.mountPoint);
  return isAdministrator && isMountPoint(options.mountPoint)
             ? mountOver(options, user, command, volumesFolder)
             : mountAtFreePlace(options, user, command);
}

}  // namespace ombra
