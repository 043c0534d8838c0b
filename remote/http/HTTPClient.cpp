#include "remote/http/HTTPClient.h"

#include <curl/curl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>

#include "platform/foundation/ASCII.h"
#include "remote/QuarnKitError.h"
#include "remote/VerboseTranscript.h"
#include "remote/http/HTTPAuthenticator.h"
#include "remote/http/HTTPErrors.h"
#include "remote/http/HTTPExchange.h"
#include "remote/http/HTTPLoginFacts.h"
#include "remote/http/HTTPURL.h"
#include "remote/net/LoopbackName.h"
#include "remote/tls/ServerTrust.h"

namespace ombra {

namespace {

// Larger ones are no faster, and each connection has both.
constexpr long kReceiveBuffer = 256 * 1024;
constexpr long kSendBuffer = 128 * 1024;
// As for the other engines' sockets: a network that is gone is noticed within half a minute.
constexpr long kKeepAliveIdleSeconds = 10;
constexpr long kKeepAliveIntervalSeconds = 5;
constexpr int kKeepAliveProbes = 4;
constexpr int kExpectationFailed = 417;
// In milliseconds: how often a pause looks at the cancel mark.
constexpr int64_t kPauseLook = 100;

CURLcode installTrust(CURL*, void* context, void* trust) {
  static_cast<ServerTrust*>(trust)->installInto(static_cast<ssl_ctx_st*>(context));
  return CURLE_OK;
}

// The one option of keeping alive that libcurl does not set.
int boundKeepAlive(void*, curl_socket_t socket, curlsocktype) {
  setsockopt(socket, IPPROTO_TCP, TCP_KEEPCNT, &kKeepAliveProbes, sizeof kKeepAliveProbes);
  return CURL_SOCKOPT_OK;
}

void prepareLibraryOnce() {
  static std::once_flag sOnce;
  std::call_once(sOnce, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

const std::string* HTTPResponse::header(std::string_view name) const {
  for (const HTTPHeader& header : headers) {
    if (equalIgnoringCase(header.name, name)) return &header.value;
  }
  return nullptr;
}

std::vector<std::string> HTTPResponse::allHeaders(std::string_view name) const {
  std::vector<std::string> values;
  for (const HTTPHeader& header : headers) {
    if (equalIgnoringCase(header.name, name)) values.push_back(header.value);
  }
  return values;
}

struct HTTPClient::State {
  State(const SessionEnvironment& surroundings, HTTPAuthentication wanted,
        std::shared_ptr<HTTPLoginFacts> shared)
      : environment(surroundings), facts(std::move(shared)) {
    if (facts == nullptr) facts = std::make_shared<HTTPLoginFacts>();
    prepareLibraryOnce();
    multi.reset(curl_multi_init());
    easy.reset(curl_easy_init());
    const KCCredentials& credentials = *environment.credentials;
    if (wanted == HTTPAuthentication::basicOrDigest && credentials.username()) {
      authenticator =
          std::make_unique<HTTPAuthenticator>(*credentials.username(), credentials.password().value_or(""));
    }
  }

  // One for each host, as long as the connections live whose handshakes it checks.
  ServerTrust& trustOf(const std::string& host) {
    std::unique_ptr<ServerTrust>& trust = trusts[host];
    if (trust == nullptr) trust = std::make_unique<ServerTrust>(environment, host);
    return *trust;
  }

  void setOptions(const HTTPURL& url);
  std::optional<HTTPResponse> exchange(const HTTPRequest& request, const HTTPURL& url, NSErrorRef* error);
  std::optional<HTTPResponse> authenticated(const HTTPRequest& request, const HTTPURL& url,
                                            NSErrorRef* error);
  bool askAhead(const HTTPRequest& request, const HTTPURL& url, NSErrorRef* error);
  bool takeChallenges(const HTTPResponse& refusal);
  NSErrorRef explain(const HTTPExchange& run, const HTTPURL& url);
  void noteFailure(const NSErrorRef& failure);

  const SessionEnvironment environment;
  std::atomic<bool> interrupted{false};
  std::map<std::string, std::unique_ptr<ServerTrust>> trusts;
  std::shared_ptr<HTTPLoginFacts> facts;             // never null
  std::unique_ptr<HTTPAuthenticator> authenticator;  // null when nobody logs in
  CurlMulti multi;
  CurlEasy easy;  // goes before the multi handle, the trusts after both
  std::vector<std::byte> pieces;
  bool hasAnswered = false;
  bool isBroken = false;
};

void HTTPClient::State::setOptions(const HTTPURL& url) {
  CURL* handle = easy.get();
  // Options alone: connections, names that were looked up and TLS sessions are kept.
  curl_easy_reset(handle);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(handle, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(handle, CURLOPT_USERAGENT, "ombra");
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 1L);
  curl_easy_setopt(handle, CURLOPT_BUFFERSIZE, kReceiveBuffer);
  curl_easy_setopt(handle, CURLOPT_UPLOAD_BUFFERSIZE, kSendBuffer);
  curl_easy_setopt(handle, CURLOPT_TCP_NODELAY, 1L);
  curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(handle, CURLOPT_TCP_KEEPIDLE, kKeepAliveIdleSeconds);
  curl_easy_setopt(handle, CURLOPT_TCP_KEEPINTVL, kKeepAliveIntervalSeconds);
  curl_easy_setopt(handle, CURLOPT_SOCKOPTFUNCTION, &boundKeepAlive);
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(environment.connectLimit.count()));
  // The resolver's thread is not waited for when a request ends early.
  curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);
  curl_easy_setopt(handle, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  if (isLoopbackName(url.host)) curl_easy_setopt(handle, CURLOPT_PROXY, "");
  if (url.scheme != "https") return;
  // The certificate is for ServerTrust to judge, in the handshake itself. libcurl's own look, at a list of
  // authorities that it would load for each connection, stays off.
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, &installTrust);
  curl_easy_setopt(handle, CURLOPT_SSL_CTX_DATA, &trustOf(url.host));
}

NSErrorRef HTTPClient::State::explain(const HTTPExchange& run, const HTTPURL& url) {
  if (run.failure() != nullptr) return run.failure();
  const auto trust = trusts.find(url.host);
  const bool isTLS =
      run.result() == CURLE_SSL_CONNECT_ERROR || run.result() == CURLE_PEER_FAILED_VERIFICATION;
  if (isTLS && trust != trusts.end() && trust->second->refusal() != nullptr) return trust->second->refusal();
  return httpErrorOfCurl(run.result(), url.host, run.words(), run.wasSent(), hasAnswered);
}

void HTTPClient::State::noteFailure(const NSErrorRef& failure) {
  if (QuarnKitError::isCode(failure, kQuarnKitConnectionLost) ||
      QuarnKitError::isCode(failure, kQuarnKitTimedOut))
    isBroken = true;
}

std::optional<HTTPResponse> HTTPClient::State::exchange(const HTTPRequest& request, const HTTPURL& url,
                                                        NSErrorRef* error) {
  pieces.clear();
  setOptions(url);
  HTTPExchange run(request, {easy.get(), multi.get(), interrupted, *environment.transcript,
                             isTranscriptVerbose(environment), environment.idleLimit, pieces});
  run.prepare(authenticator ? authenticator->authorization(request.method, url.path + url.query) : "");
  if (run.run()) {
    hasAnswered = true;
    // A server that does not know what it is to agree to.
    const bool isMisunderstood =
        request.asksLeave && run.response().status == kExpectationFailed && !run.hasAskedSource();
    if (!isMisunderstood) return std::move(run.response());
    HTTPRequest plain = request;
    plain.asksLeave = false;
    return exchange(plain, url, error);
  }
  const NSErrorRef failure = explain(run, url);
  noteFailure(failure);
  storeError(error, failure);
  return std::nullopt;
}

// A body that cannot be sent twice is not sent before the server has had its chance to ask for a newer nonce.
bool HTTPClient::State::askAhead(const HTTPRequest& request, const HTTPURL& url, NSErrorRef* error) {
  HTTPRequest question;
  question.method = "OPTIONS";
  question.url = request.url;
  question.control = request.control;
  const std::optional<HTTPResponse> answer = exchange(question, url, error);
  if (!answer) return false;
  if (answer->status == 401) takeChallenges(*answer);
  return true;
}

bool HTTPClient::State::takeChallenges(const HTTPResponse& refusal) {
  const bool wasBasic = authenticator->isBasic();
  const bool hasAChance = authenticator->takeChallenges(refusal.allHeaders("WWW-Authenticate"));
  if (!authenticator->isBasic() && authenticator->hasBegun()) {
    facts->offeredDigest();
  } else if (wasBasic) {
    facts->refusedPassword();
  }
  return hasAChance;
}

std::optional<HTTPResponse> HTTPClient::State::authenticated(const HTTPRequest& request, const HTTPURL& url,
                                                             NSErrorRef* error) {
  const bool hasSource = request.body && request.body->source;
  const bool isOnce = hasSource && !request.body->rewind;
  if (isOnce && authenticator && authenticator->mayBeChallengedAgain() && !askAhead(request, url, error))
    return std::nullopt;
  if (authenticator && !authenticator->hasBegun() && facts->mayBeginWithPassword(url.origin()))
    authenticator->beginWithBasic();
  std::optional<HTTPResponse> answer = exchange(request, url, error);
  if (!answer || answer->status != 401 || !authenticator) return answer;
  if (!takeChallenges(*answer)) return answer;
  if (hasSource && (isOnce || !request.body->rewind())) return answer;
  answer = exchange(request, url, error);
  if (answer && answer->status != 401 && authenticator->isBasic()) facts->tookPassword(url.origin());
  return answer;
}

HTTPClient::HTTPClient(const SessionEnvironment& environment, HTTPAuthentication authentication,
                       std::shared_ptr<HTTPLoginFacts> facts)
    : iState(std::make_unique<State>(environment, authentication, std::move(facts))) {}

HTTPClient::~HTTPClient() = default;

std::optional<HTTPResponse> HTTPClient::perform(const HTTPRequest& request, NSErrorRef* error) {
  const std::optional<HTTPURL> url = HTTPURL::parse(request.url);
  if (!isAlive() || !url) {
    const auto code = url ? kQuarnKitConnectionLost : kQuarnKitProtocolError;
    storeError(error, QuarnKitError::errorWithCode(code, url ? "this session has ended" : request.url));
    return std::nullopt;
  }
  return iState->authenticated(request, *url, error);
}

bool HTTPClient::isAlive() { return !iState->isBroken && !iState->interrupted.load(); }

bool HTTPClient::pause(std::chrono::milliseconds duration, TransferControl* control, NSErrorRef* error) {
  const auto end = std::chrono::steady_clock::now() + duration;
  while (isAlive()) {
    if (control != nullptr && control->shouldCancel()) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitCancelled));
      return false;
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
    if (left <= 0) return true;
    // Woken by an interrupt.
    curl_multi_poll(iState->multi.get(), nullptr, 0, static_cast<int>(std::min<int64_t>(left, kPauseLook)),
                    nullptr);
  }
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "this session has ended"));
  return false;
}

void HTTPClient::interrupt() {
  iState->interrupted.store(true);
  curl_multi_wakeup(iState->multi.get());
}

}  // namespace ombra
