// A WebDAV session and a server that is scripted by the test.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "remote/QuarnKitError.h"
#include "remote/webdav/WebDAVSession.h"
#include "tests/support/HTTPServer.h"
#include "tests/support/SessionDoubles.h"
#include "tests/support/TemporaryFile.h"

namespace ombra {

// One item in an answer 207; a folder's path ends in a slash.
std::string davItem(const std::string& href, uint64_t size = 0);
HTTPReply davAnswer(const std::vector<std::string>& items);

class WebDAVSessionTest : public testing::Test {
 protected:
  // Starts a server, and a session that has not said anything yet.
  void serve(HTTPServer::Script script);
  // For a further session with it.
  SessionEnvironment environment() const;
  int64_t code() const { return error != nullptr ? error->code() : 0; }
  // The requests so far, the names of uploads as "TEMP".
  std::vector<std::string> lines() const;
  bool download(const std::string& path, uint64_t offset = 0);
  bool upload(const std::string& path, const std::string& content);
  // A stream of the content in pieces.
  bool stream(const std::string& path, const std::string& content);

  std::unique_ptr<HTTPServer> server;
  std::shared_ptr<KeptTranscript> transcript = std::make_shared<KeptTranscript>();
  std::shared_ptr<KCCredentials> credentials = std::make_shared<KCCredentials>();
  std::shared_ptr<WebDAVFacts> facts = std::make_shared<WebDAVFacts>();
  std::chrono::milliseconds idleLimit{20000};
  std::unique_ptr<WebDAVSession> session;
  std::unique_ptr<NSFileHandle> file = temporaryFile();
  std::string version;
  KeptControl control;
  NSErrorRef error;
};

}  // namespace ombra
