#include "frontend/Keyring.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "frontend/ChildProgram.h"
#include "frontend/Deadline.h"
#include "frontend/SessionBus.h"
#include "frontend/Spinner.h"
#include "frontend/UniqueFd.h"
#include "frontend/keyring/KeyringProgram.h"
#include "platform/foundation/NSUnarchiver.h"

namespace ombra {

namespace {

constexpr std::chrono::milliseconds kTick{100};
constexpr size_t kMaximumWords = 2000;
constexpr std::string_view kBusVariable = "DBUS_SESSION_BUS_ADDRESS=";

struct Ends {
  UniqueFd readEnd;
  UniqueFd writeEnd;
  Ends() {
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return;
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
  }
};

std::vector<std::string> environmentWithBus(const std::string& address) {
  std::vector<std::string> result{std::string(kBusVariable) + address};
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (!std::string_view(*entry).starts_with(kBusVariable)) result.emplace_back(*entry);
  }
  return result;
}

// The running program, with pipes to its three streams. Ended by force when it still runs at the end.
class KeyringChild {
 public:
  KeyringChild(const std::vector<std::string>& arguments, const std::vector<std::string>& environment) {
    Ends in;
    Ends out;
    Ends err;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in.readEnd.get(), 0);
    posix_spawn_file_actions_adddup2(&actions, out.writeEnd.get(), 1);
    posix_spawn_file_actions_adddup2(&actions, err.writeEnd.get(), 2);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    if (posix_spawn(&iPid, arguments.front().c_str(), &actions, nullptr, argumentPointers(arguments).data(),
                    argumentPointers(environment).data()) != 0) {
      iPid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    iIn = std::move(in.writeEnd);
    iOut = std::move(out.readEnd);
    iErr = std::move(err.readEnd);
  }
  ~KeyringChild() {
    if (iPid <= 0) return;
    kill(iPid, SIGKILL);
    waitForEnd();
  }
  KeyringChild(const KeyringChild&) = delete;
  KeyringChild& operator=(const KeyringChild&) = delete;

  bool isRunning() const { return iPid > 0; }

  // It fits into the pipe, so that nobody has to wait.
  void give(const std::string* input) {
    if (input != nullptr) (void)!write(iIn.get(), input->data(), input->size());
    iIn.reset();
  }

  // Collects what it says until it has said all. False when the time is up or somebody interrupts.
  bool collect(const Deadline& deadline, const Interruption& interruption, Spinner& spinner,
               std::string* text, std::string* words) {
    // One allocation, so that no half-grown copies of a secret stay behind.
    text->reserve(kMaximumKeyringSecret + 1);
    while (iOut || iErr) {
      if (deadline.passed() || interruption.requested()) return false;
      std::array<pollfd, 3> waiting{
          {{iOut.get(), POLLIN, 0}, {iErr.get(), POLLIN, 0}, {interruption.fd(), POLLIN, 0}}};
      const int count = poll(waiting.data(), waiting.size(), deadline.pollTimeout(kTick));
      if (count == 0) spinner.tick();
      if (count <= 0) continue;
      if (waiting[0].revents != 0) take(&iOut, kMaximumKeyringSecret, text);
      if (waiting[1].revents != 0) take(&iErr, kMaximumWords, words);
    }
    return true;
  }

  // The status as waitpid tells it.
  int waitForEnd() {
    int status = 0;
    while (waitpid(iPid, &status, 0) < 0 && errno == EINTR) {
    }
    iPid = -1;
    return status;
  }

 private:
  // What goes beyond `limit` is read and dropped.
  static void take(UniqueFd* fd, size_t limit, std::string* result) {
    std::array<char, 1024> buffer{};
    const ssize_t count = read(fd->get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) return;
    if (count <= 0) {
      fd->reset();
    } else if (result->size() < limit) {
      result->append(buffer.data(), std::min(static_cast<size_t>(count), limit - result->size()));
    }
    explicit_bzero(buffer.data(), buffer.size());
  }

  pid_t iPid = -1;
  UniqueFd iIn;
  UniqueFd iOut;
  UniqueFd iErr;
};

Keyring::Reply failed(Keyring::Answer answer, std::string why) {
  Keyring::Reply reply;
  reply.answer = answer;
  reply.why = std::move(why);
  return reply;
}

std::string firstLine(const std::string& words) { return words.substr(0, words.find('\n')); }

void explain(int status, const std::string& words, Keyring::Reply* reply) {
  using Answer = Keyring::Answer;
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (code == kKeyringDone) {
    reply->answer = Answer::kDone;
    return;
  }
  // What it said is no secret then.
  wipe(reply->text);
  reply->text.clear();
  if (code == kKeyringNothingFound) {
    reply->answer = Answer::kNothingFound;
  } else if (code == kKeyringAbsent) {
    reply->answer = Answer::kAbsent;
    reply->why = "No program on the session bus keeps passwords.";
  } else if (code == kKeyringLocked) {
    reply->answer = Answer::kLocked;
    reply->why = "It is locked, and nobody has unlocked it.";
  } else if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
    reply->why = "It does not answer.";
  } else {
    reply->why = words.empty() ? "It does not work." : sentence(firstLine(words));
  }
}

}  // namespace

Keyring::Reply::~Reply() { wipe(text); }

Keyring::Keyring(std::string program, const Interruption& interruption, const Output& output,
                 KeyringLimits limits)
    : iProgram(std::move(program)), iInterruption(interruption), iOutput(output), iLimits(limits) {}

Keyring::Reply Keyring::check() const { return run({"check"}, {}, nullptr); }

Keyring::Reply Keyring::find(const KeyringItem& item) const { return run({"find"}, item, nullptr); }

Keyring::Reply Keyring::store(const KeyringItem& item, const std::string& label,
                              const std::string& secret) const {
  return run({"store", label}, item, &secret);
}

Keyring::Reply Keyring::remove(const KeyringItem& item) const {
  Reply reply = run({"remove"}, item, nullptr);
  reply.count = atoi(reply.text.c_str());
  if (reply.answer == Answer::kDone && reply.count == 0) reply.answer = Answer::kNothingFound;
  return reply;
}

Keyring::Reply Keyring::run(const std::vector<std::string>& words, const KeyringItem& item,
                            const std::string* input) const {
  const std::string bus = SessionBus::desktopAddress();
  if (bus.empty()) return failed(Answer::kAbsent, "There is no session bus.");
  std::vector<std::string> arguments{iProgram, fmt::format("{}", iLimits.service.count())};
  arguments.insert(arguments.end(), words.begin(), words.end());
  for (const auto& [name, value] : item) arguments.push_back(name + "=" + value);
  Spinner spinner(iOutput.err, !iOutput.json);
  spinner.setText("Waiting for the keyring");
  KeyringChild child(arguments, environmentWithBus(bus));
  if (!child.isRunning())
    return failed(Answer::kAbsent, fmt::format("The program {} is missing.", inQuotes(iProgram)));
  child.give(input);
  Reply reply;
  std::string said;
  if (child.collect(Deadline(iLimits.person), iInterruption, spinner, &reply.text, &said)) {
    explain(child.waitForEnd(), said, &reply);
    return reply;
  }
  if (iInterruption.requested()) return failed(Answer::kInterrupted, "It was interrupted.");
  return failed(Answer::kLocked, "Nobody has unlocked it in time.");
}

}  // namespace ombra
