#include "frontend/MountTable.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>

#include "frontend/UniqueFd.h"
#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

namespace {

constexpr std::string_view kSourcePrefix = "OmbraFS/";
constexpr size_t kMaximumTable = 16 * 1024 * 1024;

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  while (!text.empty()) {
    const size_t end = std::min(text.find(separator), text.size());
    if (end > 0) parts.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

template <typename Number>
std::optional<Number> numberIn(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

void readSource(MountedVolume* volume) {
  const std::string_view rest = std::string_view(volume->source).substr(kSourcePrefix.size());
  const size_t hash = rest.find('#');
  if (hash == std::string_view::npos) return;
  volume->protocol = rest.substr(0, hash);
  const std::string_view target = rest.substr(hash + 1);
  const size_t at = target.rfind('@');
  if (at == std::string_view::npos) {
    volume->identifier = target;
  } else {
    volume->username = target.substr(0, at);
    volume->address = target.substr(at + 1);
  }
}

void readOptions(std::string_view options, MountedVolume* volume) {
  constexpr std::string_view kOwner = "user_id=";
  for (const std::string_view option : split(options, ',')) {
    if (option.starts_with(kOwner)) volume->owner = numberIn<uid_t>(option.substr(kOwner.size())).value_or(0);
  }
}

// Fields: 0 id, 1 parent, 2 major:minor, 3 root, 4 mount point, 5 options, any number of tags, "-", type,
// source, options of the file system.
std::optional<MountedVolume> parseLine(std::string_view line, std::string_view volumesFolder) {
  const auto fields = split(line, ' ');
  const auto dash = std::find(fields.begin(), fields.end(), "-");
  if (dash - fields.begin() < 6 || fields.end() - dash < 4) return std::nullopt;
  MountedVolume volume;
  volume.mountPath = decodeMountField(fields[4]);
  volume.source = decodeMountField(dash[2]);
  const bool isFuse = dash[1] == "fuse" || dash[1].starts_with("fuse.");
  if (!isFuse || !volume.source.starts_with(kSourcePrefix)) return std::nullopt;
  if (stringByDeletingLastPathComponent(volume.mountPath) != volumesFolder) return std::nullopt;
  const size_t colon = fields[2].find(':');
  if (colon != std::string_view::npos)
    volume.deviceMinor = numberIn<unsigned>(fields[2].substr(colon + 1)).value_or(0);
  readSource(&volume);
  readOptions(dash[3], &volume);
  return volume;
}

std::string readWholeTable() {
  const UniqueFd file(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
  std::string text;
  std::array<char, 16384> buffer{};
  while (file && text.size() < kMaximumTable) {
    const ssize_t count = read(file.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(buffer.data(), static_cast<size_t>(count));
  }
  return text;
}

}  // namespace

std::string decodeMountField(std::string_view field) {
  std::string result;
  for (size_t i = 0; i < field.size(); ++i) {
    const auto digit = [&field](size_t at) {
      return at < field.size() && field[at] >= '0' && field[at] <= '7';
    };
    if (field[i] == '\\' && digit(i + 1) && digit(i + 2) && digit(i + 3)) {
      result +=
          static_cast<char>((field[i + 1] - '0') << 6 | (field[i + 2] - '0') << 3 | (field[i + 3] - '0'));
      i += 3;
    } else {
      result += field[i];
    }
  }
  return result;
}

std::vector<MountedVolume> parseMountInfo(std::string_view text, std::string_view volumesFolder) {
  std::vector<MountedVolume> volumes;
  for (const std::string_view line : split(text, '\n')) {
    auto volume = parseLine(line, volumesFolder);
    if (!volume) continue;
    std::erase_if(volumes,
                  [&volume](const MountedVolume& below) { return below.mountPath == volume->mountPath; });
    volumes.push_back(std::move(*volume));
  }
  return volumes;
}

std::vector<MountedVolume> mountedVolumes(std::string_view volumesFolder) {
  return parseMountInfo(readWholeTable(), volumesFolder);
}

}  // namespace ombra
