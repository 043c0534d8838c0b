#include "remote/KnownLinks.h"

namespace ombra {

void KnownLinks::add(const std::string& linkPath, const LinkResolution& resolution) {
  iLinks[linkPath] = resolution;
  if (!resolution.resolved || !resolution.isFinal) return;
  // The end of the way leads to itself.
  iLinks.try_emplace(resolution.resolvedPath, resolution);
  if (resolution.exists && !resolution.attributes) return;
  iTargets.try_emplace(
      resolution.resolvedPath,
      Target{resolution.exists ? resolution.attributes : std::nullopt, resolution.isDirectory});
}

void KnownLinks::clear() {
  iLinks.clear();
  iTargets.clear();
}

std::optional<LinkResolution> KnownLinks::resolution(std::string_view path) const {
  const auto found = iLinks.find(path);
  if (found == iLinks.end()) return std::nullopt;
  return found->second;
}

std::optional<KnownLinks::Target> KnownLinks::target(std::string_view path) const {
  const auto found = iTargets.find(path);
  if (found == iTargets.end()) return std::nullopt;
  return found->second;
}

}  // namespace ombra
