#include "remote/ftp/FTPReply.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace ombra {

namespace {

bool isReplyDigit(char c) { return c >= '0' && c <= '9'; }

// The code at the start of a line, 0 when it does not begin with one.
int codeOf(std::string_view line) {
  if (line.size() < 3 || !isReplyDigit(line[0]) || !isReplyDigit(line[1]) || !isReplyDigit(line[2])) return 0;
  const int code = (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
  return code >= 100 && code < 600 ? code : 0;
}

bool isLast(std::string_view line) { return line.size() == 3 || line[3] == ' '; }

std::optional<int> numberUpTo(std::string_view text, size_t* at, int maximum) {
  int value = 0;
  const char* begin = text.data() + *at;
  const auto result = std::from_chars(begin, text.data() + text.size(), value);
  if (result.ec != std::errc() || value < 0 || value > maximum) return std::nullopt;
  *at += static_cast<size_t>(result.ptr - begin);
  return value;
}

// Six numbers with commas between them, beginning at `at`.
std::optional<int> passivePortAt(std::string_view text, size_t at) {
  std::array<int, 6> numbers{};
  for (size_t i = 0; i < numbers.size(); ++i) {
    if (i > 0 && (at >= text.size() || text[at++] != ',')) return std::nullopt;
    while (at < text.size() && text[at] == ' ') ++at;
    const std::optional<int> number = numberUpTo(text, &at, 255);
    if (!number) return std::nullopt;
    numbers[i] = *number;
  }
  const int port = numbers[4] * 256 + numbers[5];
  return port > 0 ? std::optional(port) : std::nullopt;
}

}  // namespace

std::string FTPReply::description() const {
  std::string result = fmt::format("{}", code);
  for (const std::string& line : lines) {
    if (result.size() > 400) break;
    result += ' ';
    for (const char c : line) result += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? ' ' : c;
  }
  return result;
}

std::optional<std::string> FTPReplyParser::nextLine() {
  const size_t end = iBytes.find('\n', iScanned);
  if (end == std::string::npos) {
    iScanned = iBytes.size();
    if (iBytes.size() > kMaximumReply) iIsBroken = true;
    return std::nullopt;
  }
  std::string line = iBytes.substr(0, end);
  iBytes.erase(0, end + 1);
  iScanned = 0;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

bool FTPReplyParser::take(std::string line) {
  const int code = codeOf(line);
  if (iReply.lines.empty()) {
    if (code == 0 || (line.size() > 3 && line[3] != ' ' && line[3] != '-')) {
      iIsBroken = true;
      return false;
    }
    iReply.code = code;
    const bool ends = isLast(line);
    iReply.lines.push_back(line.size() > 4 ? line.substr(4) : std::string());
    return ends;
  }
  const bool isOwn = code == iReply.code;
  const bool ends = isOwn && isLast(line);
  // Inner lines may repeat the code with a hyphen, or be anything.
  const bool hasCode = ends || (isOwn && line.size() > 3 && line[3] == '-');
  if (hasCode) line.erase(0, std::min<size_t>(4, line.size()));
  iReply.lines.push_back(std::move(line));
  return ends;
}

std::optional<FTPReply> FTPReplyParser::next() {
  while (!iIsBroken) {
    std::optional<std::string> line = nextLine();
    if (!line) break;
    // Servers that end lines with "\r\r\n" or send an empty one between replies are understood.
    if (line->empty() && iReply.lines.empty()) continue;
    iReplySize += line->size() + 1;
    if (iReplySize > kMaximumReply) {
      iIsBroken = true;
      break;
    }
    if (!take(std::move(*line))) continue;
    iReplySize = 0;
    return std::exchange(iReply, FTPReply());
  }
  return std::nullopt;
}

std::optional<std::string> quotedFTPPath(std::string_view text) {
  size_t at = text.find('"');
  if (at == std::string_view::npos) return std::nullopt;
  std::string path;
  for (++at; at < text.size(); ++at) {
    if (text[at] != '"') {
      path += text[at];
    } else if (at + 1 < text.size() && text[at + 1] == '"') {
      path += text[++at];
    } else {
      return path.empty() ? std::nullopt : std::optional(std::move(path));
    }
  }
  return std::nullopt;
}

std::optional<int> portOfExtendedPassive(std::string_view text) {
  const size_t open = text.rfind('(');
  if (open == std::string_view::npos || open + 5 >= text.size()) return std::nullopt;
  const char separator = text[open + 1];
  if (text[open + 2] != separator || text[open + 3] != separator) return std::nullopt;
  size_t at = open + 4;
  const std::optional<int> port = numberUpTo(text, &at, 65535);
  if (!port || *port == 0 || at >= text.size() || text[at] != separator) return std::nullopt;
  return port;
}

std::optional<int> portOfPassive(std::string_view text) {
  for (size_t at = 0; at < text.size(); ++at) {
    const bool startsNumber = isReplyDigit(text[at]) && (at == 0 || !isReplyDigit(text[at - 1]));
    if (!startsNumber) continue;
    if (const std::optional<int> port = passivePortAt(text, at)) return port;
  }
  return std::nullopt;
}

}  // namespace ombra
