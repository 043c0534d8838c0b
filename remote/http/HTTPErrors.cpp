#include "remote/http/HTTPErrors.h"

#include <string>

#include "remote/QuarnKitError.h"
#include "remote/http/HTTPTranscript.h"

namespace ombra {

namespace {

QuarnKitErrorCode codeOfCurl(CURLcode code, bool wasSent) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return kQuarnKitCouldNotResolveHost;
    case CURLE_COULDNT_CONNECT:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CIPHER:
      return kQuarnKitCouldNotConnect;
    case CURLE_OPERATION_TIMEDOUT:
      return wasSent ? kQuarnKitTimedOut : kQuarnKitCouldNotConnect;
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_URL_MALFORMAT:
    case CURLE_BAD_CONTENT_ENCODING:
    case CURLE_WRITE_ERROR:
    // libcurl's own bound for a line of the head.
    case CURLE_OUT_OF_MEMORY:
      return kQuarnKitProtocolError;
    case CURLE_FAILED_INIT:
      return kQuarnKitRefused;
    default:
      // What breaks off in the middle, in whatever way.
      return wasSent ? kQuarnKitConnectionLost : kQuarnKitCouldNotConnect;
  }
}

bool isFailureOfConnecting(QuarnKitErrorCode code) {
  return code == kQuarnKitCouldNotResolveHost || code == kQuarnKitCouldNotConnect;
}

}  // namespace

NSErrorRef httpErrorOfCurl(CURLcode code, std::string_view host, std::string_view words, bool wasSent,
                           bool hasAnswered) {
  QuarnKitErrorCode ours = codeOfCurl(code, wasSent);
  if (hasAnswered && isFailureOfConnecting(ours)) ours = kQuarnKitConnectionLost;
  std::string detail(host);
  detail.append(": ").append(words.empty() ? std::string(curl_easy_strerror(code)) : httpRemarkText(words));
  return QuarnKitError::errorWithCode(ours, detail);
}

}  // namespace ombra
