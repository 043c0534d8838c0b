// How fast the SFTP engine reads and writes one large file, beside `ssh HOST cat FILE` with the same cipher.
//
//   sftp_throughput ADDRESS PORT USER IDENTITY REMOTE_FILE [ROUNDS]
//
// REMOTE_FILE is read as it is; REMOTE_FILE.upload is written and removed.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "remote/sftp/SFTPEngine.h"

namespace {

using namespace ombra;

class NoTranscript final : public SessionTranscript {
 public:
  bool isEnabled() const override { return false; }
  void append(std::string_view, bool) override {}
};

class NoControl final : public TransferControl {
 public:
  void progress(uint64_t) override {}
  bool shouldCancel() const override { return false; }
};

struct Target {
  std::string address, port, user, identity, file;
};

template <typename Work>
double seconds(Work work) {
  const auto begin = std::chrono::steady_clock::now();
  if (!work()) return 0;
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

double catSeconds(const Target& target) {
  const std::string command = fmt::format(
      "ssh -o BatchMode=yes -o StrictHostKeyChecking=no -o UserKnownHostsFile=/dev/null -o LogLevel=ERROR "
      "-c aes128-gcm@openssh.com -i '{}' -p {} '{}@{}' cat '{}' > /dev/null",
      target.identity, target.port, target.user, target.address, target.file);
  return seconds([&] { return std::system(command.c_str()) == 0; });
}

std::unique_ptr<Session> logIn(const Target& target) {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(kProtocolSFTP);
  credentials->setAddress(target.address);
  credentials->setPort(std::atoi(target.port.c_str()));
  credentials->setUsername(target.user);
  credentials->setOption("identityFile", target.identity);
  SessionEnvironment environment;
  environment.credentials = credentials;
  environment.transcript = std::make_shared<NoTranscript>();
  environment.isWorthyTrust = [](const std::string&) { return true; };
  auto session = EngineRegistry::engineForCredentials(*credentials)->makeSession(environment);
  NSErrorRef error;
  if (session->logIn(&error)) return session;
  fmt::print(stderr, "{}\n", error->description());
  return nullptr;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 6) {
    fmt::print(stderr, "usage: {} ADDRESS PORT USER IDENTITY REMOTE_FILE [ROUNDS]\n", arguments[0]);
    return 2;
  }
  const Target target{arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]};
  const int rounds = count > 6 ? std::max(1, std::atoi(arguments[6])) : 5;
  registerSFTPEngine();
  const auto session = logIn(target);
  if (!session) return 1;
  std::vector<double> cat, read, write;
  NoControl control;
  double megabytes = 0;
  // In turns, so that whatever else the machine does weighs on all of them.
  for (int round = 0; round < rounds; ++round) {
    cat.push_back(catSeconds(target));
    if (cat.back() == 0) {
      fmt::print(stderr, "ssh does not read the file: see above\n");
      return 1;
    }
    NSFileHandle local(memfd_create("content", MFD_CLOEXEC));
    read.push_back(
        seconds([&] { return session->download(target.file, local, 0, nullptr, control, nullptr); }));
    megabytes = static_cast<double>(local.fileLength()) / 1e6;
    const std::string copy = target.file + ".upload";
    write.push_back(seconds([&] { return session->upload(local, copy, 0, control, nullptr); }));
    if (!session->remove(copy, false, nullptr) || read.back() == 0 || write.back() == 0) return 1;
  }
  const double reference = megabytes / median(cat);
  fmt::print("{:<16}{:>10}{:>10}\n", "", "MB/s", "ratio");
  fmt::print("{:<16}{:>10.0f}{:>10.2f}\n", "ssh, login, cat", reference, 1.0);
  fmt::print("{:<16}{:>10.0f}{:>10.2f}\n", "engine read", megabytes / median(read),
             megabytes / median(read) / reference);
  fmt::print("{:<16}{:>10.0f}{:>10.2f}\n", "engine write", megabytes / median(write),
             megabytes / median(write) / reference);
  return 0;
}
