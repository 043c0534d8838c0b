#include "fshelper/SUFeedReader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileHandle.h"
#include "remote/URLEncoding.h"
#include "remote/http/HTTPClient.h"
#include "remote/http/HTTPURL.h"

namespace ombra {
namespace {

constexpr size_t kLongestFeed = size_t{1} << 20;
constexpr int kMostRedirects = 5;
constexpr std::string_view kFileScheme = "file://";

// Nobody keeps a transcript of a feed.
class NoTranscript final : public SessionTranscript {
 public:
  bool isEnabled() const override { return false; }
  void append(std::string_view, bool) override {}
};

class TimeLimit final : public TransferControl {
 public:
  explicit TimeLimit(std::chrono::milliseconds limit) : iEnd(std::chrono::steady_clock::now() + limit) {}
  void progress(uint64_t) override {}
  bool shouldCancel() const override { return std::chrono::steady_clock::now() >= iEnd; }

 private:
  const std::chrono::steady_clock::time_point iEnd;
};

// "file:///path", or with "localhost" before the path.
std::optional<std::string> readLocalFeed(std::string_view location, std::string* reason) {
  if (location.starts_with("localhost/")) location.remove_prefix(location.find('/'));
  const std::string path = percentDecoded(location);
  // One that waits for a writer must not make us wait.
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (descriptor < 0) {
    *reason = kc_strerror(errno);
    return std::nullopt;
  }
  const NSFileHandle file(descriptor);
  struct stat status {};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
    *reason = "it is no file";
    return std::nullopt;
  }
  std::string bytes(kLongestFeed + 1, '\0');
  const ssize_t count = file.readAt(bytes.data(), bytes.size(), 0);
  if (count < 0) *reason = kc_strerror(errno);
  if (count > static_cast<ssize_t>(kLongestFeed)) *reason = "it is longer than 1 MiB";
  if (count < 0 || count > static_cast<ssize_t>(kLongestFeed)) return std::nullopt;
  bytes.resize(static_cast<size_t>(count));
  return bytes;
}

bool isRedirect(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// Where the answer leads to; absent, with the reason, where we do not go.
std::optional<HTTPURL> followed(const HTTPURL& url, const HTTPResponse& response, std::string* reason) {
  const std::string* location = response.header("Location");
  const std::optional<HTTPURL> next = location == nullptr ? std::nullopt : url.resolve(*location);
  if (next && next->scheme == "https") return next;
  *reason = fmt::format("{} leads elsewhere, and not by https", url.origin());
  return std::nullopt;
}

}  // namespace

std::optional<std::string> SUFeedReader::read(const std::string& url, std::string* reason) {
  if (url.starts_with(kFileScheme))
    return readLocalFeed(std::string_view(url).substr(kFileScheme.size()), reason);
  if (url.starts_with("https://")) return readOverHTTPS(url, reason);
  *reason = "a feed is read over https alone";
  return std::nullopt;
}

std::optional<std::string> SUFeedReader::readOverHTTPS(const std::string& address, std::string* reason) {
  std::optional<HTTPURL> url = HTTPURL::parse(address);
  const std::shared_ptr<HTTPClient> client = makeClient();
  if (!url) *reason = "this is no URL";
  if (client == nullptr) *reason = "the program is about to end";
  if (!url || client == nullptr) return std::nullopt;
  TimeLimit limit(iLimits.whole);
  for (int redirects = 0; redirects <= kMostRedirects; ++redirects) {
    HTTPRequest request;
    request.method = "GET";
    request.url = url->text();
    request.longestBody = kLongestFeed;
    request.control = &limit;
    NSErrorRef error;
    std::optional<HTTPResponse> response = client->perform(request, &error);
    if (!response) {
      *reason = limit.shouldCancel() ? "the server takes too long" : error->localizedDescription();
      return std::nullopt;
    }
    if (response->status == 200) return std::move(response->body);
    if (!isRedirect(response->status)) {
      *reason = fmt::format("the server answers {}", response->status);
      return std::nullopt;
    }
    url = followed(*url, *response, reason);
    if (!url) return std::nullopt;
  }
  *reason = "the server leads in a circle";
  return std::nullopt;
}

// Null once interrupted.
std::shared_ptr<HTTPClient> SUFeedReader::makeClient() {
  SessionEnvironment environment;
  // Nobody logs in, and no certificate but a good one is accepted.
  environment.credentials = std::make_shared<const KCCredentials>();
  environment.transcript = std::make_shared<NoTranscript>();
  environment.isWorthyTrust = [](const std::string&) { return true; };
  environment.connectLimit = iLimits.connect;
  environment.idleLimit = iLimits.silence;
  auto client = std::make_shared<HTTPClient>(environment, HTTPAuthentication::none);
  const MutexLock lock(iLock);
  iClient = iInterrupted ? nullptr : std::move(client);
  return iClient;
}

void SUFeedReader::interrupt() {
  const MutexLock lock(iLock);
  iInterrupted = true;
  if (iClient != nullptr) iClient->interrupt();
}

}  // namespace ombra
