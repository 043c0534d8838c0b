#include "remote/http/HTTPExchange.h"

#include <algorithm>
#include <charconv>

#include "platform/foundation/ASCII.h"
#include "remote/ByteCount.h"
#include "remote/QuarnKitError.h"
#include "remote/VerboseTranscript.h"
#include "remote/http/HTTPText.h"
#include "remote/http/HTTPTranscript.h"

namespace ombra {

namespace {

using std::chrono::milliseconds;

// Cancellation is looked at so often.
constexpr milliseconds kLook{100};
// What reaches the taker in one piece at full speed. More would keep who waits for the first bytes waiting.
constexpr size_t kPiece = 512 * 1024;
// An answer's head that is longer is no answer.
constexpr size_t kLongestHead = 256 * 1024;
constexpr size_t kMostHeaders = 1000;
// Of an error document: so much is kept, and so much more is read so that the connection can be kept.
constexpr size_t kLongestRefusal = 64 * 1024;
constexpr size_t kLongestDiscarded = 1024 * 1024;

void appendLine(CurlList& list, const std::string& line) {
  curl_slist* longer = curl_slist_append(list.get(), line.c_str());
  if (longer == nullptr) return;
  (void)list.release();
  list.reset(longer);
}

bool isSafeMethod(std::string_view method) {
  return method == "GET" || method == "HEAD" || method == "OPTIONS" || method == "PROPFIND";
}

}  // namespace

HTTPExchange::HTTPExchange(const HTTPRequest& request, Surroundings surroundings)
    : iRequest(request), iSurroundings(surroundings) {}

void HTTPExchange::prepare(const std::string& authorization) {
  CURL* easy = iSurroundings.easy;
  curl_easy_setopt(easy, CURLOPT_URL, iRequest.url.c_str());
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, iWords.data());
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &HTTPExchange::takeHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &HTTPExchange::takeBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &HTTPExchange::aboutToSend);
  curl_easy_setopt(easy, CURLOPT_PREREQDATA, this);
  if (iSurroundings.transcript.isEnabled()) {
    curl_easy_setopt(easy, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(easy, CURLOPT_DEBUGFUNCTION, &HTTPExchange::trace);
    curl_easy_setopt(easy, CURLOPT_DEBUGDATA, this);
  }
  prepareBody();
  prepareHeaders(authorization);
}

void HTTPExchange::prepareBody() {
  CURL* easy = iSurroundings.easy;
  if (iRequest.method == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    return;
  }
  if (iRequest.body && iRequest.body->source) {
    curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, &HTTPExchange::giveBody);
    curl_easy_setopt(easy, CURLOPT_READDATA, this);
    curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, &HTTPExchange::seekBody);
    curl_easy_setopt(easy, CURLOPT_SEEKDATA, this);
    const curl_off_t length = iRequest.body->length ? static_cast<curl_off_t>(*iRequest.body->length) : -1;
    curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE, length);
  } else if (iRequest.body) {
    // As a form would be sent, whatever the method: head and body then leave in one packet when they are
    // small.
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(iRequest.body->bytes.size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, iRequest.body->bytes.data());
  } else {
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  }
  curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, iRequest.method.c_str());
}

void HTTPExchange::prepareHeaders(const std::string& authorization) {
  bool hasType = false;
  for (const HTTPHeader& header : iRequest.headers) {
    hasType = hasType || header.name == "Content-Type";
    // libcurl takes "Name:" as the wish to leave a header out, and "Name;" as one without a value.
    appendLine(iHeaders, header.value.empty() ? header.name + ";" : header.name + ": " + header.value);
  }
  // Mostly nobody waits for "100 Continue": what may be refused is asked for without a body first.
  appendLine(iHeaders, iRequest.asksLeave ? "Expect: 100-continue" : "Expect:");
  if (iRequest.body && !hasType) appendLine(iHeaders, "Content-Type:");
  if (!authorization.empty()) appendLine(iHeaders, "Authorization: " + authorization);
  curl_easy_setopt(iSurroundings.easy, CURLOPT_HTTPHEADER, iHeaders.get());
}

bool HTTPExchange::run() {
  CURLM* multi = iSurroundings.multi;
  if (curl_multi_add_handle(multi, iSurroundings.easy) != CURLM_OK) {
    fail(kQuarnKitRefused, "the transfer could not be started");
    return false;
  }
  std::optional<CURLcode> result;
  iLastMove = iLastLook = SteadyClock::now();
  while (!result && !stopIfAsked()) {
    int running = 0;
    const uint64_t before = iMoved;
    curl_multi_perform(multi, &running);
    result = finishedResult();
    if (result || iMoved != before) continue;
    // Nothing came: what lies in the buffer is all there is for now, and somebody may wait for it.
    if (!flushPieces() || !watchClock()) break;
    curl_multi_poll(multi, nullptr, 0, static_cast<int>(longestWait().count()), nullptr);
  }
  if (result) iResult = *result;
  // Also before a lost connection: what has arrived need not come again.
  if (result) flushPieces();
  curl_multi_remove_handle(multi, iSurroundings.easy);
  return result && (*result == CURLE_OK || iEndsEarly) && iFailure == nullptr;
}

