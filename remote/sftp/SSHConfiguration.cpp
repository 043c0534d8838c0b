#include "remote/sftp/SSHConfiguration.h"

#include "remote/sftp/SSHClient.h"

namespace ombra {

namespace {

std::string optionText(ssh_session session, enum ssh_options_e option) {
  char* value = nullptr;
  if (ssh_options_get(session, option, &value) != SSH_OK || value == nullptr) return {};
  std::string text = value;
  ssh_string_free_char(value);
  return text;
}

// libssh lists the usual names ("%d/id_rsa") behind what the files name.
bool isUsualIdentity(const std::string& file) { return file.empty() || file.starts_with("%d/"); }

}  // namespace

SSHConfiguration readSSHConfiguration(const SSHServerAddress& server) {
  SSHClient client;
  if (!client.configure(server, nullptr)) return {};
  SSHConfiguration result{optionText(client.session(), SSH_OPTIONS_USER),
                          optionText(client.session(), SSH_OPTIONS_IDENTITY)};
  if (isUsualIdentity(result.identityFile)) result.identityFile.clear();
  const std::string folder = SSHClient::userFolder();
  if (result.identityFile.starts_with("~/")) {
    result.identityFile = folder.substr(0, folder.rfind('/')) + result.identityFile.substr(1);
  }
  return result;
}

}  // namespace ombra
