// The configuration files that programs for S3 share.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace ombra {

// Sections of "name = value" lines. A line that is indented below one without a value belongs to that: it is
// found as "outer.inner". Comments begin with "#" or ";", at the start of a line or after a blank. Values may
// be secrets: they are wiped when it is destroyed.
class SharedConfiguration {
 public:
  SharedConfiguration() = default;
  // Of at most 1 MiB; what is no section and no such line means nothing.
  explicit SharedConfiguration(std::string_view text);
  // A missing or unreadable file counts as empty.
  static SharedConfiguration ofFile(const std::string& path);
  SharedConfiguration(SharedConfiguration&&) = default;
  SharedConfiguration& operator=(SharedConfiguration&&) = default;
  ~SharedConfiguration();

  bool hasSection(std::string_view section) const;
  // Null when there is no such line; the last one counts. An empty value counts as none.
  const std::string* value(std::string_view section, std::string_view name) const;

 private:
  using Section = std::map<std::string, std::string, std::less<>>;
  std::map<std::string, Section, std::less<>> iSections;
};

}  // namespace ombra
