#include "remote/KCCredentials.h"

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSUnarchiver.h"
#include "remote/NameEncoding.h"

namespace ombra {
namespace {

// The converter for these names, null where they travel as they are.
NameEncoding* converter(const std::optional<std::string>& encoding, std::string_view name) {
  if (!encoding || NameEncoding::isUTF8(*encoding)) return nullptr;
  // Plain names are the common case; a percent sign may begin an escape.
  if (isASCII(name) && name.find('%') == std::string_view::npos) return nullptr;
  return &NameEncoding::threadEncoding(*encoding);
}

}  // namespace

KCCredentials::KCCredentials() : iUUID(KCUUID::UUID()) {}

KCCredentials::~KCCredentials() {
  if (iPassword) wipe(*iPassword);
  // Passphrases and answers live among the options; which ones they are is the engines' business.
  for (auto& [key, value] : iOptions) wipe(value);
}

std::optional<std::string> KCCredentials::option(std::string_view key) const {
  const auto found = iOptions.find(key);
  if (found == iOptions.end()) return std::nullopt;
  return found->second;
}

// Copied and wiped, not moved: a short text stays behind in what it was moved from.
void KCCredentials::setPassword(std::optional<std::string> password) {
  if (iPassword) wipe(*iPassword);
  iPassword = password;
  if (password) wipe(*password);
}

void KCCredentials::setOption(std::string key, std::string value) {
  std::string& place = iOptions[std::move(key)];
  wipe(place);
  place = value;
  wipe(value);
}

std::string KCCredentials::remoteStringForUnicodeString(std::string_view text) const {
  NameEncoding* encoding = converter(iEncoding, text);
  return encoding != nullptr ? encoding->bytesForText(text) : std::string(text);
}

std::string KCCredentials::unicodeStringForRemoteString(std::string_view bytes) const {
  NameEncoding* encoding = converter(iEncoding, bytes);
  return encoding != nullptr ? encoding->textForBytes(bytes) : std::string(bytes);
}

std::string KCCredentials::displayStringForRemoteString(std::string_view bytes) const {
  return unicodeStringForRemoteString(bytes);
}

}  // namespace ombra
