#include "remote/http/HTTPAuthenticator.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>

#include "platform/foundation/ASCII.h"
#include "remote/tls/DigestText.h"

namespace ombra {

namespace {

// A server that sends more than this asks for nothing sensible.
constexpr size_t kMostChallenges = 16;
constexpr size_t kMostParameters = 32;

bool isTokenCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

class ChallengeReader {
 public:
  explicit ChallengeReader(std::string_view text) : iText(text) {}

  bool atEnd() const { return iText.empty(); }
  bool atValue() const { return !iText.empty() && iText.front() != '=' && iText.front() != ','; }
  void skipBlanks() {
    while (!iText.empty() && (iText.front() == ' ' || iText.front() == '\t')) iText.remove_prefix(1);
  }
  void skipSeparators() {
    while (!iText.empty() && (iText.front() == ' ' || iText.front() == '\t' || iText.front() == ','))
      iText.remove_prefix(1);
  }
  bool take(char wanted) {
    if (iText.empty() || iText.front() != wanted) return false;
    iText.remove_prefix(1);
    return true;
  }
  std::string token() {
    size_t length = 0;
    while (length < iText.size() && isTokenCharacter(iText[length])) ++length;
    const std::string result(iText.substr(0, length));
    iText.remove_prefix(length);
    return result;
  }
  // A token or a quoted string; absent when the quotes never end.
  std::optional<std::string> value() {
    if (!take('"')) return token();
    std::string result;
    while (!iText.empty()) {
      if (take('"')) return result;
      if (iText.front() == '\\' && iText.size() > 1) iText.remove_prefix(1);
      result += iText.front();
      iText.remove_prefix(1);
    }
    return std::nullopt;
  }
  // "= value" after a name: false, with nothing taken, when the name was a scheme instead.
  bool takeEquals() {
    const std::string_view before = iText;
    skipBlanks();
    if (take('=')) {
      skipBlanks();
      return true;
    }
    iText = before;
    return false;
  }
  // The one bare word that some schemes have instead of parameters ("Negotiate abc==").
  void skipBareWord() {
    while (!iText.empty() && iText.front() != ',' && iText.front() != ' ') iText.remove_prefix(1);
  }

 private:
  std::string_view iText;
};

std::string hashText(const EVP_MD* hash, std::string_view text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest.data(), &length, hash, nullptr) != 1) return {};
  return hexadecimalText({digest.data(), length});
}

// Without the "-sess". Null for what is not known.
const EVP_MD* hashOfAlgorithm(std::string_view algorithm) {
  std::string name = lowercasedASCII(algorithm);
  if (name.ends_with("-sess")) name.resize(name.size() - 5);
  if (name.empty() || name == "md5") return EVP_md5();
  return name == "sha-256" ? EVP_sha256() : nullptr;
}

// A value between quotes.
std::string escaped(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result;
}

bool offersAuth(std::string_view qualities) {
  while (!qualities.empty()) {
    const size_t end = std::min(qualities.find(','), qualities.size());
    std::string_view word = qualities.substr(0, end);
    qualities.remove_prefix(std::min(end + 1, qualities.size()));
    while (!word.empty() && word.front() == ' ') word.remove_prefix(1);
    while (!word.empty() && word.back() == ' ') word.remove_suffix(1);
    if (lowercasedASCII(word) == "auth") return true;
  }
  return false;
}

std::string parameter(const HTTPChallenge& challenge, std::string_view name) {
  const auto found = challenge.parameters.find(name);
  return found == challenge.parameters.end() ? std::string() : found->second;
}

// What stands in quotes goes out as it came in: nothing may end the line.
bool hasControl(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; });
}

std::string randomNonce() {
  std::array<unsigned char, 16> bytes{};
  // Without randomness the nonce protects less, but the login is still good.
  RAND_bytes(bytes.data(), static_cast<int>(bytes.size()));
  return hexadecimalText(bytes);
}

// SHA-256 first, then MD5; what cannot be answered last.
int rankOf(const HTTPChallenge& challenge) {
  if (challenge.scheme == "basic") return 1;
  if (challenge.scheme != "digest") return 0;
  const EVP_MD* hash = hashOfAlgorithm(parameter(challenge, "algorithm"));
  const std::string qualities = parameter(challenge, "qop");
  if (hash == nullptr || (!qualities.empty() && !offersAuth(qualities))) return 0;
  return hash == EVP_sha256() ? 3 : 2;
}

}  // namespace

