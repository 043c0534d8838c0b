#include "frontend/SampleFolder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "frontend/UniqueFd.h"
#include "platform/foundation/NSFileManager.h"

namespace ombra {

namespace {

struct SampleFile {
  std::string_view path;
  std::string_view text;
};

constexpr std::array<std::string_view, 4> kFolders{"Garden", "Garden/Beds", "Kitchen", "Kitchen/Über Brot"};

constexpr std::array<SampleFile, 5> kFiles{{
    {"Welcome.txt",
     "Welcome!\n"
     "\n"
     "This folder is shown to you by a helper that speaks SFTP, just as it would show a folder of\n"
     "a server far away. Look around, open files, change them, make new ones: all of it goes through\n"
     "the helper and comes back from it.\n"
     "\n"
     "The files themselves are in ombrafs/sample below your data folder, so nothing is lost.\n"},
    {"Garden/To do.txt", "Prune the roses\nMend the fence\nAsk next door about the ladder\n"},
    {"Garden/Beds/Plan.csv",
     "bed,plant,sown\nnorth,beans,2024-05-02\nsouth,tomatoes,2024-05-14\nwall,peas,2024-04-20\n"},
    {"Kitchen/Soup.txt",
     "Two onions, four carrots, a litre of water, salt.\nBoil for forty minutes. Better the next day.\n"},
    {"Kitchen/Über Brot/Sauerteig.txt", "Mehl, Wasser, Salz – und Zeit.\n"},
}};

constexpr std::string_view kLink = "Kitchen/Start here";
constexpr std::string_view kLinkTarget = "../Welcome.txt";

bool cannotWrite(const std::string& path, Failure* failure) {
  *failure = {kExitFailure, fmt::format("The sample {} cannot be written.", inQuotes(path)),
              std::strerror(errno), "Check the folder and the free space."};
  return false;
}

bool writeFile(const std::string& path, std::string_view text, Failure* failure) {
  const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file) return errno == EEXIST || cannotWrite(path, failure);
  while (!text.empty()) {
    const ssize_t count = write(file.get(), text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return cannotWrite(path, failure);
    text.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

}  // namespace

bool writeSampleFolder(const std::string& folder, Failure* failure) {
  NSErrorRef error;
  if (!NSFileManager::createDirectoryAtPath(folder, true, 0700, &error)) {
    *failure = {kExitFailure, fmt::format("The sample folder {} cannot be made.", inQuotes(folder)),
                error ? error->localizedDescription() : "", "Check the folder above it."};
    return false;
  }
  for (const std::string_view name : kFolders) {
    const std::string path = fmt::format("{}/{}", folder, name);
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return cannotWrite(path, failure);
  }
  for (const SampleFile& file : kFiles) {
    if (!writeFile(fmt::format("{}/{}", folder, file.path), file.text, failure)) return false;
  }
  const std::string link = fmt::format("{}/{}", folder, kLink);
  return symlink(std::string(kLinkTarget).c_str(), link.c_str()) == 0 || errno == EEXIST ||
         cannotWrite(link, failure);
}

std::optional<std::string> findSFTPServer() {
  for (const char* path : {"/usr/lib/openssh/sftp-server", "/usr/libexec/sftp-server",
                           "/usr/libexec/openssh/sftp-server", "/usr/lib/ssh/sftp-server"}) {
    if (access(path, X_OK) == 0) return path;
  }
  return std::nullopt;
}

}  // namespace ombra
