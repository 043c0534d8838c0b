// Small operations on texts and paths.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ombra {

// The text of an errno of the interface's own numbering (NSError.h), for the numbers that differ from this
// system's, else of the system's. Thread-safe.
std::string kc_strerror(int errorNumber);

// `text` n times in a row; n = 0 gives the empty text.
std::string ofs_times(std::string_view text, size_t n);

// Every character of `set` (ASCII) in `text` replaced by `with`.
std::string kc_stringByReplacingCharactersInSet(std::string_view text, std::string_view set,
                                                std::string_view withString);

// A text that is not in `array`: `text` itself when free, else "text 2", "text 3", … With a copy suffix:
// "text suffix", "text suffix 2", … Names are compared as file names are: canonically equal ones are equal.
std::string kc_stringUniqueToArray(std::string_view text, const std::vector<std::string>& array,
                                   std::optional<std::string_view> copySuffix);

// The components of a path: "/" first when it is absolute, then the names; empty ones are dropped.
// "/a//b/" gives "/", "a", "b".
std::vector<std::string> pathComponents(std::string_view path);
// The reverse; a leading "/" component makes it absolute.
std::string pathWithComponents(const std::vector<std::string>& components);
// `path` with `component` appended by exactly one "/"; leading slashes of the component are absorbed.
std::string stringByAppendingPathComponent(std::string_view path, std::string_view component);
// "/a/b" gives "/a", "/a" gives "/", "/" gives "/", "a" gives "".
std::string stringByDeletingLastPathComponent(std::string_view path);
// "/a/b" gives "b", "/" gives "/", "" gives "".
std::string lastPathComponent(std::string_view path);

// The longest run of leading components that both paths share, as a path; empty when they share none.
std::string kc_commonPathPrefix(std::string_view path, std::string_view other);
// The index of the first position where the two differ (the shorter length when one is a prefix of the
// other).
size_t kc_indexOfFirstMismatchedObjectInArray(const std::vector<std::string>& array,
                                              const std::vector<std::string>& other);
// True for a complete path: one that begins with "/".
bool kc_hasCompletePathPrefix(std::string_view path);

// Canonical decomposition (NFD) and composition (NFC). Bytes that are not valid UTF-8 are left as they are,
// so that no name is ever lost. ASCII is copied without a look at the tables.
std::string decomposedStringWithCanonicalMapping(std::string_view text);
std::string precomposedStringWithCanonicalMapping(std::string_view text);
// True when every byte is below 0x80. Fast: eight bytes at a time.
bool isASCII(std::string_view text);
// True when both have the same canonical decomposition; case matters. Compares bytes when both are ASCII.
bool canonicallyEqual(std::string_view text, std::string_view other);
// A hash such that canonically equal texts hash alike.
size_t canonicalHash(std::string_view text);
// True when `text` is well-formed UTF-8 (RFC 3629; no surrogates, no overlong forms).
bool isValidUTF8(std::string_view text);

}  // namespace ombra