std::vector<HTTPChallenge> parseHTTPChallenges(std::string_view value) {
  std::vector<HTTPChallenge> challenges;
  ChallengeReader reader(value);
  reader.skipSeparators();
  while (!reader.atEnd() && challenges.size() < kMostChallenges) {
    std::string name = lowercasedASCII(reader.token());
    if (name.empty()) break;
    const bool isParameter = !challenges.empty() && reader.takeEquals();
    if (!isParameter) {
      challenges.push_back({std::move(name), {}});
      reader.skipBlanks();
      ChallengeReader ahead = reader;
      const bool hasParameters = !ahead.token().empty() && ahead.takeEquals() && ahead.atValue();
      if (!hasParameters) reader.skipBareWord();
    } else {
      std::optional<std::string> text = reader.value();
      auto& parameters = challenges.back().parameters;
      if (!text || parameters.size() >= kMostParameters) break;
      parameters.emplace(std::move(name), *std::move(text));
    }
    reader.skipSeparators();
  }
  return challenges;
}

HTTPAuthenticator::HTTPAuthenticator(std::string user, std::string password)
    : iUser(std::move(user)), iPassword(std::move(password)) {}

HTTPAuthenticator::~HTTPAuthenticator() { OPENSSL_cleanse(iPassword.data(), iPassword.size()); }

bool HTTPAuthenticator::takeChallenges(const std::vector<std::string>& headerValues) {
  std::optional<HTTPChallenge> best;
  for (const std::string& value : headerValues) {
    for (HTTPChallenge& challenge : parseHTTPChallenges(value)) {
      if (rankOf(challenge) > (best ? rankOf(*best) : 0)) best = std::move(challenge);
    }
  }
  if (!best) return false;
  if (best->scheme == "digest") return takeDigest(*best);
  // The password was sent already, or a digest of it was refused: it is not sent in the clear after that.
  if (iScheme != Scheme::kNone) return false;
  iScheme = Scheme::kBasic;
  return true;
}

bool HTTPAuthenticator::takeDigest(const HTTPChallenge& challenge) {
  const std::string nonce = parameter(challenge, "nonce");
  const std::string realm = parameter(challenge, "realm");
  const std::string opaque = parameter(challenge, "opaque");
  if (nonce.empty() || hasControl(nonce) || hasControl(realm) || hasControl(opaque)) return false;
  const bool isFirst = iScheme != Scheme::kDigest;
  const bool isStale = lowercasedASCII(parameter(challenge, "stale")) == "true";
  iScheme = Scheme::kDigest;
  iNonce = nonce;
  iRealm = realm;
  iOpaque = opaque;
  iAlgorithm = parameter(challenge, "algorithm");
  iHasAuth = offersAuth(parameter(challenge, "qop"));
  iCount = 0;
  return isFirst || isStale;
}

std::string HTTPAuthenticator::authorization(std::string_view method, std::string_view target) {
  if (iScheme == Scheme::kNone) return {};
  if (iScheme == Scheme::kBasic) return "Basic " + base64Text(iUser + ":" + iPassword);
  return digest(method, target);
}

std::string HTTPAuthenticator::digest(std::string_view method, std::string_view target) {
  const EVP_MD* hash = hashOfAlgorithm(iAlgorithm);
  const std::string clientNonce = iFixedClientNonce.empty() ? randomNonce() : iFixedClientNonce;
  const std::string count = fmt::format("{:08x}", ++iCount);
  std::string secret = hashText(hash, fmt::format("{}:{}:{}", iUser, iRealm, iPassword));
  if (lowercasedASCII(iAlgorithm).ends_with("-sess"))
    secret = hashText(hash, fmt::format("{}:{}:{}", secret, iNonce, clientNonce));
  const std::string request = hashText(hash, fmt::format("{}:{}", method, target));
  const std::string middle = iHasAuth ? fmt::format("{}:{}:{}:auth", iNonce, count, clientNonce) : iNonce;
  const std::string response = hashText(hash, fmt::format("{}:{}:{}", secret, middle, request));
  std::string text =
      fmt::format("Digest username=\"{}\", realm=\"{}\", nonce=\"{}\", uri=\"{}\", response=\"{}\"",
                  escaped(iUser), escaped(iRealm), escaped(iNonce), target, response);
  if (!iAlgorithm.empty()) text += ", algorithm=" + iAlgorithm;
  if (!iOpaque.empty()) text += fmt::format(", opaque=\"{}\"", escaped(iOpaque));
  if (iHasAuth) text += fmt::format(", qop=auth, nc={}, cnonce=\"{}\"", count, clientNonce);
  return text;
}

}  // namespace ombra
