#include "remote/sftp/KnownHosts.h"

#include <algorithm>
#include <fstream>

#include "platform/foundation/ASCII.h"
#include "remote/sftp/SSHClient.h"

namespace ombra {

namespace {

constexpr size_t kMaximumLineLength = 64 * 1024;

struct EntryDeleter {
  void operator()(ssh_knownhosts_entry* entry) const { ssh_knownhosts_entry_free(entry); }
};

// Takes a leading marker off the line; empty when it has none.
std::string takeMarker(std::string* line) {
  const size_t begin = line->find_first_not_of(" \t");
  if (begin == std::string::npos || (*line)[begin] != '@') return {};
  const size_t end = std::min(line->find_first_of(" \t", begin), line->size());
  const std::string marker = line->substr(begin, end - begin);
  line->erase(0, end);
  line->erase(0, line->find_first_not_of(" \t"));
  return marker;
}

std::optional<SSHKnownHostEntry> parseLine(std::string text, const std::string& name) {
  const std::string marker = takeMarker(&text);
  if (text.empty() || text.front() == '#' || (!marker.empty() && marker != "@revoked")) return std::nullopt;
  ssh_knownhosts_entry* raw = nullptr;
  if (ssh_known_hosts_parse_line(name.c_str(), text.c_str(), &raw) != SSH_OK || raw == nullptr)
    return std::nullopt;
  const std::unique_ptr<ssh_knownhosts_entry, EntryDeleter> owner(raw);
  auto key = describeSSHKey(raw->publickey);
  if (!key) return std::nullopt;
  SSHKnownHostEntry entry;
  entry.key = std::move(*key);
  entry.revoked = !marker.empty();
  return entry;
}

}  // namespace

std::string knownHostsName(const std::string& host, int port) {
  const std::string name = lowercasedASCII(host);
  return port == 22 ? name : "[" + name + "]:" + std::to_string(port);
}

std::vector<SSHKnownHostEntry> knownHostsEntries(const std::string& file, const std::string& name) {
  std::vector<SSHKnownHostEntry> entries;
  std::ifstream stream(file);
  int number = 0;
  for (std::string line; std::getline(stream, line);) {
    ++number;
    if (line.size() > kMaximumLineLength) continue;
    auto entry = parseLine(std::move(line), name);
    if (!entry) continue;
    entry->file = file;
    entry->line = number;
    entries.push_back(std::move(*entry));
  }
  return entries;
}

SSHHostKeyStatus judgeHostKey(const std::vector<SSHKnownHostEntry>& entries, const SSHHostKey& key,
                              std::optional<SSHKnownHostEntry>* conflict) {
  bool isKnown = false;
  const SSHKnownHostEntry* other = nullptr;
  for (const SSHKnownHostEntry& entry : entries) {
    if (entry.key == key && entry.revoked) {
      *conflict = entry;
      return SSHHostKeyStatus::kRevoked;
    }
    if (entry.key == key) isKnown = true;
    if (entry.key.type == key.type && entry.key != key && !entry.revoked && other == nullptr) other = &entry;
  }
  if (isKnown) return SSHHostKeyStatus::kKnown;
  if (other == nullptr) return SSHHostKeyStatus::kUnknown;
  *conflict = *other;
  return SSHHostKeyStatus::kChanged;
}

}  // namespace ombra
