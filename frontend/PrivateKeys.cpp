#include "frontend/PrivateKeys.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

#include "frontend/Deadline.h"
#include "frontend/UniqueFd.h"

namespace ombra {

namespace {

constexpr size_t kLookedAt = 16 * 1024;

std::optional<std::string> startOfFile(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  std::string content(kLookedAt, '\0');
  const ssize_t count = read(file.get(), content.data(), content.size());
  if (count < 0) return std::nullopt;
  content.resize(static_cast<size_t>(count));
  return content;
}

int base64Value(char c) {
  constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const size_t index = kAlphabet.find(c);
  return index == std::string_view::npos ? -1 : static_cast<int>(index);
}

// The first bytes of a base64 text; line ends are skipped, anything else ends it.
std::string decodedStart(std::string_view text, size_t limit) {
  std::string result;
  uint32_t bits = 0;
  int bitCount = 0;
  for (const char c : text) {
    if (c == '\n' || c == '\r') continue;
    const int value = base64Value(c);
    if (value < 0 || result.size() >= limit) break;
    bits = bits << 6 | static_cast<uint32_t>(value);
    bitCount += 6;
    if (bitCount < 8) continue;
    bitCount -= 8;
    result += static_cast<char>(bits >> bitCount & 0xFF);
  }
  return result;
}

// The form "openssh-key-v1": a magic text with its NUL, then the cipher's name behind a 32-bit length.
PrivateKeyKind kindOfOpenSSHKey(std::string_view base64) {
  constexpr std::string_view kMagic("openssh-key-v1\0", 15);
  const std::string start = decodedStart(base64, 64);
  if (!start.starts_with(kMagic) || start.size() < kMagic.size() + 8) return PrivateKeyKind::kNotAKey;
  const std::string_view cipher = std::string_view(start).substr(kMagic.size());
  return cipher.starts_with(std::string_view("\0\0\0\4none", 8)) ? PrivateKeyKind::kPlain
                                                                 : PrivateKeyKind::kEncrypted;
}

UniqueFd connectTo(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) return {};
  std::memcpy(address.sun_path, path.data(), path.size());
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return {};
  return fd;
}

template <size_t Size>
bool readExactly(int fd, std::array<unsigned char, Size>* buffer, const Deadline& deadline) {
  size_t filled = 0;
  while (filled < Size && !deadline.passed()) {
    pollfd waiting{fd, POLLIN, 0};
    if (poll(&waiting, 1, deadline.pollTimeout()) <= 0) continue;
    const ssize_t count = read(fd, buffer->data() + filled, Size - filled);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) return false;
    filled += static_cast<size_t>(count);
  }
  return filled == Size;
}

}  // namespace

PrivateKeyKind kindOfPrivateKey(const std::string& path) {
  const auto content = startOfFile(path);
  if (!content) return PrivateKeyKind::kUnreadable;
  const std::string_view text = *content;
  const size_t begin = text.find("-----BEGIN ");
  const size_t end = begin == std::string_view::npos ? begin : text.find("PRIVATE KEY-----", begin);
  if (end == std::string_view::npos) return PrivateKeyKind::kNotAKey;
  const std::string_view label = text.substr(begin, end - begin);
  if (label.find("OPENSSH") != std::string_view::npos) {
    return kindOfOpenSSHKey(text.substr(end + std::string_view("PRIVATE KEY-----").size()));
  }
  const bool encrypted = label.find("ENCRYPTED") != std::string_view::npos ||
                         text.find("Proc-Type: 4,ENCRYPTED") != std::string_view::npos;
  return encrypted ? PrivateKeyKind::kEncrypted : PrivateKeyKind::kPlain;
}

std::vector<std::string> defaultPrivateKeys(const std::string& homeFolder) {
  std::vector<std::string> found;
  for (const std::string_view name :
       {"id_ed25519", "id_ecdsa", "id_rsa", "id_ed25519_sk", "id_ecdsa_sk", "id_dsa"}) {
    std::string path = homeFolder + "/.ssh/" + std::string(name);
    const PrivateKeyKind kind = kindOfPrivateKey(path);
    if (kind == PrivateKeyKind::kPlain || kind == PrivateKeyKind::kEncrypted)
      found.push_back(std::move(path));
  }
  return found;
}

bool agentHasKeys(const std::string& socketPath, std::chrono::milliseconds limit) {
  const UniqueFd agent = connectTo(socketPath);
  if (!agent) return false;
  // The agent's protocol: a 32-bit length, then the message; 11 asks for the identities, 12 answers with
  // their count.
  constexpr std::array<unsigned char, 5> kQuestion{0, 0, 0, 1, 11};
  if (send(agent.get(), kQuestion.data(), kQuestion.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(kQuestion.size())) {
    return false;
  }
  std::array<unsigned char, 9> answer{};
  if (!readExactly(agent.get(), &answer, Deadline(limit)) || answer[4] != 12) return false;
  return (answer[5] | answer[6] | answer[7] | answer[8]) != 0;
}

}  // namespace ombra
