// A volume as the JSON object that programs are told.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "frontend/Volumes.h"

namespace ombra {

// The helper's own words, completed by what the kernel shows.
nlohmann::json volumeObject(const Volume& volume);

// {"volumes": […]} on one line.
std::string volumesText(const std::vector<Volume>& volumes);

}  // namespace ombra
