// Where a link leads.
#include "fshelper/OFSNode.h"
#include "fshelper/OFSTracing.h"

namespace ombra {

namespace {

// Whether something is there. A success that tells of an error all the same counts as nothing.
bool itemExists(AbstractConnection& connection, const std::string& path) {
  NSErrorRef error;
  if (!connection.attributesOfItemAtPath(path, nullptr, &error)) return false;
  return error == nullptr || error->code() == 0;
}

}  // namespace

std::optional<std::string> ofs_resolvedPathForNode(AbstractConnection& connection,
                                                   const KCRemoteFileNode& node, bool* isDirectory,
                                                   bool* targetExists, NSErrorRef* error) {
  OFS_TRACE("-[AbstractConnection(OFSAdditions) ofs_resolvedPathForNode:isDirectory:targetExists:error:]",
            "{}", node.path());
  OFS_CONDITION(node.type() == kNodeTypeAlias, "node not an alias");
  std::string source = node.path();
  const std::optional<std::string> targetPath = node.targetPath();
  OFS_TRACE_MESSAGE("symlinkPath={} targetPath={}", source, ofs_describe(targetPath));

  // No bound on the passes: the library answers a circle with a failure.
  while (true) {
    std::string target;
    bool targetIsDirectory = false;
    NSErrorRef underlying;
    if (!connection.resolvePath(source, &target, &targetIsDirectory, &underlying)) {
      OFS_FAIL(error, kEIO, underlying);
      return std::nullopt;
    }
    if (isDirectory != nullptr) *isDirectory = targetIsDirectory;
    if (targetExists != nullptr) *targetExists = targetIsDirectory || itemExists(connection, target);
    if (target == source) return target;
    source = std::move(target);
  }
}

}  // namespace ombra
