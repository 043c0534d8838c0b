#include "remote/sftp/SSHLog.h"

#include <libssh/callbacks.h>
#include <libssh/libssh.h>

#include "platform/foundation/NSLog.h"
#include "remote/VerboseTranscript.h"

namespace ombra {
namespace {

// Which methods were agreed on and tried, without each packet's bytes.
constexpr int kVerboseLevel = SSH_LOG_INFO;

// libssh cannot be made to forget a function again: outside of a login, what the user's own level lets
// through goes to the log.
void take(int, const char*, const char* line, void* transcript) {
  if (transcript != nullptr) {
    appendRemark(*static_cast<SessionTranscript*>(transcript), line);
  } else {
    NSLog("{}", line);
  }
}

}  // namespace

// The level, the function and its argument are libssh's own per thread.
SSHLog::SSHLog(const SessionEnvironment& environment)
    : iTranscript(isTranscriptVerbose(environment) ? environment.transcript.get() : nullptr),
      iLevel(ssh_get_log_level()) {
  if (iTranscript == nullptr) return;
  ssh_set_log_userdata(iTranscript);
  ssh_set_log_callback(take);
  ssh_set_log_level(kVerboseLevel);
}

SSHLog::~SSHLog() {
  if (iTranscript == nullptr) return;
  ssh_set_log_level(iLevel);
  ssh_set_log_userdata(nullptr);
}

}  // namespace ombra
