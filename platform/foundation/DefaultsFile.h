// The file behind the user defaults. For this folder's own sources.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/foundation/NSError.h"

namespace ombra {

// defaults.plist in the configuration folder. Stateless; several processes may change it at once.
class DefaultsFile {
 public:
  static std::string path();
  // All keys and values; none when there is no file. Absent, with `reason` filled, when it cannot be read.
  static std::optional<NSDictionary> read(std::string* reason);
  // As `read`, of a file's contents.
  static std::optional<NSDictionary> parse(std::span<const uint8_t> data, std::string* reason);
  // Reads the file again, sets or (null) removes `key`, and puts the result in the file's place as a whole.
  // The file's new contents; absent, with `error` filled, when it could not be written: then it is as it was.
  // A file that cannot be parsed is never overwritten.
  static std::optional<NSDictionary> change(PropertyValue value, std::string_view key, NSErrorRef* error);
};

}  // namespace ombra
