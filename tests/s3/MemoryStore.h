// An S3 server in memory that counts, and that misbehaves on request.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "remote/KCCredentials.h"
#include "remote/s3/S3Session.h"
#include "tests/support/HTTPServer.h"
#include "tests/support/SessionDoubles.h"

namespace ombra {

// Buckets by path style, listings in pages, ranges, parts, copies. Signatures are not checked (real servers
// do that in the contract), hashes of bodies are. Thread-safe.
class MemoryStore {
 public:
  struct Object {
    std::string content;
    std::string tag;
    std::map<std::string, std::string> headers;  // content-type and x-amz-meta-…
  };

  // With one bucket, "test".
  MemoryStore();

  std::shared_ptr<KCCredentials> credentials() const;
  HTTPServer& server() { return *iServer; }

  void put(const std::string& key, const std::string& content) EXCLUDES(iLock);
  std::optional<std::string> content(const std::string& key) const EXCLUDES(iLock);
  std::optional<Object> object(const std::string& key) const EXCLUDES(iLock);
  std::vector<std::string> keys() const EXCLUDES(iLock);
  void remove(const std::string& key) EXCLUDES(iLock);
  size_t unfinishedUploads() const EXCLUDES(iLock);
  // The longest page of a listing.
  void setPageSize(size_t size) { iPageSize = size; }

  // Looked at before each request; what it answers goes out instead.
  using Intercept = std::function<std::optional<HTTPReply>(const HTTPSeen& seen)>;
  void setIntercept(Intercept intercept) EXCLUDES(iLock);

  // What was asked since the last call: "PUT /test/key?uploads=".
  std::vector<std::string> asked() EXCLUDES(iLock);

  // What it does without the intercept; for intercepts that lose the answer.
  HTTPReply perform(const HTTPSeen& seen) EXCLUDES(iLock);

 private:
  struct Upload {
    std::string key;
    std::map<std::string, std::string> headers;
    std::map<int, std::string> parts;
  };
  struct Call;

  HTTPReply answer(const HTTPSeen& seen) EXCLUDES(iLock);
  HTTPReply answerBucket(const Call& call) REQUIRES(iLock);
  HTTPReply list(const Call& call) REQUIRES(iLock);
  HTTPReply removeMany(const Call& call) REQUIRES(iLock);
  HTTPReply answerUpload(const Call& call) REQUIRES(iLock);
  HTTPReply complete(const Call& call) REQUIRES(iLock);
  HTTPReply store(const Call& call) REQUIRES(iLock);
  HTTPReply give(const Call& call) REQUIRES(iLock);
  std::optional<std::string> copySource(const Call& call) const REQUIRES(iLock);
  static std::string newTag(const std::string& content);

  size_t iPageSize = 1000;
  mutable Mutex iLock;
  Intercept iIntercept GUARDED_BY(iLock);
  std::map<std::string, Object> iObjects GUARDED_BY(iLock);
  std::map<std::string, Upload> iUploads GUARDED_BY(iLock);
  int iUploadCount GUARDED_BY(iLock) = 0;
  size_t iAsked GUARDED_BY(iLock) = 0;
  std::unique_ptr<HTTPServer> iServer;
};

// A refusal as S3 servers write it.
HTTPReply s3RefusalReply(int status, const std::string& code, const std::string& message = {},
                         const std::string& headers = {});

// One session with a store of its own, logged in.
class MemorySession {
 public:
  explicit MemorySession(S3Limits limits = {}, std::function<void(KCCredentials&)> adjust = {});

  MemoryStore& store() { return iStore; }
  S3Session& session() { return *iSession; }
  KeptTranscript& transcript() { return *iTranscript; }
  // One more, of the same server.
  std::unique_ptr<S3Session> makeSession() const { return makeSession(iKnowledge); }
  // The first of another mount, which knows nothing of what these have seen.
  std::unique_ptr<S3Session> makeFirstSession() const { return makeSession(std::make_shared<S3Knowledge>()); }
  std::unique_ptr<S3Session> makeSession(std::shared_ptr<S3Knowledge> knowledge) const;

 private:
  MemoryStore iStore;
  const S3Limits iLimits;
  const std::shared_ptr<KeptTranscript> iTranscript = std::make_shared<KeptTranscript>();
  const std::shared_ptr<S3Knowledge> iKnowledge = std::make_shared<S3Knowledge>();
  std::shared_ptr<KCCredentials> iCredentials;
  std::unique_ptr<S3Session> iSession;
};

}  // namespace ombra
