// The subcommands: each takes its options, does its work and answers the exit code.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "frontend/LoginSecrets.h"
#include "frontend/Output.h"
#include "frontend/S3Settings.h"

namespace ombra {

// What mount and sample share.
struct VolumeOptions {
  std::optional<std::string> name;
  std::optional<std::string> icon;
  std::optional<std::string> passthrough;
  bool foreground = false;
};

struct MountOptions {
  std::string url;
  VolumeOptions volume;
  LoginOptions login;
  S3Options s3;
  std::optional<std::string> encoding;  // of the server's file names
  bool streaming = false;               // of a local folder: no writing in place
  bool acceptNew = false;
};

struct ForgetOptions {
  std::optional<std::string> url;  // absent: all passwords
};

struct DoctorOptions {
  std::optional<std::string> endpoint;  // of an S3 server to compare the clock with
};

struct UnmountOptions {
  std::vector<std::string> targets;
  bool all = false;
  bool force = false;
};

struct StatusOptions {
  std::optional<std::string> target;  // absent: all volumes
  bool watch = false;
};

struct LogsOptions {
  std::string name;
  bool transcript = false;
  bool follow = false;
};

int runMount(const MountOptions& options, const Output& output);
int runSample(const VolumeOptions& options, const Output& output);
int runList(const Output& output);
int runStatus(const StatusOptions& options, const Output& output);
int runUnmount(const UnmountOptions& options, const Output& output);
int runRefresh(const std::vector<std::string>& paths, const Output& output);
int runForget(const ForgetOptions& options, const Output& output);
int runDoctor(const DoctorOptions& options, const Output& output);
int runLogs(const LogsOptions& options, const Output& output);
// Without a key all settings.
int runDefaultsGet(const std::optional<std::string>& key, const Output& output);
// Without a value the setting is removed.
int runDefaultsSet(const std::string& key, const std::optional<std::string>& value, const Output& output);

}  // namespace ombra
