#include "frontend/PasswordFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "frontend/UniqueFd.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSUnarchiver.h"

namespace ombra {

namespace {

constexpr size_t kMaximumPassword = 1024;

Failure cannotRead(const std::string& path, std::string why, std::string todo) {
  return {kExitUsage, fmt::format("The password file {} cannot be used.", inQuotes(path)), std::move(why),
          std::move(todo)};
}

// All bytes, up to one more than may be. False when reading fails.
bool readSome(int fd, std::string* content) {
  content->resize(kMaximumPassword + 3);
  size_t filled = 0;
  while (filled < content->size()) {
    const ssize_t count = read(fd, content->data() + filled, content->size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    if (count == 0) break;
    filled += static_cast<size_t>(count);
  }
  content->resize(filled);
  return true;
}

void removeLineEnd(std::string* content) {
  if (content->ends_with('\n')) content->pop_back();
  if (content->ends_with('\r')) content->pop_back();
}

}  // namespace

std::optional<std::string> readPasswordFile(const std::string& path, std::string* warning, Failure* failure) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status {};
  std::string content;
  if (!file || fstat(file.get(), &status) != 0 || !readSome(file.get(), &content)) {
    *failure = cannotRead(path, std::strerror(errno), "Check the path and the permissions.");
    return std::nullopt;
  }
  if (S_ISREG(status.st_mode) && (status.st_mode & 077) != 0) {
    *warning = fmt::format("Others can read the password file {}; run: chmod 600 {}", inQuotes(path),
                           shellQuoted(path));
  }
  removeLineEnd(&content);
  const bool oneLine = content.find_first_of(std::string_view("\n\0", 2)) == std::string::npos;
  if (content.size() <= kMaximumPassword && oneLine && isValidUTF8(content) && !content.empty())
    return content;
  wipe(content);
  *failure =
      cannotRead(path, "It must hold the password alone, on one line of at most 1024 bytes of UTF-8 text.",
                 "Write the password, and nothing else, into the file.");
  return std::nullopt;
}

}  // namespace ombra
