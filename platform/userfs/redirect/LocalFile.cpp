#include "platform/userfs/redirect/LocalFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace ombra {

LocalDescriptor::~LocalDescriptor() {
  if (iNumber >= 0) close(iNumber);
}

std::optional<std::string> LocalFile::contentOf(const std::string& path, size_t limit) {
  // A pipe in its place would otherwise hold up whoever opens it.
  const LocalDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0) return std::nullopt;
  errno = EINVAL;
  if (!S_ISREG(status.st_mode)) return std::nullopt;
  // One byte more than there should be tells a file that is longer.
  std::string content(std::min(limit, static_cast<size_t>(status.st_size)) + 1, '\0');
  size_t got = 0;
  while (got < content.size()) {
    const ssize_t count = read(file.get(), content.data() + got, content.size() - got);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    got += static_cast<size_t>(count);
  }
  errno = EFBIG;
  if (got > limit) return std::nullopt;
  content.resize(got);
  return content;
}

int LocalFile::writeAll(int descriptor, const char* bytes, size_t size) {
  while (size > 0) {
    const ssize_t count = ::write(descriptor, bytes, size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    bytes += count;
    size -= static_cast<size_t>(count);
  }
  return 0;
}

int LocalFile::write(const std::string& path, std::string_view content) {
  const std::string unfinished = path + ".new";
  int number = 0;
  {
    const LocalDescriptor file(
        open(unfinished.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
    number = file.get() < 0 ? errno : writeAll(file.get(), content.data(), content.size());
  }
  if (number == 0 && rename(unfinished.c_str(), path.c_str()) != 0) number = errno;
  if (number != 0) unlink(unfinished.c_str());
  return number;
}

}  // namespace ombra
