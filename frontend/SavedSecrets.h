// The passwords of logins, kept in the desktop's keyring.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "frontend/Keyring.h"
#include "frontend/RemoteURL.h"
#include "remote/KCCredentials.h"

namespace ombra {

// What the keyring keeps for one login, and whether it is to keep more. Says at most once why the keyring
// cannot be used; a missing one only to who wants to save.
class SavedSecrets {
 public:
  enum class Kind { kPassword, kPassphrase };

  // `keyring` and `output` outlive the object.
  SavedSecrets(const Keyring& keyring, const Output& output, bool saving)
      : iKeyring(keyring), iOutput(output), iSaving(saving) {}

  // Puts the secret that is kept for this login, or for the key that it names, into the credentials. False
  // when there is none.
  bool use(Kind kind, KCCredentials* credentials);
  // Another secret is in the credentials now, given by the user.
  void wasGiven(Kind kind) { iGiven = kind; }
  // The server refused the login: a secret that came from the keyring is removed there, so that it is not
  // tried again, and the one that comes in its place is saved. False when none was in use; else its kind.
  std::optional<Kind> dropRefused(const KCCredentials& credentials);
  // The login has succeeded: saves what was given, where that is wanted.
  void keep(const KCCredentials& credentials);

 private:
  void tellFailure(const Keyring::Reply& reply, bool aboutSaving);

  const Keyring& iKeyring;
  const Output& iOutput;
  const bool iSaving;
  bool iReplacing = false;
  bool iTold = false;
  std::optional<Kind> iUsed;
  std::optional<Kind> iGiven;
};

// The words by which a login's secret is found.
KeyringItem keyringItem(SavedSecrets::Kind kind, const KCCredentials& credentials);
// The words that all secrets of that server (and user, where the URL names one) have; for S3, of that key.
KeyringItem keyringItemsOfURL(const RemoteURL& url);
// The program that speaks to the keyring, as seen from the command's own.
std::string keyringProgram();

}  // namespace ombra
