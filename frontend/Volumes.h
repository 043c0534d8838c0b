// The volumes of this user: what the helpers tell, joined with what the kernel shows.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "frontend/Failure.h"
#include "frontend/HelperBus.h"
#include "frontend/HelperTraces.h"
#include "frontend/MountTable.h"

namespace ombra {

// The folder of all mount points: "/Volumes". Tests that play volumes set OMBRAFS_VOLUMES, so that they
// neither see nor touch those of this machine; helpers do not heed it.
std::string volumesFolder();

struct Volume {
  std::string name;
  std::string mountPath;  // empty while the helper has not mounted yet
  std::string protocol;
  std::string username;
  std::string address;
  std::string identifier;  // of a pass-through mount
  std::string registeredName;
  std::string state;       // "mounted", "mounting", …; "dead" = its helper is gone; "not answering"
  std::string statusJSON;  // the helper's own words; empty when it did not answer
  std::string busAddress;  // where its helper is found; empty when it is on no bus
  std::string busName;
  pid_t pid = 0;         // of the helper; 0 when unknown
  bool mounted = false;  // the kernel shows it
  bool own = true;       // false: another user's, which only root sees
  unsigned deviceMinor = 0;

  // "protocol user@address", or the identifier of a pass-through mount.
  std::string server() const;
};

struct HelperOnBus {
  std::string busAddress;
  HelperStatus status;
  HelperTraces traces;  // of one that does not answer
};

// Joins the two views by mount path, and a helper that does not answer by what the system shows of it; a
// volume that only one of them knows is told too.
std::vector<Volume> joinVolumes(const std::vector<HelperOnBus>& helpers,
                                const std::vector<MountedVolume>& mounts);

// All volumes of this user (of everybody when root) now. Looks at a mount without a helper for at most two
// seconds.
std::vector<Volume> currentVolumes();

// The volume that `target` means: a mount path (absolute or relative to `currentFolder`), or a volume's name,
// in any Unicode form. Null with the failure filled when there is none, or more than one of that name.
const Volume* findVolume(const std::vector<Volume>& volumes, const std::string& target,
                         const std::string& currentFolder, Failure* failure);

// `path` made absolute against `currentFolder` and freed of ".", ".." and double slashes, by text alone: the
// file system is not asked, since a dead volume would not answer.
std::string absolutePath(std::string_view path, std::string_view currentFolder);
std::string currentFolder();

// "mounted", "dead" when the helper behind a mount is gone, "not answering" when it does not answer in time.
std::string stateOfMount(const std::string& mountPath);

}  // namespace ombra
