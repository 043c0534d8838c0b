#include "frontend/KnownCertificates.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "frontend/UniqueFd.h"
#include "platform/foundation/ASCII.h"
#include "platform/foundation/NSFileManager.h"
#include "remote/QuarnKitError.h"

namespace ombra {

namespace {

constexpr size_t kLongestLine = 4096;
constexpr unsigned kFolderMode = 0700;

std::string nameInFile(const std::string& host, int port) {
  return fmt::format("[{}]:{}", lowercasedASCII(host), port);
}

bool cannotKeep(NSErrorRef* error, const std::string& file, int number) {
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitLocalFailure, file,
                                                 NSError::errorWithDomain(NSPOSIXErrorDomain, number)));
  return false;
}

// A file whose last line was left unended would swallow the next one.
bool hasOpenLine(int file) {
  const off_t length = lseek(file, 0, SEEK_END);
  char last = '\n';
  return length > 0 && pread(file, &last, 1, length - 1) == 1 && last != '\n';
}

}  // namespace

KnownCertificates KnownCertificates::ofThisUser() {
  return KnownCertificates(NSFileManager::configurationFolder() + "/known_certificates");
}

std::vector<KnownCertificate> KnownCertificates::entries(const std::string& host, int port) const {
  const std::string wanted = nameInFile(host, port);
  std::vector<KnownCertificate> result;
  std::ifstream file(iFile);
  int number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (line.size() > kLongestLine) continue;
    std::istringstream words(line);
    std::string name;
    std::string fingerprint;
    if (words >> name >> fingerprint && name == wanted) result.push_back({fingerprint, number});
  }
  return result;
}

bool KnownCertificates::remember(const std::string& host, int port, const std::string& fingerprint,
                                 NSErrorRef* error) const {
  const std::string folder = iFile.substr(0, iFile.rfind('/'));
  if (!NSFileManager::createDirectoryAtPath(folder, true, kFolderMode, error)) return false;
  const UniqueFd file(open(iFile.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
  if (!file) return cannotKeep(error, iFile, errno);
  std::string line = nameInFile(host, port) + " " + fingerprint + "\n";
  if (hasOpenLine(file.get())) line.insert(0, "\n");
  // One write, so that lines of several writers do not mix.
  const ssize_t written = write(file.get(), line.data(), line.size());
  return written == static_cast<ssize_t>(line.size()) ||
         cannotKeep(error, iFile, written < 0 ? errno : ENOSPC);
}

}  // namespace ombra
