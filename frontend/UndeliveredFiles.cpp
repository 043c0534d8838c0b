#include "frontend/UndeliveredFiles.h"

#include <fmt/format.h>

#include "frontend/Deadline.h"
#include "platform/foundation/RunLoop.h"

namespace ombra {

namespace {

constexpr size_t kMaximumFiles = 10000;
constexpr std::chrono::seconds kLastWordLimit{1};

std::string withoutEscapes(std::string_view text) {
  std::string plain;
  for (size_t at = 0; at < text.size(); ++at) {
    const bool isEscape = text[at] == '\\' && at + 1 < text.size();
    if (isEscape) ++at;
    plain += isEscape && text[at] == 't' ? '\t' : text[at];
  }
  return plain;
}

}  // namespace

UndeliveredFile parseUndeliveredFile(std::string_view text) {
  UndeliveredFile file;
  for (std::string* field : {&file.path, &file.copy}) {
    const std::string_view value = text.substr(0, text.find('\t'));
    *field = withoutEscapes(value);
    text.remove_prefix(std::min(value.size() + 1, text.size()));
  }
  file.reason = text;
  return file;
}

UndeliveredFiles::UndeliveredFiles() {
  auto& center = NSDistributedNotificationCenter::defaultCenter();
  center.addObserver(this, "OFSUndelivered", [this](const NSNotification& notification) {
    const PropertyValue* value =
        notification.userInfo ? notification.userInfo->objectForKey("files") : nullptr;
    const NSArray* files = value == nullptr ? nullptr : value->asArray();
    if (files == nullptr) return;
    for (const PropertyValue& file : *files) {
      if (file.asString() == nullptr || iTold.size() == kMaximumFiles) continue;
      iTold.push_back({notification.object.value_or(""), parseUndeliveredFile(*file.asString())});
    }
  });
  center.addObserver(this, "OFSDidUnmount", [this](const NSNotification& notification) {
    iEnded.insert(notification.object.value_or(""));
  });
}

UndeliveredFiles::~UndeliveredFiles() {
  NSDistributedNotificationCenter::defaultCenter().removeObserver(this);
}

std::vector<UndeliveredFile> UndeliveredFiles::ofHelper(const std::string& registeredName) {
  const Deadline deadline(kLastWordLimit);
  while (!iEnded.contains(registeredName) && !deadline.passed()) {
    RunLoop::mainRunLoop().runOnce(static_cast<uint64_t>(deadline.pollTimeout()) * 1000);
  }
  std::vector<UndeliveredFile> files;
  for (const Told& told : iTold) {
    if (told.registeredName == registeredName) files.push_back(told.file);
  }
  return files;
}

bool tellUndelivered(const std::string& volumeName, const std::vector<UndeliveredFile>& files,
                     const Output& output) {
  for (const UndeliveredFile& file : files) {
    output.warning(
        fmt::format("{} of {} is not stored on the server. {} {}", inQuotes(file.path), inQuotes(volumeName),
                    sentence(file.reason),
                    file.copy.empty() ? "Its content could not be kept." : "It is kept at " + file.copy));
  }
  return !files.empty();
}

}  // namespace ombra
