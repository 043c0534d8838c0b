// A client and a server that is scripted by the test.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "remote/QuarnKitError.h"
#include "remote/http/HTTPClient.h"
#include "remote/http/HTTPLoginFacts.h"
#include "tests/support/HTTPServer.h"
#include "tests/support/SessionDoubles.h"

namespace ombra {

class HTTPClientTest : public testing::Test {
 protected:
  static constexpr const char* kPassword = "the-password";

  // Starts a server; a client is made with the first request.
  void serve(HTTPServer::Script script) { server = std::make_unique<HTTPServer>(std::move(script)); }
  HTTPClient& client();
  void renewClient() { iClient.reset(); }
  // A request for a path of the server.
  HTTPRequest request(const std::string& method, const std::string& target = "/") const;
  // The status of the answer; 0 when there is none, `error` telling why.
  int statusOf(const HTTPRequest& request);
  int64_t code() const { return error != nullptr ? error->code() : 0; }
  // A body of a length that may be told, given piece by piece.
  static HTTPBody pieces(std::string content, bool tellsLength, bool canRewind);

  std::unique_ptr<HTTPServer> server;
  std::shared_ptr<KeptTranscript> transcript = std::make_shared<KeptTranscript>();
  std::shared_ptr<KCCredentials> credentials = std::make_shared<KCCredentials>();
  std::shared_ptr<HTTPLoginFacts> facts;  // null: of each client alone
  std::chrono::milliseconds idleLimit{20000};
  HTTPAuthentication authentication = HTTPAuthentication::none;
  KeptControl control;
  NSErrorRef error;
  HTTPResponse response;

 private:
  std::unique_ptr<HTTPClient> iClient;
};

}  // namespace ombra
