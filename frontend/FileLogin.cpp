// A folder of this machine: nobody has to be trusted or asked.
#include "frontend/MountCommon.h"
#include "frontend/ProtocolLogin.h"
#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

namespace {

class FileLogin final : public ProtocolLogin {
 public:
  explicit FileLogin(const LoginTools& tools) : ProtocolLogin(tools) {}

  bool prepare(Failure* /*failure*/) override {
    iTools.credentials.setUsername(currentUserName());
    const std::string& path = *iTools.url.path;
    std::optional<std::string>& name = iTools.options.volume.name;
    if (!name && path != "/") name = lastPathComponent(path);
    // Without writing in place what is written in order goes as a stream.
    if (iTools.options.streaming) iTools.credentials.setOption("inPlace", "0");
    return true;
  }
};

}  // namespace

std::unique_ptr<ProtocolLogin> makeFileLogin(const LoginTools& tools) {
  return std::make_unique<FileLogin>(tools);
}

}  // namespace ombra