std::optional<CURLcode> HTTPExchange::finishedResult() const {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(iSurroundings.multi, &left)) {
    if (message->msg == CURLMSG_DONE) return message->data.result;
  }
  return std::nullopt;
}

bool HTTPExchange::stopIfAsked() {
  if (iSurroundings.interrupted.load()) {
    fail(kQuarnKitConnectionLost, "the session was interrupted");
    return true;
  }
  const auto now = SteadyClock::now();
  if (iRequest.control == nullptr || now - iLastLook < kLook) return false;
  iLastLook = now;
  if (!iRequest.control->shouldCancel()) return false;
  fail(kQuarnKitCancelled, {});
  return true;
}

// False when nothing has moved for too long. Before anything was sent libcurl's own limit for connecting
// holds.
bool HTTPExchange::watchClock() {
  curl_off_t sent = 0;
  curl_easy_getinfo(iSurroundings.easy, CURLINFO_SIZE_UPLOAD_T, &sent);
  const auto now = SteadyClock::now();
  if (static_cast<uint64_t>(sent) != iSent || iAttempts == 0) {
    iSent = static_cast<uint64_t>(sent);
    iLastMove = now;
  }
  if (now - iLastMove < iRequest.patience.value_or(iSurroundings.idleLimit)) return true;
  fail(kQuarnKitTimedOut, iRequest.method);
  return false;
}

milliseconds HTTPExchange::longestWait() const {
  const auto limit = iRequest.patience.value_or(iSurroundings.idleLimit);
  const auto left = std::chrono::duration_cast<milliseconds>(iLastMove + limit - SteadyClock::now());
  const milliseconds longest = iRequest.control != nullptr ? kLook : milliseconds(1000);
  return std::clamp(left + milliseconds(1), milliseconds(1), longest);
}

int HTTPExchange::aboutToSend(void* self, char*, char*, int, int) {
  auto* exchange = static_cast<HTTPExchange*>(self);
  exchange->iLastMove = SteadyClock::now();
  // libcurl sends a request again when the kept connection turns out to be dead. It may have arrived all the
  // same: what must not happen twice is not sent twice.
  if (++exchange->iAttempts == 1 || exchange->mayRepeat()) return CURL_PREREQFUNC_OK;
  exchange->fail(kQuarnKitConnectionLost, "the server closed the connection before it answered");
  return CURL_PREREQFUNC_ABORT;
}

bool HTTPExchange::mayRepeat() const {
  if (isSafeMethod(iRequest.method)) return true;
  if (iRequest.method != "PUT" || !iRequest.body) return false;
  return !iRequest.body->source || iRequest.body->rewind || !iSourceWasAsked;
}

size_t HTTPExchange::takeHeader(char* bytes, size_t size, size_t count, void* self) {
  auto* exchange = static_cast<HTTPExchange*>(self);
  exchange->iMoved += size * count;
  exchange->iLastMove = SteadyClock::now();
  exchange->iHeaderBytes += size * count;
  if (exchange->iHeaderBytes > kLongestHead || exchange->iResponse.headers.size() > kMostHeaders) {
    exchange->fail(kQuarnKitProtocolError, "the answer's head is too long");
    return 0;
  }
  exchange->addHeaderLine({bytes, size * count});
  return exchange->iFailure == nullptr ? size * count : 0;
}

void HTTPExchange::addHeaderLine(std::string_view line) {
  // What follows the body of an answer in chunks is of no interest.
  if (iHeadIsDone && !line.starts_with("HTTP/")) return;
  if (line.starts_with("HTTP/")) return beginAnswer(line);
  if (line.starts_with(' ') || line.starts_with('\t')) {
    // An old way to go on in the next line.
    if (!iResponse.headers.empty()) iResponse.headers.back().value.append(" ").append(httpTrimmed(line));
    return;
  }
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) {
    iHeadIsDone = httpTrimmed(line).empty() && iResponse.status >= 200;
    return;
  }
  const HTTPHeader& header = iResponse.headers.emplace_back(HTTPHeader{
      std::string(httpTrimmed(line.substr(0, colon))), std::string(httpTrimmed(line.substr(colon + 1)))});
  // libcurl passes over a length that it cannot count: nobody would know then whether all has come.
  if (equalIgnoringCase(header.name, "Content-Length") && !byteCount(header.value))
    fail(kQuarnKitProtocolError, "the answer's length makes no sense");
}

