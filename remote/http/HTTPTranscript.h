// What the transcript shows of a conversation over HTTP.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// The lines of a request's or an answer's head as they went over the wire, without the empty line at the end.
// Values that give access are masked: of the headers "Authorization", "Proxy-Authorization",
// "Authentication-Info", "Proxy-Authentication-Info", "Cookie", "Set-Cookie" and "X-Amz-Security-Token", and
// signatures, credentials and tokens in a query wherever one stands. Control characters are made visible.
std::string httpTranscriptText(std::string_view head);
// What libcurl tells of a connection or of its failure, with the name and the password of a proxy masked: it
// cites the variable that names one as a whole.
std::string httpRemarkText(std::string_view text);

}  // namespace ombra
