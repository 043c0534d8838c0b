#include "remote/http/HTTPTranscript.h"

#include <algorithm>
#include <array>

#include "platform/foundation/ASCII.h"
#include "remote/TranscriptText.h"

namespace ombra {

namespace {

constexpr std::string_view kMask = "***";
constexpr std::array<std::string_view, 7> kSecretHeaders{
    "authorization", "proxy-authorization", "authentication-info",  "proxy-authentication-info",
    "cookie",        "set-cookie",          "x-amz-security-token",
};
constexpr std::array<std::string_view, 4> kSecretParameters{
    "x-amz-signature=",
    "x-amz-security-token=",
    "x-amz-credential=",
    "signature=",
};

bool isSecretHeader(std::string_view line) {
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  const std::string name = lowercasedASCII(line.substr(0, colon));
  return std::find(kSecretHeaders.begin(), kSecretHeaders.end(), name) != kSecretHeaders.end();
}

std::string withMaskedParameters(std::string_view line) {
  std::string text(line);
  for (const std::string_view name : kSecretParameters) {
    size_t from = 0;
    while ((from = lowercasedASCII(text).find(name, from)) != std::string::npos) {
      from += name.size();
      const size_t end = std::min(text.find_first_of("& \t\"", from), text.size());
      text.replace(from, end - from, kMask);
    }
  }
  return text;
}

}  // namespace

std::string httpTranscriptText(std::string_view head) {
  std::string text;
  while (!head.empty()) {
    const size_t end = std::min(head.find('\n'), head.size());
    std::string_view line = head.substr(0, end);
    head.remove_prefix(std::min(end + 1, head.size()));
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.empty()) continue;
    if (isSecretHeader(line)) {
      text.append(visibleText(line.substr(0, line.find(':')))).append(": ").append(kMask);
    } else {
      text += visibleText(line.find('=') == std::string_view::npos ? std::string(line)
                                                                   : withMaskedParameters(line));
    }
    text += '\n';
  }
  return text;
}

std::string httpRemarkText(std::string_view text) {
  std::string result(text);
  const size_t end = text.rfind('@');
  if (end == std::string_view::npos || lowercasedASCII(text).find("proxy") == std::string::npos) return result;
  constexpr std::string_view kScheme = "://";
  size_t begin = text.find(kScheme);
  // The scheme may be missing there.
  begin = begin < end ? begin + kScheme.size() : text.find('\'') + 1;
  return begin < end ? result.replace(begin, end - begin, kMask) : result;
}

}  // namespace ombra
