// What this machine must have before a volume can be mounted.
#pragma once

#include <string>

#include "frontend/Failure.h"

namespace ombra {

// Makes sure that `folder` ("/Volumes") is there and may be written: made with mode 1777 when missing and
// this is root. False with a failure that names the command to run.
bool ensureVolumesFolder(const std::string& folder, Failure* failure);

}  // namespace ombra
