#include "frontend/HelperTraces.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <charconv>

#include "frontend/UniqueFd.h"
#include "platform/foundation/NSFileManager.h"

namespace ombra {

namespace {

constexpr size_t kMaximumText = 64 * 1024;

std::string startOf(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string text(kMaximumText, '\0');
  const ssize_t count = file ? read(file.get(), text.data(), text.size()) : 0;
  text.resize(count > 0 ? static_cast<size_t>(count) : 0);
  return text;
}

}  // namespace

std::string nameInCommandLine(std::string_view commandLine) {
  constexpr std::string_view kPrefix = "--name=";
  std::string name;
  while (!commandLine.empty()) {
    const std::string_view argument = commandLine.substr(0, commandLine.find('\0'));
    // A later one overrides an earlier one, as in the helper itself.
    if (argument.starts_with(kPrefix)) name = argument.substr(kPrefix.size());
    commandLine.remove_prefix(std::min(argument.size() + 1, commandLine.size()));
  }
  return name;
}

unsigned connectionInDescriptorFacts(std::string_view facts) {
  constexpr std::string_view kKey = "fuse_connection:\t";
  const size_t start = facts.find(kKey);
  if (start == std::string_view::npos) return 0;
  unsigned number = 0;
  const std::string_view rest = facts.substr(start + kKey.size());
  std::from_chars(rest.data(), rest.data() + rest.size(), number);
  return number;
}

HelperTraces tracesOfHelper(pid_t pid) {
  const std::string process = fmt::format("/proc/{}", pid);
  HelperTraces traces;
  traces.nameArgument = nameInCommandLine(startOf(process + "/cmdline"));
  const auto descriptors = NSFileManager::contentsOfDirectoryAtPath(process + "/fdinfo", nullptr);
  if (!descriptors) return traces;
  for (const std::string& descriptor : *descriptors) {
    const unsigned connection =
        connectionInDescriptorFacts(startOf(fmt::format("{}/fdinfo/{}", process, descriptor)));
    if (connection != 0) traces.fuseConnection = connection;
  }
  return traces;
}

}  // namespace ombra
