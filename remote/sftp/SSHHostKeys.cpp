#include "remote/sftp/SSHHostKeys.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "remote/QuarnKitError.h"
#include "remote/sftp/KnownHosts.h"
#include "remote/sftp/SSHClient.h"

namespace ombra {

namespace {

std::vector<SSHKnownHostEntry> entriesFor(const SSHClient& client) {
  const std::string name = knownHostsName(client.host(), client.port());
  std::vector<SSHKnownHostEntry> entries;
  // A setting may name several files.
  std::istringstream files(client.knownHostsFile() + " " + client.globalKnownHostsFile());
  for (std::string file; files >> file;) {
    for (SSHKnownHostEntry& entry : knownHostsEntries(file, name)) entries.push_back(std::move(entry));
  }
  return entries;
}

bool failWithErrno(NSErrorRef* error, const std::string& file) {
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitLocalFailure, file,
                                                 NSError::errorWithDomain(NSPOSIXErrorDomain, errno)));
  return false;
}

// A file whose last line was left unended would swallow the next one.
bool endsInsideLine(int descriptor) {
  const off_t length = lseek(descriptor, 0, SEEK_END);
  char last = '\n';
  return length > 0 && pread(descriptor, &last, 1, length - 1) == 1 && last != '\n';
}

bool appendLine(const std::string& file, std::string line, NSErrorRef* error) {
  const std::string folder = file.substr(0, file.rfind('/'));
  if (!folder.empty() && mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
    return failWithErrno(error, folder);
  const int descriptor = open(file.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (descriptor < 0) return failWithErrno(error, file);
  if (endsInsideLine(descriptor)) line.insert(0, "\n");
  // One write, so that lines of several writers do not mix.
  const bool isWritten = write(descriptor, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  const int number = errno;
  close(descriptor);
  errno = number;
  return isWritten || failWithErrno(error, file);
}

}  // namespace

std::optional<SSHHostKeyProbe> probeSSHHostKey(const SSHServerAddress& server,
                                               std::chrono::milliseconds limit, NSErrorRef* error) {
  SSHClient client;
  const auto deadline = SSHClient::Clock::now() + limit;
  if (!client.configure(server, error) || !client.connect(deadline, error)) return std::nullopt;
  auto key = client.serverKey();
  if (!key) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError, "no host key"));
    return std::nullopt;
  }
  SSHHostKeyProbe probe;
  probe.key = std::move(*key);
  probe.known = entriesFor(client);
  probe.status = judgeHostKey(probe.known, probe.key, &probe.conflict);
  probe.knownHostsName = knownHostsName(client.host(), client.port());
  return probe;
}

std::vector<SSHKnownHostEntry> knownSSHHostKeys(const SSHServerAddress& server) {
  SSHClient client;
  if (!client.configure(server, nullptr)) return {};
  return entriesFor(client);
}

std::string knownSSHFingerprints(const SSHServerAddress& server) {
  const std::vector<SSHKnownHostEntry> entries = knownSSHHostKeys(server);
  std::string text;
  for (const SSHKnownHostEntry& entry : entries) {
    const bool isRevoked = std::any_of(entries.begin(), entries.end(), [&](const SSHKnownHostEntry& other) {
      return other.revoked && other.key == entry.key;
    });
    if (isRevoked || text.find(entry.key.fingerprint) != std::string::npos) continue;
    if (!text.empty()) text += ' ';
    text += entry.key.fingerprint;
  }
  return text;
}

bool rememberSSHHostKey(const SSHServerAddress& server, const SSHHostKey& key, NSErrorRef* error) {
  SSHClient client;
  if (!client.configure(server, error)) return false;
  for (const SSHKnownHostEntry& entry : entriesFor(client)) {
    if (entry.key == key && !entry.revoked) return true;
  }
  std::istringstream files(client.knownHostsFile());
  std::string file;
  files >> file;
  const std::string name = knownHostsName(client.host(), client.port());
  return appendLine(file, name + " " + key.type + " " + key.base64 + "\n", error);
}

}  // namespace ombra
