// The part of mounting that does not depend on where the folder is.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "frontend/Commands.h"
#include "frontend/Interruption.h"
#include "frontend/MountVolume.h"
#include "frontend/Output.h"
#include "remote/KCCredentials.h"

namespace ombra {

// Checks the names and makes the icon's path absolute. False with the failure filled.
bool checkVolumeOptions(VolumeOptions* options, Failure* failure);

// Makes sure that this machine can mount: helper, "/Volumes", message bus. The helper's path, or absent with
// the failure filled.
std::optional<std::string> prepareMachine(Failure* failure);

// Called after a failed attempt: may change the credentials and ask for another one by answering true, or
// replace the failure.
using MountRetry = std::function<bool(MountResult* result)>;

// What the one who mounts wants to do in between; either may be empty.
struct MountEvents {
  MountRetry retry;
  std::function<void()> loggedIn;  // the server took the credentials
};

// Mounts (again while `retry` says so), tells the result, and with the foreground option stays until the
// volume is gone. Answers the exit code.
int mountAndTell(const std::shared_ptr<KCCredentials>& credentials, const VolumeOptions& options,
                 const std::string& helper, Interruption& interruption, const Output& output,
                 const MountEvents& events);

// The name of the user of this process; its number when it has none.
std::string currentUserName();

}  // namespace ombra
