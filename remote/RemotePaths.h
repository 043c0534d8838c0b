// Paths of a server, as bytes.
#pragma once

#include <string>
#include <string_view>

namespace ombra {

// An absolute path with single slashes, without "." and without a slash at its end; a relative one counts
// from `base`. ".." stays: what it means behind a link only the server knows.
std::string absoluteRemotePath(std::string_view path, std::string_view base);
// As absoluteRemotePath from "/", with ".." taken away as text: links are not looked at.
std::string normalRemotePath(std::string_view path);
// What comes before the last component: "/" for what lies there, and for "/" itself.
std::string parentOfRemotePath(std::string_view path);
// The last component.
std::string_view nameOfRemotePath(std::string_view path);
// `folder` and a name in it, or a longer way from there.
std::string remotePathInFolder(std::string_view folder, std::string_view name);
// Whether `path` is `folder` or lies below it; both in the form of absoluteRemotePath.
bool isAtOrBelowRemotePath(std::string_view path, std::string_view folder);
// Whether a listed name can be shown: not empty, no "/" or NUL, not "." or "..".
bool isShownName(std::string_view name);

}  // namespace ombra
