// The documents that are sent to a server.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ombra {

// Parts 1, 2, 3 … of a multipart upload by their tags.
std::string s3CompleteDocument(const std::vector<std::string>& tags);
// Keys that are to be removed; the answer tells of failures alone.
std::string s3DeleteDocument(const std::vector<std::string>& keys);
// Whether a key can stand in a document at all: XML has no word for most control characters.
bool s3FitsDocument(std::string_view key);

}  // namespace ombra
