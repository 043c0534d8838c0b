// One request and its answer on an easy handle of libcurl.
#pragma once

#include <curl/curl.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "remote/KCTypes.h"
#include "remote/http/HTTPClient.h"

namespace ombra {

struct CurlListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlList = std::unique_ptr<curl_slist, CurlListDeleter>;
struct CurlEasyDeleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using CurlEasy = std::unique_ptr<CURL, CurlEasyDeleter>;
struct CurlMultiDeleter {
  void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
};
using CurlMulti = std::unique_ptr<CURLM, CurlMultiDeleter>;

// The callbacks of one transfer, and what they gather. Lives on the stack of `HTTPClient::perform`.
class HTTPExchange {
 public:
  // What the client lends it.
  struct Surroundings {
    CURL* easy;
    CURLM* multi;
    const std::atomic<bool>& interrupted;
    SessionTranscript& transcript;
    bool isVerbose;  // the transcript tells of connections, certificates and the like too
    std::chrono::milliseconds idleLimit;
    std::vector<std::byte>& pieces;  // the buffer between libcurl and the taker, kept from request to request
  };
  HTTPExchange(const HTTPRequest& request, Surroundings surroundings);
  HTTPExchange(const HTTPExchange&) = delete;
  HTTPExchange& operator=(const HTTPExchange&) = delete;

  // Sets the options that differ from request to request; the client has set the others.
  void prepare(const std::string& authorization);
  // Runs to its end. True when there is a whole answer; else `failure`.
  bool run();

  HTTPResponse& response() { return iResponse; }
  const NSErrorRef& failure() const { return iFailure; }
  // Whether the request went out on a connection at all: then the server may have seen it.
  bool wasSent() const { return iAttempts > 0; }
  // Whether the body's source was asked for anything: what it gave cannot be had again.
  bool hasAskedSource() const { return iSourceWasAsked; }
  // Why the end came without an answer, for those who map libcurl's codes.
  CURLcode result() const { return iResult; }
  const char* words() const { return iWords.data(); }

 private:
  static size_t takeHeader(char* bytes, size_t size, size_t count, void* self);
  static size_t takeBody(char* bytes, size_t size, size_t count, void* self);
  static size_t giveBody(char* bytes, size_t size, size_t count, void* self);
  static int seekBody(void* self, curl_off_t offset, int origin);
  static int aboutToSend(void* self, char*, char*, int, int);
  static int trace(CURL*, curl_infotype kind, char* bytes, size_t length, void* self);

  void prepareBody();
  void prepareHeaders(const std::string& authorization);
  void addHeaderLine(std::string_view line);
  void beginAnswer(std::string_view statusLine);
  bool collect(std::string_view piece);
  bool pass(std::string_view piece);
  // Gives what lies in the buffer to the taker.
  bool flushPieces();
  size_t fillFromSource(std::byte* buffer, size_t capacity);
  bool mayRepeat() const;
  bool stopIfAsked();
  bool watchClock();
  std::optional<CURLcode> finishedResult() const;
  std::chrono::milliseconds longestWait() const;
  void fail(QuarnKitErrorCode code, std::string_view detail);
  bool isGood() const { return iResponse.status / 100 == 2; }

  using SteadyClock = std::chrono::steady_clock;

  const HTTPRequest& iRequest;
  const Surroundings iSurroundings;
  HTTPResponse iResponse;
  NSErrorRef iFailure;
  CURLcode iResult = CURLE_OK;
  CurlList iHeaders;
  std::array<char, CURL_ERROR_SIZE> iWords{};
  SteadyClock::time_point iLastMove = SteadyClock::now();
  SteadyClock::time_point iLastLook;
  uint64_t iMoved = 0;       // bytes in either direction, as far as known
  uint64_t iSent = 0;        // of the body, as libcurl knows it
  uint64_t iBodyOffset = 0;  // of the body, as far as the source gave it
  size_t iHeaderBytes = 0;
  size_t iCutBytes = 0;  // of a refusal's body, not kept
  int iAttempts = 0;
  bool iSourceWasAsked = false;
  bool iHeadIsDone = false;
  bool iEndsEarly = false;  // the answer is whole for our purposes, though more would come
};

}  // namespace ombra