void HTTPExchange::beginAnswer(std::string_view statusLine) {
  iResponse = HTTPResponse();
  iHeadIsDone = false;
  const size_t blank = std::min(statusLine.find(' '), statusLine.size() - 1);
  const std::string_view number = httpTrimmed(statusLine.substr(blank + 1));
  std::from_chars(number.data(), number.data() + number.size(), iResponse.status);
}

size_t HTTPExchange::takeBody(char* bytes, size_t size, size_t count, void* self) {
  auto* exchange = static_cast<HTTPExchange*>(self);
  exchange->iMoved += size * count;
  exchange->iLastMove = SteadyClock::now();
  const std::string_view piece(bytes, size * count);
  const bool passes = exchange->isGood() && exchange->iRequest.take;
  return (passes ? exchange->pass(piece) : exchange->collect(piece)) ? piece.size() : 0;
}

bool HTTPExchange::collect(std::string_view piece) {
  const size_t longest = isGood() ? iRequest.longestBody : std::min(iRequest.longestBody, kLongestRefusal);
  const size_t room = longest - std::min(longest, iResponse.body.size());
  iResponse.body.append(piece.substr(0, room));
  if (piece.size() <= room) return true;
  if (isGood()) {
    fail(kQuarnKitProtocolError, "the answer is too long");
    return false;
  }
  iCutBytes += piece.size() - room;
  iEndsEarly = iCutBytes > kLongestDiscarded;
  return !iEndsEarly;
}

// libcurl gives small pieces; a system call for each would cost more than bringing them together.
bool HTTPExchange::pass(std::string_view piece) {
  std::vector<std::byte>& buffer = iSurroundings.pieces;
  const auto* bytes = reinterpret_cast<const std::byte*>(piece.data());
  buffer.insert(buffer.end(), bytes, bytes + piece.size());
  return buffer.size() < kPiece || flushPieces();
}

bool HTTPExchange::flushPieces() {
  std::vector<std::byte>& buffer = iSurroundings.pieces;
  if (buffer.empty()) return true;
  const bool taken = iFailure == nullptr && iRequest.take(iResponse, buffer);
  buffer.clear();
  if (!taken && iFailure == nullptr) fail(kQuarnKitCancelled, {});
  return taken;
}

size_t HTTPExchange::giveBody(char* bytes, size_t size, size_t count, void* self) {
  auto* exchange = static_cast<HTTPExchange*>(self);
  const size_t given = exchange->fillFromSource(reinterpret_cast<std::byte*>(bytes), size * count);
  // The source may have waited for long: that was not the server's silence.
  exchange->iLastMove = SteadyClock::now();
  exchange->iMoved += given == CURL_READFUNC_ABORT ? 0 : given;
  return given;
}

size_t HTTPExchange::fillFromSource(std::byte* buffer, size_t capacity) {
  const HTTPBody& body = *iRequest.body;
  iSourceWasAsked = true;
  const size_t given = body.source(buffer, capacity);
  // A body that ends before its length would leave the server waiting for the rest.
  const bool endsShort = given == 0 && body.length && iBodyOffset < *body.length;
  if (given == kHTTPSourceFailed || given > capacity || endsShort) {
    fail(kQuarnKitCancelled, {});
    return CURL_READFUNC_ABORT;
  }
  iBodyOffset += given;
  return given;
}

int HTTPExchange::seekBody(void* self, curl_off_t offset, int origin) {
  auto* exchange = static_cast<HTTPExchange*>(self);
  const HTTPBody& body = *exchange->iRequest.body;
  if (offset != 0 || origin != SEEK_SET || !body.rewind || !body.rewind()) return CURL_SEEKFUNC_FAIL;
  exchange->iBodyOffset = 0;
  return CURL_SEEKFUNC_OK;
}

int HTTPExchange::trace(CURL*, curl_infotype kind, char* bytes, size_t length, void* self) {
  auto* exchange = static_cast<HTTPExchange*>(self);
  if (kind == CURLINFO_TEXT && exchange->iSurroundings.isVerbose)
    appendRemark(exchange->iSurroundings.transcript, httpRemarkText(std::string_view(bytes, length)));
  if (kind != CURLINFO_HEADER_OUT && kind != CURLINFO_HEADER_IN) return 0;
  std::string_view head(bytes, length);
  const bool isOutgoing = kind == CURLINFO_HEADER_OUT;
  // A small body leaves with its head, and is no part of what is shown.
  if (isOutgoing) head = head.substr(0, std::min(head.find("\r\n\r\n"), head.size()));
  const std::string text = httpTranscriptText(head);
  if (!text.empty()) exchange->iSurroundings.transcript.append(text, isOutgoing);
  return 0;
}

void HTTPExchange::fail(QuarnKitErrorCode code, std::string_view detail) {
  if (iFailure == nullptr) iFailure = QuarnKitError::errorWithCode(code, detail);
}

}  // namespace ombra
