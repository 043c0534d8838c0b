#include "frontend/S3Settings.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "frontend/LoginSecrets.h"
#include "frontend/SharedConfiguration.h"
#include "platform/foundation/NSUnarchiver.h"
#include "remote/KCTypes.h"

namespace ombra {

namespace {

constexpr std::array<const char*, 10> kVariables{
    "AWS_ACCESS_KEY_ID",           "AWS_SECRET_ACCESS_KEY", "AWS_SESSION_TOKEN", "AWS_REGION",
    "AWS_DEFAULT_REGION",          "AWS_ENDPOINT_URL_S3",   "AWS_ENDPOINT_URL",  "AWS_PROFILE",
    "AWS_SHARED_CREDENTIALS_FILE", "AWS_CONFIG_FILE"};

constexpr std::string_view kAmazon = "s3.amazonaws.com";

// The ways to a key that other programs know and that are not taken here.
constexpr std::array<const char*, 5> kOtherWays{"role_arn", "sso_session", "sso_start_url",
                                                "credential_process", "login_session"};

// One gathering of settings.
class S3Gathering {
 public:
  S3Gathering(const RemoteURL& url, const S3Options& options, const S3Surroundings& surroundings,
              Failure* failure)
      : iURL(url), iOptions(options), iSurroundings(surroundings), iFailure(failure) {}

  std::optional<S3Settings> settle() {
    iProfile = iOptions.profile ? *iOptions.profile : variable("AWS_PROFILE").value_or("default");
    iCredentials = SharedConfiguration::ofFile(fileFor("AWS_SHARED_CREDENTIALS_FILE", "credentials"));
    iConfiguration = SharedConfiguration::ofFile(fileFor("AWS_CONFIG_FILE", "config"));
    if (!checkProfile() || !findKey() || !findEndpoint()) return std::nullopt;
    iResult.region = firstOf(
        {iOptions.region, variable("AWS_REGION"), variable("AWS_DEFAULT_REGION"), profileValue("region")});
    if (!checkRegion()) return std::nullopt;
    iResult.pathStyle = pathStyle();
    return std::move(iResult);
  }

 private:
  bool refuse(ExitCode code, std::string what, std::string why, std::string todo) {
    *iFailure = {code, std::move(what), std::move(why), std::move(todo)};
    return false;
  }

  std::optional<std::string> variable(const char* name) const {
    const auto found = iSurroundings.variables.find(name);
    return found == iSurroundings.variables.end() ? std::nullopt : std::optional(found->second);
  }

  std::string fileFor(const char* variableName, const char* name) const {
    const auto given = variable(variableName);
    if (given && given->starts_with("~/")) return iSurroundings.homeFolder + given->substr(1);
    return given ? *given : iSurroundings.homeFolder + "/.aws/" + name;
  }

  static std::optional<std::string> firstOf(std::initializer_list<std::optional<std::string>> values) {
    for (const auto& value : values) {
      if (value && !value->empty()) return value;
    }
    return std::nullopt;
  }

  std::string sectionOfConfiguration() const {
    return iProfile == "default" ? iProfile : "profile " + iProfile;
  }

  // What the profile says, in the file of keys first.
  std::optional<std::string> profileValue(const std::string& name) const {
    const std::string* found = iCredentials.value(iProfile, name);
    if (found == nullptr) found = iConfiguration.value(sectionOfConfiguration(), name);
    return found == nullptr ? std::nullopt : std::optional(*found);
  }

  bool checkProfile() {
    const bool isNamed = iOptions.profile || variable("AWS_PROFILE");
    if (!isNamed || iCredentials.hasSection(iProfile) || iConfiguration.hasSection(sectionOfConfiguration()))
      return true;
    return refuse(kExitUsage, fmt::format("There is no profile {}.", inQuotes(iProfile)),
                  fmt::format("Neither {} nor {} has it.",
                              inQuotes(fileFor("AWS_SHARED_CREDENTIALS_FILE", "credentials")),
                              inQuotes(fileFor("AWS_CONFIG_FILE", "config"))),
                  "Check --profile and AWS_PROFILE.");
  }

  bool findKey() {
    if (iOptions.anonymous) {
      return !iURL.username ||
             refuse(kExitUsage, "The URL names an access key, and --anonymous says that there is none.", "",
                    "Leave one of them out.");
    }
    if (iURL.username) {
      iResult.accessKey = *iURL.username;
      iResult.secret = iURL.password;
      return true;
    }
    if (!iOptions.profile && takeKey(variable("AWS_ACCESS_KEY_ID"), variable("AWS_SECRET_ACCESS_KEY"),
                                     variable("AWS_SESSION_TOKEN")))
      return true;
    if (takeKey(profileValue("aws_access_key_id"), profileValue("aws_secret_access_key"),
                profileValue("aws_session_token")))
      return true;
    return noKey();
  }

