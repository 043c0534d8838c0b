#include "platform/userfs/FuserMount.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/foundation/KCStringAdditions.h"

extern char** environ;  // NOLINT: the system's name

namespace ombra {

namespace {

constexpr const char* kProgram = "fusermount3";
// The number that the child finds its end of the socket under.
constexpr int kChildSocket = 3;
constexpr size_t kLongestWords = 4096;

class Descriptor {
 public:
  explicit Descriptor(int number = -1) : iNumber(number) {}
  ~Descriptor() { reset(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return iNumber; }
  void reset(int number = -1) {
    if (iNumber >= 0) close(iNumber);
    iNumber = number;
  }

 private:
  int iNumber;
};

// A running fusermount3 whose standard error we read.
class Child {
 public:
  // False with errno set.
  bool start(const std::vector<std::string>& arguments, int socket) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    iErrors.reset(ends[0]);
    const Descriptor writeEnd(ends[1]);
    const int number = spawn(arguments, socket, writeEnd.get());
    errno = number;
    return number == 0;
  }

  // Waits for the end. True for exit status 0; what it wrote to standard error in `words`, at most 4 KiB.
  bool finish(std::string* words) {
    std::array<char, 512> buffer{};
    for (ssize_t got = 0; (got = read(iErrors.get(), buffer.data(), buffer.size())) != 0;) {
      if (got < 0 && errno != EINTR) break;
      if (got > 0 && words->size() < kLongestWords) words->append(buffer.data(), static_cast<size_t>(got));
    }
    while (!words->empty() && words->back() == '\n') words->pop_back();
    int status = 0;
    while (waitpid(iProcess, &status, 0) < 0) {
      if (errno != EINTR) return words->empty();  // SIGCHLD is ignored: its words have to do
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

 private:
  int spawn(const std::vector<std::string>& arguments, int socket, int errors) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(kProgram));  // NOLINT: exec's signature
    for (const std::string& argument : arguments)
      argv.push_back(const_cast<char*>(argument.c_str()));  // NOLINT
    argv.push_back(nullptr);
    std::string variable = "_FUSE_COMMFD=" + std::to_string(kChildSocket);
    std::vector<char*> environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
      if (std::strncmp(*entry, "_FUSE_COMMFD=", 13) != 0) environment.push_back(*entry);
    }
    environment.push_back(variable.data());
    environment.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, errors, STDERR_FILENO);
    if (socket >= 0) posix_spawn_file_actions_adddup2(&actions, socket, kChildSocket);
    const int number = posix_spawnp(&iProcess, kProgram, &actions, nullptr, argv.data(), environment.data());
    posix_spawn_file_actions_destroy(&actions);
    return number;
  }

  Descriptor iErrors;
  pid_t iProcess = -1;
};

// The descriptor that came over the socket, -1 when none did.
int receiveDescriptor(int socket) {
  char byte = 0;
  iovec content{&byte, 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &content;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  ssize_t got = 0;
  while ((got = recvmsg(socket, &message, MSG_CMSG_CLOEXEC)) < 0 && errno == EINTR) {
  }
  if (got <= 0) return -1;
  const cmsghdr* header = CMSG_FIRSTHDR(&message);
  if (header == nullptr || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS ||
      header->cmsg_len != CMSG_LEN(sizeof(int))) {
    return -1;
  }
  int descriptor = -1;
  std::memcpy(&descriptor, CMSG_DATA(header), sizeof(descriptor));
  return descriptor;
}

std::string notRun() { return std::string(kProgram) + " could not be run: " + kc_strerror(errno); }

}  // namespace

int FuserMount::mount(const std::string& path, const std::string& options, std::string* words) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    *words = kc_strerror(errno);
    return -1;
  }
  const Descriptor ours(ends[0]);
  Descriptor theirs(ends[1]);
  Child child;
  if (!child.start({"-o", options, "--", path}, theirs.get())) {
    *words = notRun();
    return -1;
  }
  // Our copy goes, so that the end of the child ends the wait for its message.
  theirs.reset();
  const int device = receiveDescriptor(ours.get());
  child.finish(words);
  if (device < 0 && words->empty()) *words = std::string(kProgram) + " gave no reason.";
  return device;
}

bool FuserMount::detach(const std::string& path, std::string* words) {
  Child child;
  if (child.start({"-u", "-q", "-z", "--", path}, -1)) return child.finish(words);
  *words = notRun();
  return false;
}

}  // namespace ombra
