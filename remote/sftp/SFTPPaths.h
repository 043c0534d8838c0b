// Paths of a server, as text.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// Absolute, without ".", "..", doubled or trailing "/". A path without a leading "/" gets one. Text alone:
// links are not looked at.
std::string sftpNormalPath(std::string_view path);
// `path` when it is absolute, else below `base`; not normalised.
std::string sftpJoinPath(std::string_view base, std::string_view path);
// What comes before the last component: "/" for "/a".
std::string sftpParentPath(std::string_view path);

}  // namespace ombra
