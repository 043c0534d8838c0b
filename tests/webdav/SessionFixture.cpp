#include "tests/webdav/SessionFixture.h"

#include <cstring>

namespace ombra {

std::string davItem(const std::string& href, uint64_t size) {
  const bool isFolder = href.ends_with('/');
  return "<D:response><D:href>" + href + "</D:href><D:propstat><D:prop><D:resourcetype>" +
         (isFolder ? "<D:collection/>" : "") + "</D:resourcetype><D:getcontentlength>" +
         std::to_string(size) +
         "</D:getcontentlength></D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>";
}

HTTPReply davAnswer(const std::vector<std::string>& items) {
  std::string text = R"(<?xml version="1.0"?><D:multistatus xmlns:D="DAV:">)";
  for (const std::string& item : items) text += item;
  return httpReply(207, text + "</D:multistatus>", "Content-Type: application/xml\r\n");
}

void WebDAVSessionTest::serve(HTTPServer::Script script) {
  session.reset();
  server = std::make_unique<HTTPServer>(std::move(script));
  credentials->setProtocol(kProtocolWebDAV);
  credentials->setAddress("127.0.0.1");
  credentials->setPort(server->port());
  session = std::make_unique<WebDAVSession>(environment(), facts);
}

SessionEnvironment WebDAVSessionTest::environment() const {
  SessionEnvironment environment;
  environment.credentials = credentials;
  environment.transcript = transcript;
  environment.isWorthyTrust = [](const std::string&) { return true; };
  environment.idleLimit = idleLimit;
  return environment;
}

std::vector<std::string> WebDAVSessionTest::lines() const {
  std::vector<std::string> result = server->lines();
  for (std::string& line : result) {
    const size_t name = line.find(".ombra-upload-");
    if (name != std::string::npos) line = line.substr(0, name) + "TEMP";
  }
  return result;
}

bool WebDAVSessionTest::download(const std::string& path, uint64_t offset) {
  error = nullptr;
  return session->download(path, *file, offset, &version, control, &error);
}

bool WebDAVSessionTest::upload(const std::string& path, const std::string& content) {
  error = nullptr;
  file = temporaryFile(content);
  return session->upload(*file, path, 0, control, &error);
}

bool WebDAVSessionTest::stream(const std::string& path, const std::string& content) {
  error = nullptr;
  size_t given = 0;
  const auto next = [&](std::byte* buffer, size_t capacity) {
    const size_t count = std::min({capacity, size_t{1000}, content.size() - given});
    std::memcpy(buffer, content.data() + given, count);
    given += count;
    return count;
  };
  return session->stream(next, path, control, &error);
}

}  // namespace ombra
