#include "remote/VerboseTranscript.h"

#include "remote/TranscriptText.h"

namespace ombra {

bool isTranscriptVerbose(const SessionEnvironment& environment) {
  return environment.credentials->useVerboseLogging() && environment.transcript->isEnabled();
}

void appendRemark(SessionTranscript& transcript, std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
  // Nobody has sent it: it is told with what came.
  transcript.append("* " + visibleText(text) + "\n", false);
}

}  // namespace ombra
