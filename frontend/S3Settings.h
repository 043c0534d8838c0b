// Which S3 server, and with which key: from the command line, the environment and the files that programs for
// S3 share.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "frontend/Failure.h"
#include "frontend/RemoteURL.h"

namespace ombra {

struct S3Options {
  std::optional<std::string> profile;
  std::optional<std::string> region;
  std::optional<std::string> endpoint;
  bool pathStyle = false;
  bool anonymous = false;  // without a key
};

// Where settings that the command line does not give come from.
struct S3Surroundings {
  std::string homeFolder;
  std::map<std::string, std::string> variables;  // AWS_…; only those that are set, and not to nothing

  static S3Surroundings ofThisProcess();
};

// Destroying it wipes the secrets.
struct S3Settings {
  S3Settings() = default;
  S3Settings(S3Settings&&) = default;
  S3Settings& operator=(S3Settings&&) = default;
  ~S3Settings();

  std::string accessKey;              // empty: nobody's, for what is open to everybody
  std::optional<std::string> secret;  // absent when only the URL's key is known
  std::optional<std::string> sessionToken;
  std::optional<std::string> region;
  std::optional<std::string> endpoint;  // "http[s]://host[:port]", checked
  std::optional<bool> pathStyle;        // absent: as is usual for the server

  // Of the endpoint; of Amazon's when there is none.
  std::string address;
  int port = 0;
  bool isEncrypted = true;
};

// Without a key where the options say so. Else it comes from the URL, else from a profile that the options
// name, else from AWS_ACCESS_KEY_ID, else from the profile AWS_PROFILE or "default"; the other settings from
// the options, the environment and that profile, in this order. Absent, with the failure filled, when there
// is no key, or something makes no sense.
std::optional<S3Settings> settleS3(const RemoteURL& url, const S3Options& options,
                                   const S3Surroundings& surroundings, Failure* failure);

}  // namespace ombra
