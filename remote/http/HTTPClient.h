// One HTTP connection with what all engines over HTTP share: limits, cancellation, trust, the transcript.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSError.h"
#include "remote/Session.h"

namespace ombra {

class HTTPLoginFacts;

struct HTTPHeader {
  std::string name;
  std::string value;
};

// What a body's source answers when it cannot go on: the connection is closed in the middle of the body, so
// that the server does not take what it has for the whole.
inline constexpr size_t kHTTPSourceFailed = SIZE_MAX;

// What is sent as a body: bytes that are there already, or a source that is asked piece by piece.
struct HTTPBody {
  std::string bytes;
  // Bytes into the buffer, capacity; 0 ends, kHTTPSourceFailed (or an end before `length`) ends the request
  // with kQuarnKitCancelled. May block. Called on the thread that performs the request.
  std::function<size_t(std::byte*, size_t)> source;
  // Of the source, in bytes. Absent: sent in chunks, without a length.
  std::optional<uint64_t> length;
  // Begins the source again, for a server that wants the request a second time (digest, redirect). Absent
  // where that cannot be: such a request then fails.
  std::function<bool()> rewind;
};

struct HTTPRequest {
  std::string method;  // "GET", "PROPFIND", …
  std::string url;     // absolute, percent-encoded
  std::vector<HTTPHeader> headers;
  std::optional<HTTPBody> body;
  // Takes the body of a 2xx answer piece by piece; false ends the request with kQuarnKitCancelled unless the
  // taker has an error of its own. Absent: the body is collected. The status and headers are known by then.
  std::function<bool(const struct HTTPResponse& head, std::span<const std::byte> piece)> take;
  // A collected body that would become longer is a protocol error; that of a refusal is cut instead.
  size_t longestBody = size_t{256} << 20;
  // How long neither side may send a byte; absent: the environment's idle limit. For what servers are long
  // silent about (a copy, a move).
  std::optional<std::chrono::milliseconds> patience;
  // The body is not begun before the server has agreed to take it, or has said nothing for a second: a
  // refusal then comes before anything is taken from the source.
  bool asksLeave = false;
  // Asked for cancellation at least every 100 ms; may be null. Progress is the caller's to tell.
  TransferControl* control = nullptr;
};

struct HTTPResponse {
  int status = 0;
  std::vector<HTTPHeader> headers;
  std::string body;
  // The first header of that name, compared without case; null when there is none.
  const std::string* header(std::string_view name) const;
  // All of that name, in their order.
  std::vector<std::string> allHeaders(std::string_view name) const;
};

enum class HTTPAuthentication : uint8_t { none, basicOrDigest };

// One easy handle of libcurl with its kept-alive connection. One thread at a time, except `interrupt`. Does
// not follow redirects and takes every status as an answer: what a status means is the engine's to say. TLS
// certificates go through ServerTrust. Each request and answer is a few lines of the transcript: the request
// line, headers and the status, without bodies; the values of "Authorization", "Proxy-Authorization",
// "Cookie", "Set-Cookie", "X-Amz-Security-Token" and of signatures in a query are masked.
class HTTPClient {
 public:
  // `facts`, which may be null, are shared by the connections of one login.
  HTTPClient(const SessionEnvironment& environment, HTTPAuthentication authentication,
             std::shared_ptr<HTTPLoginFacts> facts = nullptr);
  ~HTTPClient();
  HTTPClient(const HTTPClient&) = delete;
  HTTPClient& operator=(const HTTPClient&) = delete;

  // One exchange; two when the server first asks who it is. Absent with kQuarnKitConnectionLost,
  // kQuarnKitTimedOut, kQuarnKitCancelled, a failure of connecting (only before the first answer: later that
  // is a lost connection), of trust, or a protocol error; after the first two the connection is not used
  // again.
  std::optional<HTTPResponse> perform(const HTTPRequest& request, NSErrorRef* error);
  // False once a connection was lost or interrupted. One that the server has closed while it was idle is
  // replaced by the next request without further ado, which costs less than a new login: it counts as alive.
  bool isAlive();
  // Waits between two requests. False, with the error filled, when it was cancelled or interrupted meanwhile.
  // `control` may be null.
  bool pause(std::chrono::milliseconds duration, TransferControl* control, NSErrorRef* error);
  // Makes the running request, and every later one, fail soon with kQuarnKitConnectionLost. Any thread.
  void interrupt();

 private:
  struct State;
  std::unique_ptr<State> iState;
};

}  // namespace ombra
