// Paths of a server, as bytes.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// An absolute path with single slashes, without "." and without a slash at its end; a relative one counts
// from `base`. ".." stays: what it means behind a link only the server knows.
std::string absoluteRemotePath(std::string_view path, std::string_view base);
// `folder` and a name in it.
std::string remotePathInFolder(std::string_view folder, std::string_view name);
// Whether `path` is `folder` or lies below it; both in the form of absoluteRemotePath.
bool isAtOrBelowRemotePath(std::string_view path, std::string_view folder);
// Whether a listed name can be shown: not empty, no "/" or NUL, not "." or "..".
bool isShownName(std::string_view name);

}  // namespace ombra
