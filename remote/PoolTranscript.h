// The way of a session's transcript to the pool's delegate.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>

#include "platform/foundation/Mutex.h"
#include "remote/AbstractConnection.h"
#include "remote/Session.h"

namespace ombra {

// What all sessions of a pool share: who receives the transcript, and what must never be in it. Thread-safe.
class TranscriptSink {
 public:
  explicit TranscriptSink(const KCCredentials& credentials);
  ~TranscriptSink();
  TranscriptSink(const TranscriptSink&) = delete;
  TranscriptSink& operator=(const TranscriptSink&) = delete;

  // Not owned; null: nobody keeps a transcript.
  void setDelegate(TranscriptDelegate* delegate) { iDelegate.store(delegate); }
  bool isEnabled() const { return iDelegate.load() != nullptr; }
  // Engines mask what they send; a secret that comes back in a server's reply, or slips through, is masked
  // here. The delegate gets one line at a time, so that each of them tells its connection and direction.
  void append(const KCUUID& uuid, std::string_view text, bool isOutgoing);
  // What was appended is complete for now: the delegate may bring it to where it is read.
  void flush(const KCUUID& uuid);

 private:
  void addSecret(std::string_view secret);
  std::string masked(std::string_view text) const;

  // Not changed after the constructor. A list: none of them is ever moved, which would leave copies behind.
  std::list<std::string> iSecrets;
  std::atomic<TranscriptDelegate*> iDelegate{nullptr};
};

// One session's transcript, under the identifier of the connection that it is attached to.
class PoolTranscript final : public SessionTranscript {
 public:
  explicit PoolTranscript(std::shared_ptr<TranscriptSink> sink) : iSink(std::move(sink)) {}

  // Whose lines the next ones are.
  void setConnection(const KCUUID& uuid) EXCLUDES(iLock);
  bool isEnabled() const override { return iSink->isEnabled(); }
  void append(std::string_view text, bool isOutgoing) override EXCLUDES(iLock);
  void flush() EXCLUDES(iLock);

 private:
  const std::shared_ptr<TranscriptSink> iSink;
  Mutex iLock;
  KCUUID iUUID GUARDED_BY(iLock);
};

}  // namespace ombra
