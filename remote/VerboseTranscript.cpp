#include "remote/VerboseTranscript.h"

#include <string>

namespace ombra {

bool isTranscriptVerbose(const SessionEnvironment& environment) {
  return environment.credentials->useVerboseLogging() && environment.transcript->isEnabled();
}

void appendRemark(SessionTranscript& transcript, std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
  std::string line = "* ";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    line += byte < 0x20 || byte == 0x7f ? '?' : c;
  }
  // Nobody has sent it: it is told with what came.
  transcript.append(line + "\n", false);
}

}  // namespace ombra
