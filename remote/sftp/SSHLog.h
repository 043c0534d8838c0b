// What libssh tells of a login, for the transcript.
#pragma once

#include "remote/Session.h"

namespace ombra {

// While it lives, what libssh logs on this thread becomes remarks in the session's transcript, where that is
// to be verbose; else it does nothing. libssh logs no secrets. On the stack.
class SSHLog {
 public:
  explicit SSHLog(const SessionEnvironment& environment);
  ~SSHLog();
  SSHLog(const SSHLog&) = delete;
  SSHLog& operator=(const SSHLog&) = delete;

 private:
  SessionTranscript* const iTranscript;  // null where nothing is told
  const int iLevel;                      // what held before
};

}  // namespace ombra
