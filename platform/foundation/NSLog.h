// The log line of the process.
#pragma once

#include <fmt/format.h>

#include <string_view>

namespace ombra {

// Writes one line to standard error: date, time, process name, process and thread number, text. One write
// call per line, so that lines of several threads do not mix. Newlines inside the text stay. Thread-safe.
void NSLogMessage(std::string_view text);

// NSLogMessage with {fmt} formatting.
template <typename... Args>
void NSLog(fmt::format_string<Args...> format, Args&&... args) {
  NSLogMessage(fmt::format(format, std::forward<Args>(args)...));
}

// Receives each log text in place of standard error, for tests. nullptr restores standard error.
using LogSink = void (*)(std::string_view text);
void setLogSink(LogSink sink);

}  // namespace ombra
