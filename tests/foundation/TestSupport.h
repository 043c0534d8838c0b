// Small helpers of this folder's tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSDictionary.h"
#include "tests/support/TemporaryFolder.h"

namespace ombra {

// Bytes from and to hexadecimal text; blanks are ignored.
NSData fromHex(std::string_view hex);
std::string toHex(const NSData& data);

// The contents of a file; empty when there is none.
std::string contentsOfFile(const std::string& path);
void writeFile(const std::string& path, std::string_view contents);

// Sets an environment variable (absent: removes it) and puts the old value back at the end.
class EnvironmentVariable {
 public:
  EnvironmentVariable(const char* name, const std::optional<std::string>& value);
  ~EnvironmentVariable();
  EnvironmentVariable(const EnvironmentVariable&) = delete;
  EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

 private:
  void set(const std::optional<std::string>& value);
  const char* iName;
  std::optional<std::string> iOld;
};

// Collects what is logged instead of writing it to standard error. One at a time.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  std::vector<std::string> lines() const;
  // How many lines contain `text`.
  size_t count(std::string_view text) const;
};

}  // namespace ombra
