#include "tests/http/ClientFixture.h"

#include <cstring>

namespace ombra {

HTTPClient& HTTPClientTest::client() {
  if (iClient == nullptr) {
    SessionEnvironment environment;
    environment.credentials = credentials;
    environment.transcript = transcript;
    environment.isWorthyTrust = [](const std::string&) { return true; };
    environment.idleLimit = idleLimit;
    iClient = std::make_unique<HTTPClient>(environment, authentication, facts);
  }
  return *iClient;
}

HTTPRequest HTTPClientTest::request(const std::string& method, const std::string& target) const {
  HTTPRequest result;
  result.method = method;
  result.url = server->url(target);
  return result;
}

int HTTPClientTest::statusOf(const HTTPRequest& request) {
  error = nullptr;
  std::optional<HTTPResponse> answer = client().perform(request, &error);
  if (!answer) return 0;
  response = *std::move(answer);
  return response.status;
}

HTTPBody HTTPClientTest::pieces(std::string content, bool tellsLength, bool canRewind) {
  struct Source {
    std::string content;
    size_t given = 0;
  };
  const auto source = std::make_shared<Source>();
  source->content = std::move(content);
  HTTPBody body;
  if (tellsLength) body.length = source->content.size();
  body.source = [source](std::byte* buffer, size_t capacity) {
    const size_t count = std::min(capacity, source->content.size() - source->given);
    std::memcpy(buffer, source->content.data() + source->given, count);
    source->given += count;
    return count;
  };
  if (canRewind) {
    body.rewind = [source] {
      source->given = 0;
      return true;
    };
  }
  return body;
}

}  // namespace ombra
