// A folder to try the program with, when no server is at hand.
#pragma once

#include <optional>
#include <string>

#include "frontend/Failure.h"

namespace ombra {

// Writes the sample (some texts, folders, a link) to `folder`, mode 0700, as far as it is missing; what is
// there already is left as it is. False with the failure filled.
bool writeSampleFolder(const std::string& folder, Failure* failure);

// The local program that speaks SFTP over a pipe; absent when none of the usual places has it.
std::optional<std::string> findSFTPServer();

}  // namespace ombra
