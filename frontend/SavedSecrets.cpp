#include "frontend/SavedSecrets.h"

#include <fmt/format.h>

#include "frontend/HelperProcess.h"
#include "platform/foundation/ASCII.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSProcessInfo.h"
#include "platform/foundation/NSUnarchiver.h"
#include "remote/KCTypes.h"

namespace ombra {

namespace {

// A name for each: what was given to a server behind TLS must never be found for one without.
const char* keyringProtocol(uint32_t protocol) {
  switch (protocol) {
    case kProtocolSFTP:
      return "sftp";
    case kProtocolFTP:
      return "ftp";
    case kProtocolFTPImplicitTLS:
      return "ftps";
    case kProtocolFTPExplicitTLS:
      return "ftpes";
    case kProtocolWebDAV:
      return "dav";
    case kProtocolWebDAVTLS:
      return "davs";
    case kProtocolS3:
      return "s3";
    default:
      return "";
  }
}

std::string keyringPort(int port, uint32_t protocol) {
  return fmt::format("{}", port != 0 ? port : defaultPortOfProtocol(protocol));
}

const char* nameOf(SavedSecrets::Kind kind) {
  return kind == SavedSecrets::Kind::kPassword ? "password" : "passphrase";
}

std::string labelOf(SavedSecrets::Kind kind, const KCCredentials& credentials) {
  const std::string who = credentials.username().value_or("") + "@" + credentials.address();
  return fmt::format("Ombra: {} of {} ({})", nameOf(kind), printable(who),
                     keyringProtocol(credentials.protocol()));
}

std::optional<std::string> secretIn(SavedSecrets::Kind kind, const KCCredentials& credentials) {
  return kind == SavedSecrets::Kind::kPassword ? credentials.password() : credentials.option("passphrase");
}

}  // namespace

KeyringItem keyringItem(SavedSecrets::Kind kind, const KCCredentials& credentials) {
  KeyringItem item{{"kind", nameOf(kind)},
                   {"protocol", keyringProtocol(credentials.protocol())},
                   {"server", lowercasedASCII(credentials.address())},
                   {"port", keyringPort(credentials.port(), credentials.protocol())},
                   {"user", credentials.username().value_or("")}};
  if (kind == SavedSecrets::Kind::kPassphrase)
    item.emplace_back("file", credentials.option("identityFile").value_or(""));
  return item;
}

KeyringItem keyringItemsOfURL(const RemoteURL& url) {
  KeyringItem item{{"protocol", keyringProtocol(url.protocol)}};
  if (url.protocol != kProtocolS3) {
    item.emplace_back("server", lowercasedASCII(url.host));
    item.emplace_back("port", keyringPort(url.port, url.protocol));
  }
  if (url.username) item.emplace_back("user", *url.username);
  return item;
}

std::string keyringProgram() {
  const std::string helper = helperPathForCommand(NSProcessInfo::executablePath());
  return stringByAppendingPathComponent(stringByDeletingLastPathComponent(helper), "ombrafs-keyring");
}

bool SavedSecrets::use(Kind kind, KCCredentials* credentials) {
  const Keyring::Reply reply = iKeyring.find(keyringItem(kind, *credentials));
  if (reply.answer != Keyring::Answer::kDone) {
    tellFailure(reply, false);
    return false;
  }
  if (kind == Kind::kPassword) {
    credentials->setPassword(reply.text);
  } else {
    credentials->setOption("passphrase", reply.text);
  }
  iUsed = kind;
  return true;
}

std::optional<SavedSecrets::Kind> SavedSecrets::dropRefused(const KCCredentials& credentials) {
  const std::optional<Kind> used = std::exchange(iUsed, std::nullopt);
  // With another secret on top it is not known which one was refused.
  if (!used || iGiven) return std::nullopt;
  const Keyring::Reply reply = iKeyring.remove(keyringItem(*used, credentials));
  iOutput.warning(reply.answer == Keyring::Answer::kDone
                      ? fmt::format("The {} in the keyring was refused, and is removed there.", nameOf(*used))
                      : fmt::format("The {} in the keyring was refused. It could not be removed there: {}",
                                    nameOf(*used), reply.why));
  iReplacing = true;
  return used;
}

void SavedSecrets::keep(const KCCredentials& credentials) {
  if (!iGiven) {
    if (iSaving && !iUsed) iOutput.warning("No password was given, so none is saved.");
    return;
  }
  auto secret = secretIn(*iGiven, credentials);
  if (!(iSaving || iReplacing) || !secret || secret->empty()) return;
  const Keyring::Reply reply =
      iKeyring.store(keyringItem(*iGiven, credentials), labelOf(*iGiven, credentials), *secret);
  wipe(*secret);
  if (reply.answer != Keyring::Answer::kDone) tellFailure(reply, true);
}

void SavedSecrets::tellFailure(const Keyring::Reply& reply, bool aboutSaving) {
  using Answer = Keyring::Answer;
  if (reply.answer == Answer::kNothingFound || reply.answer == Answer::kInterrupted || iTold) return;
  if (reply.answer == Answer::kAbsent) {
    if (!iSaving) return;
    iOutput.warning(fmt::format("There is no keyring here, so nothing is saved. {}", reply.why));
  } else if (aboutSaving) {
    iOutput.warning(fmt::format("The password is not saved: the keyring cannot be used. {}", reply.why));
  } else {
    iOutput.warning(fmt::format("The keyring cannot be used. {}", reply.why));
  }
  // A keyring that could not be read may still be written to, and who wants that hears of it.
  iTold = reply.answer == Answer::kAbsent || aboutSaving;
}

}  // namespace ombra