  bool takeKey(std::optional<std::string> key, std::optional<std::string> secret,
               std::optional<std::string> token) {
    if (!key || !secret) {
      if (secret) wipe(*secret);
      return false;
    }
    iResult.accessKey = std::move(*key);
    iResult.secret = std::move(secret);
    iResult.sessionToken = std::move(token);
    return true;
  }

  bool noKey() {
    const std::string what = "There is no access key for S3.";
    const std::string todo =
        "Write the key into the URL, as in s3://KEY@bucket, to be asked for its secret; or set "
        "AWS_ACCESS_KEY_ID "
        "and AWS_SECRET_ACCESS_KEY; or name a profile with --profile. For a public bucket use --anonymous.";
    for (const char* way : kOtherWays) {
      if (!profileValue(way)) continue;
      return refuse(
          kExitLoginRefused, what,
          fmt::format("The profile {} uses {}, which is not supported.", inQuotes(iProfile), inQuotes(way)),
          "Have another program make keys for a session, and set AWS_ACCESS_KEY_ID, "
          "AWS_SECRET_ACCESS_KEY and AWS_SESSION_TOKEN.");
    }
    return refuse(kExitLoginRefused, what,
                  fmt::format("Neither the URL, nor the environment, nor the profile {} gives one.",
                              inQuotes(iProfile)),
                  todo);
  }

  bool findEndpoint() {
    const auto services = profileValue("services");
    const std::string* ofService =
        services ? iConfiguration.value("services " + *services, "s3.endpoint_url") : nullptr;
    const auto endpoint = firstOf(
        {iOptions.endpoint, variable("AWS_ENDPOINT_URL_S3"), variable("AWS_ENDPOINT_URL"),
         ofService == nullptr ? std::nullopt : std::optional(*ofService), profileValue("endpoint_url")});
    iResult.address = kAmazon;
    return !endpoint || takeEndpoint(*endpoint);
  }

  bool takeEndpoint(const std::string& text) {
    const std::string what = fmt::format("{} is no endpoint of S3.", inQuotes(text));
    const std::string form = "An endpoint looks like https://s3.example or http://localhost:9000.";
    Failure reason;
    const auto url = parseRemoteURL(text, &reason);
    const bool hasScheme = text.find("://") != std::string::npos;
    if (!url && hasScheme) return refuse(kExitUsage, what, reason.why, form);
    if (!url || (url->scheme != "http" && url->scheme != "https"))
      return refuse(kExitUsage, what, "It begins with neither https:// nor http://.", form);
    if (url->username || (url->path && *url->path != "/"))
      return refuse(kExitUsage, what, "It holds more than a host and a port.", form);
    iResult.address = url->host;
    iResult.isEncrypted = url->scheme == "https";
    iResult.port = url->port != 0 ? url->port : defaultPortOfProtocol(url->protocol);
    const bool isIPv6 = url->host.find(':') != std::string::npos;
    const std::string host = isIPv6 ? "[" + url->host + "]" : url->host;
    iResult.endpoint = fmt::format("{}://{}:{}", url->scheme, host, iResult.port);
    return true;
  }

  // It becomes part of a host name and of what is signed.
  bool checkRegion() {
    const auto isPlain = [](char c) {
      return isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_';
    };
    if (!iResult.region || std::all_of(iResult.region->begin(), iResult.region->end(), isPlain)) return true;
    return refuse(kExitUsage, fmt::format("{} is no region.", inQuotes(*iResult.region)), "",
                  "A region looks like eu-central-1.");
  }

  std::optional<bool> pathStyle() const {
    if (iOptions.pathStyle) return true;
    const auto style = profileValue("s3.addressing_style");
    if (style == "path") return true;
    if (style == "virtual") return false;
    return std::nullopt;
  }

  const RemoteURL& iURL;
  const S3Options& iOptions;
  const S3Surroundings& iSurroundings;
  Failure* const iFailure;
  std::string iProfile;
  SharedConfiguration iCredentials;
  SharedConfiguration iConfiguration;
  S3Settings iResult;
};

}  // namespace

S3Surroundings S3Surroundings::ofThisProcess() {
  S3Surroundings result;
  result.homeFolder = LoginSurroundings::ofThisProcess().homeFolder;
  for (const char* name : kVariables) {
    const char* value = std::getenv(name);
    if (value != nullptr && *value != '\0') result.variables[name] = value;
  }
  return result;
}

S3Settings::~S3Settings() {
  if (secret) wipe(*secret);
  if (sessionToken) wipe(*sessionToken);
}

std::optional<S3Settings> settleS3(const RemoteURL& url, const S3Options& options,
                                   const S3Surroundings& surroundings, Failure* failure) {
  return S3Gathering(url, options, surroundings, failure).settle();
}

}  // namespace ombra
