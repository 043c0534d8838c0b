#include "tests/frontend/CommandRunner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>

#include "frontend/ChildProgram.h"
#include "frontend/Deadline.h"
#include "frontend/HelperBus.h"
#include "frontend/ProcessDescriptor.h"
#include "platform/foundation/NSProcessInfo.h"

namespace ombra {

namespace {

namespace fs = std::filesystem;

struct Pipe {
  UniqueFd readEnd;
  UniqueFd writeEnd;
  Pipe() {
    std::array<int, 2> ends{-1, -1};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
  }
};

// In the child, between fork and exec: calls that are safe there, and nothing else.
[[noreturn]] void becomeCommand(char* const* arguments, char* const* environment, const char* terminal,
                                int out, int err) {
  setsid();
  const int input = open(terminal == nullptr ? "/dev/null" : terminal, O_RDWR);
  if (terminal != nullptr) ioctl(input, TIOCSCTTY, 0);
  dup2(input, 0);
  dup2(out, 1);
  dup2(err, 2);
  execve(arguments[0], arguments, environment);
  _exit(127);
}

std::vector<std::string> mergedEnvironment(const std::vector<std::string>& additions) {
  std::vector<std::string> merged = additions;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::string name = text.substr(0, text.find('=') + 1);
    const bool replaced =
        std::any_of(additions.begin(), additions.end(),
                    [&name](const std::string& addition) { return addition.starts_with(name); });
    if (!replaced) merged.push_back(text);
  }
  return merged;
}

void readInto(int fd, std::string* text, UniqueFd* owner) {
  std::array<char, 4096> buffer{};
  const ssize_t count = read(fd, buffer.data(), buffer.size());
  if (count > 0) {
    text->append(buffer.data(), static_cast<size_t>(count));
  } else if (owner != nullptr) {
    owner->reset();
  }
}

}  // namespace

const Installation& Installation::shared() {
  static const Installation sInstallation;
  return sInstallation;
}

Installation::Installation() {
  const fs::path programs = fs::path(NSProcessInfo::executablePath()).parent_path();
  std::string folder = (programs.parent_path() / "frontend-test-XXXXXX").string();
  EXPECT_NE(mkdtemp(folder.data()), nullptr);
  iFolder = folder;
  fs::create_directories(iFolder + "/bin");
  fs::create_directories(iFolder + "/libexec/ombrafs");
  fs::create_hard_link(programs / "ombra", command());
  fs::create_hard_link(NSProcessInfo::executablePath(), helper());
  fs::create_hard_link(programs.parent_path() / "libexec/ombrafs/ombrafs-keyring", keyring());
}

Installation::~Installation() {
  std::error_code ignored;
  fs::remove_all(iFolder, ignored);
}

RunningCommand::RunningCommand(const std::vector<std::string>& arguments, Input input,
                               const std::vector<std::string>& environment) {
  std::vector<std::string> all{Installation::shared().command()};
  all.insert(all.end(), arguments.begin(), arguments.end());
  const std::vector<std::string> variables = mergedEnvironment(environment);
  const auto argumentList = argumentPointers(all);
  const auto variableList = argumentPointers(variables);
  std::string terminal;
  if (input == Input::kTerminal) {
    iTerminal.reset(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_TRUE(grantpt(iTerminal.get()) == 0 && unlockpt(iTerminal.get()) == 0);
    terminal = ptsname(iTerminal.get());
  }
  Pipe out;
  Pipe err;
  iPid = fork();
  if (iPid == 0) {
    becomeCommand(argumentList.data(), variableList.data(), terminal.empty() ? nullptr : terminal.c_str(),
                  out.writeEnd.get(), err.writeEnd.get());
  }
  iOut = std::move(out.readEnd);
  iErr = std::move(err.readEnd);
}

RunningCommand::~RunningCommand() {
  if (iPid <= 0) return;
  kill(iPid, SIGKILL);
  waitpid(iPid, nullptr, 0);
}

bool RunningCommand::collect(int milliseconds) {
  std::array<pollfd, 3> waiting{
      {{iTerminal.get(), POLLIN, 0}, {iOut.get(), POLLIN, 0}, {iErr.get(), POLLIN, 0}}};
  if (!iOut && !iErr) return false;
  if (poll(waiting.data(), waiting.size(), milliseconds) <= 0) return true;
  // A terminal without a process on its other side reports an error until one comes: not an end.
  if ((waiting[0].revents & POLLIN) != 0) readInto(iTerminal.get(), &iShown, nullptr);
  if (waiting[1].revents != 0) readInto(iOut.get(), &iResult.out, &iOut);
  if (waiting[2].revents != 0) readInto(iErr.get(), &iResult.err, &iErr);
  return true;
}

bool RunningCommand::waitForTerminal(const std::string& text, int times) {
  const Deadline deadline(std::chrono::seconds(20));
  const auto count = [this, &text] {
    int found = 0;
    for (size_t at = iShown.find(text); at != std::string::npos; at = iShown.find(text, at + 1)) ++found;
    return found;
  };
  while (count() < times) {
    if (deadline.passed() || !collect(deadline.pollTimeout(std::chrono::milliseconds(100)))) return false;
  }
  return true;
}

bool RunningCommand::waitForOutput(const std::string& text) {
  const Deadline deadline(std::chrono::seconds(20));
  while (iResult.out.find(text) == std::string::npos) {
    if (deadline.passed() || !collect(deadline.pollTimeout(std::chrono::milliseconds(100)))) return false;
  }
  return true;
}

void RunningCommand::type(const std::string& text) const {
  EXPECT_EQ(write(iTerminal.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

CommandResult RunningCommand::finish() {
  const Deadline deadline(std::chrono::seconds(30));
  while (!deadline.passed() && collect(deadline.pollTimeout(std::chrono::milliseconds(100)))) {
  }
  if (deadline.passed()) {
    ADD_FAILURE() << "the command did not end";
    kill(iPid, SIGKILL);
  }
  int status = 0;
  waitpid(iPid, &status, 0);
  iPid = -1;
  iResult.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return iResult;
}

CommandResult runCommand(const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment) {
  return RunningCommand(arguments, RunningCommand::Input::kNone, environment).finish();
}

void endHelpersOn(const std::string& busAddress) {
  const auto bus = HelperBus::connect(busAddress);
  if (!bus) return;
  for (const HelperStatus& helper : bus->helpers()) {
    const UniqueFd process = openProcess(helper.pid);
    if (!process) continue;
    signalProcess(process, SIGKILL);
    // One that is still ending would be found by the next test, and answer nobody.
    pollfd ended{process.get(), POLLIN, 0};
    EXPECT_EQ(poll(&ended, 1, 20000), 1);
  }
}

}  // namespace ombra
