// Challenges, dates, URLs and escapes as servers write them.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "remote/URLEncoding.h"
#include "remote/http/HTTPAuthenticator.h"
#include "remote/http/HTTPDate.h"
#include "remote/http/HTTPTranscript.h"
#include "remote/http/HTTPURL.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

void checkDates(const std::string& text) {
  constexpr ombra::NSDate kNow = ombra::NSDate::dateWithNanoseconds(1'700'000'000'000'000'000);
  if (const auto date = ombra::dateOfHTTPText(text, kNow)) {
    // What was read can be written, and read again.
    require(ombra::dateOfHTTPText(ombra::httpTextOfDate(*date), kNow) == date);
  }
  (void)ombra::dateOfISO8601Text(text);
}

void checkURLs(const std::string& text) {
  require(ombra::percentDecoded(ombra::percentEncoded(text)) == text);
  require(ombra::percentDecoded(ombra::percentEncodedPath(text)) == text);
  const ombra::HTTPURL base = *ombra::HTTPURL::parse("http://host/a/b");
  for (const auto& url : {ombra::HTTPURL::parse(text), base.resolve(text)}) {
    if (!url) continue;
    require(url->path.starts_with('/') && !url->host.empty());
    const auto again = ombra::HTTPURL::parse(url->text());
    require(again && again->text() == url->text());
  }
}

void checkLogin(const std::string& text) {
  for (const ombra::HTTPChallenge& challenge : ombra::parseHTTPChallenges(text))
    require(!challenge.scheme.empty() && challenge.parameters.size() <= 32);
  ombra::HTTPAuthenticator authenticator("user", "secret-word");
  authenticator.takeChallenges({text});
  const std::string header = authenticator.authorization("GET", "/");
  // Nothing of the server's ends the line, and the password goes out in no digest.
  require(header.find_first_of("\r\n") == std::string::npos);
  require(header.find("secret-word") == std::string::npos);
}

void checkTranscript(const std::string& text) {
  const std::string shown = ombra::httpTranscriptText("Authorization: " + text);
  if (text.find('\n') == std::string::npos) require(shown == "Authorization: ***\n");
  (void)ombra::httpTranscriptText(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  checkDates(text);
  checkURLs(text);
  checkLogin(text);
  checkTranscript(text);
  return 0;
}
