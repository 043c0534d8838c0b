#include "remote/sftp/SSHAuthentication.h"

#include <fmt/format.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include "platform/foundation/NSUnarchiver.h"
#include "remote/QuarnKitError.h"

namespace ombra {

namespace {

// A server that goes on asking is not answered for ever.
constexpr int kMostRounds = 10;
constexpr int kMostMethodsInTurn = 8;

// A copy of a secret that leaves nothing behind.
class Secret {
 public:
  // Copied and wiped, not moved: a short text stays behind in what it was moved from.
  explicit Secret(std::optional<std::string> text) : iText(text) {
    if (text) wipe(*text);
  }
  ~Secret() {
    if (iText) wipe(*iText);
  }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  bool has() const { return iText.has_value() && !iText->empty(); }
  const char* text() const { return has() ? iText->c_str() : nullptr; }
  std::string_view view() const { return has() ? std::string_view(*iText) : std::string_view(); }

 private:
  std::optional<std::string> iText;
};

class Authentication {
 public:
  Authentication(SSHClient& client, const KCCredentials& credentials, SSHClient::Clock::time_point deadline)
      : iClient(client),
        iCredentials(credentials),
        iDeadline(deadline),
        iPassphrase(credentials.option("passphrase")),
        iAnswers(credentials.option("keyboardInteractive")) {}

  bool run(NSErrorRef* error);

 private:
  // What one way of logging in came to. kAccepted may be the whole login or one of several steps.
  enum class Outcome { kLoggedIn, kStep, kRefused, kBroken };

  Outcome tryNext();
  Outcome tryKeyFile();
  Outcome tryPassword();
  Outcome tryQuestions();
  Outcome answerQuestions();
  Outcome tryOwnKeys();
  bool answerPrompts(int count, int* nextLine, bool* passwordGiven);
  SSHKeyRef loadKey(const std::string& file);
  void addCertificate(const std::string& file, ssh_key key);
  template <typename Call>
  Outcome attempt(std::string_view method, Call call);
  bool offers(int method) const { return (ssh_userauth_list(iClient.session(), nullptr) & method) != 0; }
  std::string offeredText() const;

