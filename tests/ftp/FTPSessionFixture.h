// A session of the engine with a server of this process.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "remote/QuarnKitError.h"
#include "remote/ftp/FTPEngine.h"
#include "tests/ftp/FakeFTPServer.h"
#include "tests/support/SessionDoubles.h"
#include "tests/support/TemporaryFile.h"

namespace ombra {

inline const std::vector<std::string> kModernFeatures{
    "UTF8", "MLST type*;size*;modify*;UNIX.mode*;", "MFMT", "REST STREAM", "SIZE", "MDTM", "EPSV"};

class FTPSessionTest : public testing::Test {
 protected:
  // An environment and an engine for that server. The limits are for tests that fail: none waits for them.
  void prepare(const std::shared_ptr<KCCredentials>& credentials) {
    registerFTPEngine();
    environment.credentials = credentials;
    environment.transcript = transcript;
    environment.connectLimit = std::chrono::seconds(20);
    environment.idleLimit = std::chrono::seconds(20);
    engine = EngineRegistry::engineForCredentials(*credentials);
  }
  // A session that has logged in; null, with `error` filled, when that failed.
  std::unique_ptr<Session> newSession() {
    if (engine == nullptr) prepare(server.credentials());
    std::unique_ptr<Session> made = engine->makeSession(environment);
    error = nullptr;
    if (!made->logIn(&error)) return nullptr;
    return made;
  }
  // The session of the test; the test ends when there is none.
  void logIn() {
    session = newSession();
    if (session == nullptr) throw KCException(error->description());
    // What the first transfer has to find out is known from here on.
    if (learns) {
      server.putFile("/learnt", "x");
      if (download("/learnt") != "x") throw KCException("the first download failed");
    }
    version.clear();
    control.reached.clear();
    server.takeRoundTrips();
  }
  std::optional<std::string> download(const std::string& path, uint64_t offset = 0) {
    const auto file = temporaryFile(std::string(static_cast<size_t>(offset), '\0'));
    error = nullptr;
    if (!session->download(path, *file, offset, &version, control, &error)) return std::nullopt;
    return contentOf(*file).substr(static_cast<size_t>(offset));
  }
  bool upload(const std::string& path, const std::string& content) {
    const auto file = temporaryFile(content);
    error = nullptr;
    return session->upload(*file, path, 0, control, &error);
  }
  std::vector<std::string> list(const std::string& path) {
    std::vector<RemoteEntry> entries;
    error = nullptr;
    std::vector<std::string> names;
    if (!session->list(path, &entries, &error)) return names;
    for (const RemoteEntry& entry : entries) names.push_back(entry.name);
    return names;
  }
  testing::AssertionResult failedWith(QuarnKitErrorCode code) const {
    if (QuarnKitError::isCode(error, code)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << (error ? error->description() : "no error");
  }
  // The commands that begin with `start`.
  std::vector<std::string> sent(const std::string& start) const {
    std::vector<std::string> found;
    for (const std::string& command : server.commands()) {
      if (command.starts_with(start)) found.push_back(command);
    }
    return found;
  }

  FakeFTPServer server;
  bool learns = true;
  std::shared_ptr<KeptTranscript> transcript = std::make_shared<KeptTranscript>();
  SessionEnvironment environment;
  std::shared_ptr<Engine> engine;
  std::unique_ptr<Session> session;
  KeptControl control;
  std::string version;
  NSErrorRef error;
};

}  // namespace ombra
