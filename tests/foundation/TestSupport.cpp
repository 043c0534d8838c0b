#include "tests/foundation/TestSupport.h"

#include <fmt/format.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSLog.h"

namespace ombra {
namespace {

Mutex gLinesLock;
std::vector<std::string> gLines GUARDED_BY(gLinesLock);

void collect(std::string_view text) {
  MutexLock lock(gLinesLock);
  gLines.emplace_back(text);
}

unsigned digitOf(char c) { return static_cast<unsigned>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10); }

}  // namespace

NSData fromHex(std::string_view hex) {
  NSData data;
  std::string digits;
  std::copy_if(hex.begin(), hex.end(), std::back_inserter(digits),
               [](char c) { return c != ' ' && c != '\n'; });
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    data.push_back(static_cast<uint8_t>(digitOf(digits[i]) << 4 | digitOf(digits[i + 1])));
  }
  return data;
}

std::string toHex(const NSData& data) {
  std::string text;
  for (const uint8_t byte : data) text += fmt::format("{:02x}", byte);
  return text;
}

std::string contentsOfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, std::string_view contents) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << contents;
}

EnvironmentVariable::EnvironmentVariable(const char* name, const std::optional<std::string>& value)
    : iName(name) {
  if (const char* old = getenv(name)) iOld = old;
  set(value);
}

EnvironmentVariable::~EnvironmentVariable() { set(iOld); }

void EnvironmentVariable::set(const std::optional<std::string>& value) {
  if (value) {
    setenv(iName, value->c_str(), 1);
  } else {
    unsetenv(iName);
  }
}

LogCapture::LogCapture() {
  {
    MutexLock lock(gLinesLock);
    gLines.clear();
  }
  setLogSink(&collect);
}

LogCapture::~LogCapture() { setLogSink(nullptr); }

std::vector<std::string> LogCapture::lines() const {
  MutexLock lock(gLinesLock);
  return gLines;
}

size_t LogCapture::count(std::string_view text) const {
  size_t found = 0;
  for (const std::string& line : lines()) found += line.find(text) != std::string::npos ? 1 : 0;
  return found;
}

}  // namespace ombra
