#include "frontend/VolumeObject.h"

#include <nlohmann/json.hpp>

namespace ombra {

nlohmann::json volumeObject(const Volume& volume) {
  nlohmann::json object = nlohmann::json::parse(volume.statusJSON, nullptr, false);
  if (!object.is_object()) object = nlohmann::json::object();
  object["volumeName"] = volume.name;
  object["mountPath"] = volume.mountPath;
  object["protocol"] = volume.protocol;
  object["username"] = volume.username;
  object["address"] = volume.address;
  object["state"] = volume.state;
  object["mounted"] = volume.mounted;
  object["pid"] = volume.pid;
  return object;
}

std::string volumesText(const std::vector<Volume>& volumes) {
  nlohmann::json list = nlohmann::json::array();
  for (const Volume& volume : volumes) list.push_back(volumeObject(volume));
  return nlohmann::json{{"volumes", list}}.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace ombra
