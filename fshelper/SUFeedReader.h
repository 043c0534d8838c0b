// How a feed is fetched.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/Mutex.h"

namespace ombra {

class HTTPClient;

// Reads a feed of at most 1 MiB over https, from a server that this machine's authorities vouch for, through
// at most five redirects which stay with https; or from a "file:" URL on this machine. Without https whoever
// stands in between could name versions, and pages to get them from.
class SUFeedReader {
 public:
  struct Limits {
    std::chrono::milliseconds connect{15000};
    std::chrono::milliseconds silence{30000};  // no byte in either direction
    std::chrono::milliseconds whole{60000};    // of all together, for a server that trickles
  };
  SUFeedReader() : SUFeedReader(Limits()) {}
  explicit SUFeedReader(Limits limits) : iLimits(limits) {}
  SUFeedReader(const SUFeedReader&) = delete;
  SUFeedReader& operator=(const SUFeedReader&) = delete;

  // The feed's bytes; absent, with the reason in words, when they cannot be had. Takes `whole` at most. One
  // thread at a time.
  std::optional<std::string> read(const std::string& url, std::string* reason) EXCLUDES(iLock);
  // Makes the running call, and every later one, fail soon. Any thread; does not wait.
  void interrupt() EXCLUDES(iLock);

 private:
  std::optional<std::string> readOverHTTPS(const std::string& url, std::string* reason);
  std::shared_ptr<HTTPClient> makeClient() EXCLUDES(iLock);

  const Limits iLimits;
  Mutex iLock;
  bool iInterrupted GUARDED_BY(iLock) = false;
  std::shared_ptr<HTTPClient> iClient GUARDED_BY(iLock);
};

}  // namespace ombra
