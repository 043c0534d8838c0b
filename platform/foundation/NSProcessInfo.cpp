#include "platform/foundation/NSProcessInfo.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <fstream>
#include <iterator>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NeverDestroyed.h"

namespace ombra {
namespace {

// What the kernel knows of the arguments, for code that runs before an entry point has set them.
std::vector<std::string> kernelArguments() {
  std::ifstream file("/proc/self/cmdline", std::ios::binary);
  const std::string all((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  std::vector<std::string> arguments;
  for (size_t begin = 0; begin < all.size();) {
    const size_t end = std::min(all.find('\0', begin), all.size());
    arguments.push_back(all.substr(begin, end - begin));
    begin = end + 1;
  }
  return arguments;
}

std::vector<std::string>& argumentStorage() {
  static NeverDestroyed<std::vector<std::string>> sArguments(kernelArguments());
  return *sArguments;
}

std::string unquoted(std::string text) {
  if (text.size() >= 2 && (text.front() == '"' || text.front() == '\'') && text.back() == text.front()) {
    text = text.substr(1, text.size() - 2);
  }
  return text;
}

std::string readOperatingSystemVersion() {
  constexpr std::string_view kKey = "PRETTY_NAME=";
  std::ifstream file("/etc/os-release");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(kKey)) return unquoted(line.substr(kKey.size()));
  }
  utsname names{};
  if (uname(&names) != 0) return "unknown";
  return std::string(names.sysname) + " " + names.release;
}

}  // namespace

const std::vector<std::string>& NSProcessInfo::arguments() { return argumentStorage(); }

void NSProcessInfo::setArguments(int argc, const char* const* argv) {
  argumentStorage().assign(argv, argv + argc);
}

std::string NSProcessInfo::processName() {
  const std::vector<std::string>& all = arguments();
  return lastPathComponent(all.empty() ? executablePath() : all.front());
}

std::string NSProcessInfo::operatingSystemVersionString() {
  static NeverDestroyed<std::string> sVersion(readOperatingSystemVersion());
  return *sVersion;
}

std::string NSProcessInfo::kc_architectureString() {
  utsname names{};
  return uname(&names) == 0 ? names.machine : "unknown";
}

std::string NSProcessInfo::executablePath() {
  char buffer[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer);
  return length > 0 ? std::string(buffer, static_cast<size_t>(length)) : std::string();
}

}  // namespace ombra
