// What the libraries below the engines tell of a connection, for users who want a fuller transcript.
#pragma once

#include <string_view>

#include "remote/Session.h"

namespace ombra {

// Whether the user wants it, and somebody keeps the transcript.
bool isTranscriptVerbose(const SessionEnvironment& environment);
// Appends a remark: a line that begins with "* ", without the line end that `text` may have. Control
// characters are made visible.
void appendRemark(SessionTranscript& transcript, std::string_view text);

}  // namespace ombra
