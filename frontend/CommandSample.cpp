#include "frontend/Commands.h"
#include "frontend/MountCommon.h"
#include "frontend/SampleFolder.h"
#include "platform/foundation/NSFileManager.h"
#include "remote/KCTypes.h"

namespace ombra {

namespace {

std::shared_ptr<KCCredentials> sampleCredentials(const std::string& server, const std::string& folder) {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(kProtocolSFTP);
  credentials->setAddress("localhost");
  credentials->setUsername(currentUserName());
  credentials->setInitialPath(folder);
  credentials->setOption("sftpServer", server);
  credentials->setUUID(KCUUID::UUID());
  return credentials;
}

}  // namespace

int runSample(const VolumeOptions& options, const Output& output) {
  VolumeOptions volume = options;
  if (!volume.name) volume.name = "Ombra Sample";
  Failure failure;
  if (!checkVolumeOptions(&volume, &failure)) return output.fail(failure);
  const auto server = findSFTPServer();
  if (!server) {
    return output.fail({kExitCannotMount, "The sample needs the program sftp-server.",
                        "It is in none of its usual places.", "Install the package openssh-sftp-server."});
  }
  const auto folder = NSFileManager::kc_applicationSupportSubFolder("sample");
  if (!folder) {
    return output.fail({kExitFailure, "There is no place for the sample.",
                        "The data folder of the user cannot be made.",
                        "Check $XDG_DATA_HOME (~/.local/share)."});
  }
  if (!writeSampleFolder(*folder, &failure)) return output.fail(failure);
  const auto helper = prepareMachine(&failure);
  if (!helper) return output.fail(failure);
  Interruption interruption;
  return mountAndTell(sampleCredentials(*server, *folder), volume, *helper, interruption, output, {});
}

}  // namespace ombra