  SSHClient& iClient;
  const KCCredentials& iCredentials;
  const SSHClient::Clock::time_point iDeadline;
  const Secret iPassphrase;
  const Secret iAnswers;
  NSErrorRef iBroken;
  std::vector<std::string> iReasons;
  bool iTriedKeyFile = false;
  bool iTriedPassword = false;
  bool iTriedQuestions = false;
  bool iTriedOwnKeys = false;
};

template <typename Call>
Authentication::Outcome Authentication::attempt(std::string_view method, Call call) {
  const auto result = iClient.drive(SSH_AUTH_AGAIN, iDeadline, &iBroken, call);
  if (!result) return Outcome::kBroken;
  switch (*result) {
    case SSH_AUTH_SUCCESS:
      return Outcome::kLoggedIn;
    case SSH_AUTH_PARTIAL:
      return Outcome::kStep;
    case SSH_AUTH_DENIED:
      iReasons.push_back(fmt::format("{} refused", method));
      return Outcome::kRefused;
    default:
      break;
  }
  if (ssh_is_connected(iClient.session())) {
    // Not the server's word but libssh's: a key that cannot sign, an agent that went away.
    iReasons.push_back(fmt::format("{} failed", method));
    return Outcome::kRefused;
  }
  // A server ends the connection after a few attempts, and says so.
  const bool isVerdict = iClient.lastWords().find("oo many authentication failures") != std::string::npos;
  iBroken = isVerdict ? QuarnKitError::errorWithCode(kQuarnKitLoginFailed, iClient.lastWords())
                      : iClient.lostError();
  return Outcome::kBroken;
}

bool Authentication::run(NSErrorRef* error) {
  // Asks what the server offers; a server may also let anybody in.
  Outcome outcome = attempt("none", [this] { return ssh_userauth_none(iClient.session(), nullptr); });
  iReasons.clear();
  for (int steps = 0;
       outcome != Outcome::kLoggedIn && outcome != Outcome::kBroken && steps < kMostMethodsInTurn;) {
    outcome = tryNext();
    if (outcome == Outcome::kRefused) break;
    if (outcome == Outcome::kStep) ++steps;
  }
  if (outcome == Outcome::kLoggedIn) return true;
  if (outcome == Outcome::kBroken) {
    storeError(error, iBroken);
    return false;
  }
  std::string reasons;
  for (const std::string& reason : iReasons) reasons += "; " + reason;
  storeError(error, QuarnKitError::errorWithCode(
                        kQuarnKitLoginFailed, fmt::format("the server offers {}{}", offeredText(), reasons)));
  return false;
}

// The next way that the server offers and that was not tried yet. Refused when there is none.
Authentication::Outcome Authentication::tryNext() {
  while (true) {
    Outcome outcome = Outcome::kRefused;
    if (!iTriedKeyFile && offers(SSH_AUTH_METHOD_PUBLICKEY) && iCredentials.option("identityFile")) {
      iTriedKeyFile = true;
      outcome = tryKeyFile();
    } else if (!iTriedPassword && offers(SSH_AUTH_METHOD_PASSWORD) && iCredentials.password()) {
      iTriedPassword = true;
      outcome = tryPassword();
    } else if (!iTriedQuestions && offers(SSH_AUTH_METHOD_INTERACTIVE) &&
               (iCredentials.password() || iAnswers.has())) {
      iTriedQuestions = true;
      outcome = tryQuestions();
    } else if (!iTriedOwnKeys && offers(SSH_AUTH_METHOD_PUBLICKEY)) {
      iTriedOwnKeys = true;
      outcome = tryOwnKeys();
    } else {
      return Outcome::kRefused;
    }
    if (outcome != Outcome::kRefused) return outcome;
  }
}

Authentication::Outcome Authentication::tryKeyFile() {
  std::string file = iCredentials.option("identityFile").value_or("");
  if (file.starts_with("~/")) {
    const std::string folder = SSHClient::userFolder();
    file = folder.substr(0, folder.size() - 5) + file.substr(1);
  }
  const SSHKeyRef key = loadKey(file);
  if (!key) return Outcome::kRefused;
  addCertificate(file + "-cert.pub", key.get());
  return attempt("key file", [&] { return ssh_userauth_publickey(iClient.session(), nullptr, key.get()); });
}

SSHKeyRef Authentication::loadKey(const std::string& file) {
  ssh_key key = nullptr;
  const int result = ssh_pki_import_privkey_file(file.c_str(), iPassphrase.text(), nullptr, nullptr, &key);
  if (result == SSH_OK) return SSHKeyRef(key);
  if (access(file.c_str(), R_OK) != 0) {
    iReasons.push_back(fmt::format("the key file {} cannot be read: {}", file, strerror(errno)));
  } else {
    iReasons.push_back(fmt::format("the key file {} cannot be used: {}", file,
                                   iPassphrase.has() ? "no private key, or another passphrase"
                                                     : "no private key, or it needs a passphrase"));
  }
  return nullptr;
}

void Authentication::addCertificate(const std::string& file, ssh_key key) {
  ssh_key certificate = nullptr;
  if (ssh_pki_import_cert_file(file.c_str(), &certificate) != SSH_OK) return;
  const SSHKeyRef owner(certificate);
  ssh_pki_copy_cert_to_privkey(certificate, key);
}

Authentication::Outcome Authentication::tryPassword() {
  return attempt("password", [this] {
    return ssh_userauth_password(iClient.session(), nullptr, iCredentials.password()->c_str());
  });
}

Authentication::Outcome Authentication::tryQuestions() {
  int nextLine = 0;
  bool passwordGiven = false;
  for (int round = 0; round < kMostRounds; ++round) {
    const auto result = iClient.drive(SSH_AUTH_AGAIN, iDeadline, &iBroken, [this] {
      return ssh_userauth_kbdint(iClient.session(), nullptr, nullptr);
    });
    if (!result) return Outcome::kBroken;
    if (*result != SSH_AUTH_INFO) return attempt("answers", [&] { return *result; });
    const int count = ssh_userauth_kbdint_getnprompts(iClient.session());
    if (!answerPrompts(count, &nextLine, &passwordGiven)) break;
  }
  iReasons.push_back("the server asks for more than is known");
  return Outcome::kRefused;
}

// Lines of the option in order; without it the password, once, for the first question that is not to be
// shown.
bool Authentication::answerPrompts(int count, int* nextLine, bool* passwordGiven) {
  for (int i = 0; i < count; ++i) {
    char echo = 0;
    ssh_userauth_kbdint_getprompt(iClient.session(), static_cast<unsigned>(i), &echo);
    const auto index = static_cast<unsigned>(i);
    if (iAnswers.has()) {
      std::string_view rest = iAnswers.view();
      for (int line = 0; line < *nextLine && !rest.empty(); ++line) {
        const size_t end = rest.find('\n');
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
      }
      if (rest.empty()) return false;
      ++*nextLine;
      const Secret answer{std::string(rest.substr(0, rest.find('\n')))};
      if (ssh_userauth_kbdint_setanswer(iClient.session(), index, answer.has() ? answer.text() : "") < 0)
        return false;
    } else {
      if (*passwordGiven || echo != 0 || !iCredentials.password()) return false;
      *passwordGiven = true;
      if (ssh_userauth_kbdint_setanswer(iClient.session(), index, iCredentials.password()->c_str()) < 0)
        return false;
    }
  }
  return true;
}

// The agent's keys, then the key files of the configuration and the usual ones.
Authentication::Outcome Authentication::tryOwnKeys() {
  return attempt("own keys", [this] {
    return ssh_userauth_publickey_auto(iClient.session(), nullptr, iPassphrase.text());
  });
}

std::string Authentication::offeredText() const {
  static constexpr std::pair<int, std::string_view> kMethods[] = {
      {SSH_AUTH_METHOD_PUBLICKEY, "publickey"},
      {SSH_AUTH_METHOD_PASSWORD, "password"},
      {SSH_AUTH_METHOD_INTERACTIVE, "keyboard-interactive"},
      {SSH_AUTH_METHOD_GSSAPI_MIC, "gssapi"},
      {SSH_AUTH_METHOD_HOSTBASED, "hostbased"},
  };
  std::string text;
  for (const auto& [method, name] : kMethods) {
    if (!offers(method)) continue;
    if (!text.empty()) text += ", ";
    text += name;
  }
  return text.empty() ? "no known way" : text;
}

}  // namespace

bool authenticateSSH(SSHClient& client, const KCCredentials& credentials,
                     SSHClient::Clock::time_point deadline, NSErrorRef* error) {
  return Authentication(client, credentials, deadline).run(error);
}

}  // namespace ombra
