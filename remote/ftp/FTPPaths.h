// Paths of an FTP server, and the names that this engine gives to files on their way.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// Absolute, single slashes, without ".", ".." and a slash at its end.
std::string ftpNormalPath(std::string_view path);
// The folder of an absolute path; "/" for what lies there, and for itself.
std::string ftpParentPath(std::string_view path);
// The last component.
std::string_view ftpName(std::string_view path);

// A fresh name beside `path` for its new content until that is whole. Never listed.
std::string temporaryPathBeside(std::string_view path);
bool isTemporaryFTPName(std::string_view name);

}  // namespace ombra
