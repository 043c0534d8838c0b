#include "frontend/ProtocolLogin.h"

#include <fmt/format.h>

#include <array>

#include "frontend/Explain.h"
#include "remote/KCTypes.h"
#include "remote/NameEncoding.h"

namespace ombra {

namespace {

struct OptionRule {
  const char* name;
  bool isGiven;
  bool hasMeaning;
};

bool checkEncoding(const std::string& name, Failure* failure) {
  if (NameEncoding::isUTF8(name) || NameEncoding(name).isKnown()) return true;
  *failure = {kExitUsage, fmt::format("The encoding {} is not known.", inQuotes(name)), "",
              "Names are listed by: iconv --list"};
  return false;
}

}  // namespace

std::unique_ptr<ProtocolLogin> ProtocolLogin::forURL(const LoginTools& tools) {
  switch (tools.url.protocol) {
    case kProtocolFile:
      return makeFileLogin(tools);
    case kProtocolSFTP:
      return makeSFTPLogin(tools);
    case kProtocolS3:
      return makeS3Login(tools);
    default:
      return makeServerLogin(tools);
  }
}

bool ProtocolLogin::retry(MountResult* result) {
  if (iTools.url.protocol == kProtocolFile) return false;
  const int64_t code = libraryCode(result->error);
  if (code == kQuarnKitUntrusted && !iLookedAgain) {
    iLookedAgain = true;
    return settleTrust(true, &result->failure);
  }
  return code == kQuarnKitLoginFailed && retryRefused(result);
}

bool ProtocolLogin::retryRefused(MountResult* result) {
  const auto refused = iTools.saved.dropRefused(iTools.credentials);
  if (iTools.prompt == nullptr || (!refused && iAskedAgain)) return false;
  iTools.output.warning(fmt::format("{} {}", result->failure.what, sentence(result->failure.why)));
  if (refused) return askInsteadOfSaved(*refused);
  iAskedAgain = true;
  return askAgain();
}

HostKeyPolicy ProtocolLogin::trustPolicy(bool lookAgain) const {
  HostKeyPolicy policy{iTools.options.acceptNew, lookAgain, {}};
  if (iTools.prompt != nullptr) {
    policy.ask = [prompt = iTools.prompt](const std::string& question) { return prompt->line(question); };
  }
  return policy;
}

bool checkOptionsForURL(const MountOptions& options, const RemoteURL& url, Failure* failure) {
  const bool isS3 = url.protocol == kProtocolS3;
  const bool isFile = url.protocol == kProtocolFile;
  const bool isSFTP = url.protocol == kProtocolSFTP;
  const bool isFTP = url.protocol == kProtocolFTP || url.protocol == kProtocolFTPImplicitTLS ||
                     url.protocol == kProtocolFTPExplicitTLS;
  const std::array<OptionRule, 9> rules{{
      {"--save", options.login.save, !isFile},
      {"--identity", options.login.identity.has_value(), isSFTP || isFile},
      {"--region", options.s3.region.has_value(), isS3},
      {"--endpoint", options.s3.endpoint.has_value(), isS3},
      {"--anonymous", options.s3.anonymous, isS3},
      {"--path-style", options.s3.pathStyle, isS3},
      {"--profile", options.s3.profile.has_value(), isS3},
      {"--encoding", options.encoding.has_value(), isFTP || isSFTP},
      {"--streaming", options.streaming, isFile},
  }};
  for (const OptionRule& rule : rules) {
    if (!rule.isGiven || rule.hasMeaning) continue;
    *failure = {kExitUsage, fmt::format("{} has no meaning for {}:// URLs.", rule.name, url.scheme), "",
                "See: ombra mount --help"};
    return false;
  }
  return !options.encoding || checkEncoding(*options.encoding, failure);
}

bool settleCertificate(const TLSServerAddress& server, const HostKeyPolicy& policy, const LoginTools& tools,
                       Failure* failure) {
  const auto decision = decideCertificateTrust(server, policy, CertificateServices::real(), failure);
  if (!decision) return false;
  if (!decision->remark.empty()) tools.output.warning(decision->remark);
  tools.credentials.setOption("fingerprint", decision->fingerprints);
  return true;
}

}  // namespace ombra
