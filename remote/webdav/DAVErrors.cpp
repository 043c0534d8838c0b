#include "remote/webdav/DAVErrors.h"

#include <fmt/format.h>

#include <algorithm>

#include "platform/foundation/ASCII.h"
#include "remote/QuarnKitError.h"
#include "remote/http/HTTPText.h"

namespace ombra {

namespace {

constexpr size_t kLongestWords = 200;

// Where one status means the same for all requests.
QuarnKitErrorCode codeOfStatus(int status) {
  switch (status) {
    case 401:
    case 403:
    case 407:
    case 423:
      return kQuarnKitPermissionDenied;
    case 404:
    case 410:
      return kQuarnKitNoSuchItem;
    case 405:
    case 501:
      return kQuarnKitNotSupported;
    case 412:
      return kQuarnKitItemExists;
    case 414:
      return kQuarnKitNameInvalid;
    case 507:
      return kQuarnKitOutOfSpace;
    default:
      return kQuarnKitRefused;
  }
}

QuarnKitErrorCode codeOfLogin(int status) {
  if (status == 401 || status == 407) return kQuarnKitLoginFailed;
  if (status == 429 || status == 503) return kQuarnKitTooManyConnections;
  return codeOfStatus(status);
}

QuarnKitErrorCode codeOf(DAVRequestKind kind, int status) {
  switch (kind) {
    case DAVRequestKind::kLogin:
      return codeOfLogin(status);
    case DAVRequestKind::kList:
      return status == 403 || status == 401 ? kQuarnKitListingNotPermitted : codeOfStatus(status);
    case DAVRequestKind::kCreateFolder:
      // A conflict is a folder above that is missing; what is there cannot be made.
      if (status == 405) return kQuarnKitItemExists;
      return status == 409 ? kQuarnKitNoSuchItem : codeOfStatus(status);
    case DAVRequestKind::kMove:
    case DAVRequestKind::kUpload:
      return status == 409 ? kQuarnKitNoSuchItem : codeOfStatus(status);
    case DAVRequestKind::kDownload:
      return status == 412 ? kQuarnKitItemChanged : codeOfStatus(status);
    default:
      return codeOfStatus(status);
  }
}

// A page for people who look at it with a browser: what it says about a refusal is meant for them.
bool isPage(const HTTPResponse& response) {
  const std::string* type = response.header("Content-Type");
  if (type != nullptr && lowercasedASCII(*type).find("html") != std::string::npos) return true;
  const std::string begin = lowercasedASCII(httpTrimmed(response.body).substr(0, kLongestWords));
  return begin.starts_with("<!doctype html") || begin.starts_with("<html");
}

// The words of an error document, without its markup.
std::string wordsOf(const HTTPResponse& response) {
  if (isPage(response)) return {};
  std::string words;
  bool inMark = false;
  for (const char c : response.body) {
    if (c == '<') inMark = true;
    const bool isBlank = static_cast<unsigned char>(c) <= 0x20 || c == '>' || c == '<';
    if (!inMark && !isBlank) words += c;
    if (isBlank && !words.empty() && words.back() != ' ') words += ' ';
    if (c == '>') inMark = false;
    if (words.size() > kLongestWords) break;
  }
  return std::string(httpTrimmed(words));
}

NSErrorRef makeError(DAVRequestKind kind, int status, std::string_view path, std::string_view words) {
  const std::string said = words.empty() ? fmt::format("the server answered {}", status)
                                         : fmt::format("the server answered {} ({})", status, words);
  NSDictionary userInfo{{std::string(NSLocalizedDescriptionKey), PropertyValue(said)}};
  NSErrorRef beneath = NSError::errorWithDomain("HTTP", status, std::move(userInfo));
  const std::string detail = fmt::format("{}: the server answered {}", path, status);
  return QuarnKitError::errorWithCode(codeOf(kind, status), detail, std::move(beneath));
}

}  // namespace

NSErrorRef davError(DAVRequestKind kind, const HTTPResponse& response, std::string_view path) {
  const std::string* location = response.header("Location");
  if (response.status / 100 == 3 && location != nullptr) {
    // What stands behind the path may be a key to it.
    const std::string_view address = std::string_view(*location).substr(0, location->find_first_of("?#"));
    return QuarnKitError::errorWithCode(
        kQuarnKitRefused, fmt::format("{}: the server sends the request on to {}; use that address", path,
                                      address.substr(0, kLongestWords)));
  }
  return makeError(kind, response.status, path, wordsOf(response));
}

NSErrorRef davError(DAVRequestKind kind, int status, std::string_view path) {
  return makeError(kind, status, path, {});
}

NSErrorRef davNonsense(std::string_view path, std::string_view why) {
  return QuarnKitError::errorWithCode(kQuarnKitProtocolError, fmt::format("{}: {}", path, why));
}

}  // namespace ombra
