#include "frontend/Explain.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/userfs/GMUserFileSystem.h"
#include "remote/QuarnKitError.h"

namespace ombra {

namespace {

constexpr int kMaximumChain = 16;

// The first error of the chain that `matches`; null when none does.
template <typename Predicate>
NSErrorRef findInChain(NSErrorRef error, Predicate matches) {
  for (int depth = 0; error && depth < kMaximumChain; ++depth) {
    if (matches(*error)) return error;
    error = error->underlyingError();
  }
  return nullptr;
}

NSErrorRef libraryError(const NSErrorRef& error) {
  return findInChain(error,
                     [](const NSError& candidate) { return candidate.domain() == kQuarnKitErrorDomain; });
}

NSErrorRef mountError(const NSErrorRef& error) {
  return findInChain(
      error, [](const NSError& candidate) { return candidate.domain() == kGMUserFileSystemErrorDomain; });
}

// What the error says beyond the meaning of its code, which is told in words of our own.
std::string ownWords(const NSError& error) {
  const std::string text = error.localizedDescription();
  if (error.domain() != kQuarnKitErrorDomain) return text;
  const std::string_view meaning = QuarnKitError::textForCode(static_cast<QuarnKitErrorCode>(error.code()));
  if (meaning.empty() || !text.starts_with(meaning)) return text;
  const std::string_view rest = std::string_view(text).substr(meaning.size());
  return std::string(rest.substr(std::min(rest.find_first_not_of(": "), rest.size())));
}

// `more` behind `text`, what the one ends in and the other begins with once.
std::string joined(const std::string& text, const std::string& more) {
  constexpr size_t kShortestOverlap = 8;
  for (size_t length = std::min(text.size(), more.size()); length >= kShortestOverlap; --length) {
    if (text.ends_with(std::string_view(more).substr(0, length))) return text + more.substr(length);
  }
  return text.empty() ? more : text + ": " + more;
}

// The words of the error and of what lies beneath it, each once.
std::string reasonOf(const NSErrorRef& error) {
  std::string result;
  NSErrorRef current = error;
  for (int depth = 0; current && depth < kMaximumChain; ++depth) {
    const std::string text = ownWords(*current);
    if (!text.empty() && result.find(text) == std::string::npos) result = joined(result, text);
    current = current->underlyingError();
  }
  return result;
}

std::string moreInLog(const ErrorContext& context) {
  return context.logName.empty()
             ? ""
             : fmt::format("The log has more: ombra logs {}", shellQuoted(context.logName));
}

std::string inOneLine(const std::string& first, const std::string& second) {
  return second.empty() ? first : first + " " + second;
}

// `why` without the item that it begins with, which the sentence before has named: "/a (server: gone)" tells
// "server: gone".
std::string withoutName(const std::string& why, const std::string& name) {
  if (name.empty() || !why.starts_with(name)) return why;
  std::string_view rest = std::string_view(why).substr(name.size());
  if (!rest.empty() && rest.front() != ' ' && rest.front() != ':') return why;
  rest.remove_prefix(std::min(rest.find_first_not_of(": "), rest.size()));
  if (rest.starts_with('(') && rest.ends_with(')')) rest = rest.substr(1, rest.size() - 2);
  return std::string(rest);
}

std::string serverOf(const ErrorContext& context) {
  if (context.address.empty()) return "the server";
  return inQuotes(context.port == 0 ? context.address : fmt::format("{}:{}", context.address, context.port));
}

std::string loginOf(const ErrorContext& context) {
  if (context.username.empty() || context.address.empty()) return serverOf(context);
  return inQuotes(context.username + "@" + context.address);
}

bool hasCertificate(uint32_t protocol) {
  return protocol == kProtocolFTPImplicitTLS || protocol == kProtocolFTPExplicitTLS ||
         protocol == kProtocolWebDAVTLS || protocol == kProtocolS3;
}

std::string adviceForRefusedLogin(const ErrorContext& context) {
  switch (context.protocol) {
    case kProtocolS3:
      return "Check the access key, its secret and its session token, and that --region and --endpoint are "
             "those of the bucket.";
    case kProtocolFTP:
    case kProtocolFTPImplicitTLS:
    case kProtocolFTPExplicitTLS:
    case kProtocolWebDAV:
    case kProtocolWebDAVTLS:
      return "Check the user name in the URL; give its password with --ask-password or --password-file.";
    default:
      return "Check the user name; give a password with --ask-password or --password-file, or a key with "
             "--identity.";
  }
}

Failure explainUntrusted(const std::string& why, const ErrorContext& context) {
  if (!hasCertificate(context.protocol)) {
    return {kExitHostKey,
            fmt::format("{} shows another key than the one that is trusted.", serverOf(context)), why,
            "Ask its administrator for the fingerprint before you log in there."};
  }
  return {kExitHostKey, fmt::format("The certificate of {} is not trusted.", serverOf(context)), why,
          "Ask its administrator for the fingerprint before you log in there."};
}

std::string adviceForMissingFolder(const ErrorContext& context) {
  if (context.protocol != kProtocolS3) return "Check the path in the URL.";
  return "Check the bucket and the path in the URL, and that --endpoint names the server that has it.";
}

std::string adviceForClosedFolder(const ErrorContext& context) {
  if (context.protocol == kProtocolS3 && (context.path.empty() || context.path == "/"))
    return "This key may not list the buckets: name one in the URL, as in s3://bucket.";
  if (context.protocol == kProtocolS3 && context.username.empty())
    return "It is not open to everybody: give a key, as in s3://KEY@bucket.";
  return "Name a folder that you may read, or log in as another user.";
}

std::string withMeaning(QuarnKitErrorCode code, const std::string& why) {
  const std::string meaning(QuarnKitError::textForCode(code));
  return why.empty() ? meaning : meaning + ": " + why;
}

// An answer that makes no sense mostly comes from a server of another kind.
Failure explainProtocolError(const std::string& why, const ErrorContext& context) {
  return {kExitFailure, fmt::format("{} does not answer as such a server should.", serverOf(context)),
          withMeaning(kQuarnKitProtocolError, why),
          inOneLine("Check the scheme and the port in the URL.", moreInLog(context))};
}

Failure explainNotSupported(const std::string& why, const ErrorContext& context) {
  if (context.protocol == kProtocolFTPExplicitTLS) {
    return {
        kExitFailure, fmt::format("The FTP server {} offers no TLS.", serverOf(context)), why,
        "Use ftps:// if it speaks TLS from the first byte on (port 990). With ftp:// all is sent readable "
        "for everybody on the way, the password too."};
  }
  return {kExitFailure, "The volume could not be mounted.", withMeaning(kQuarnKitNotSupported, why),
          moreInLog(context)};
}

// The way to the server, up to the login.
std::optional<Failure> explainConnection(int64_t code, const std::string& why, const ErrorContext& context) {
  const std::string server = serverOf(context);
  switch (code) {
    case kQuarnKitCouldNotResolveHost:
      return Failure{
          kExitFailure,
          fmt::format("{} was not found.", server == "the server" ? "The server" : "The server " + server),
          why, "Check the host name in the URL and the network connection."};
    case kQuarnKitCouldNotConnect:
      return Failure{
          kExitFailure, fmt::format("Could not connect to {}.", server), why,
          "Check that the server runs, that the port is right, and that no firewall is in the way."};
    case kQuarnKitLoginFailed:
      return Failure{kExitLoginRefused, fmt::format("The login at {} was refused.", loginOf(context)), why,
                     adviceForRefusedLogin(context)};
    case kQuarnKitUntrusted:
      return explainUntrusted(why, context);
    case kQuarnKitTimedOut:
      return Failure{kExitFailure, fmt::format("No answer from {} within the time allowed.", server), why,
                     "Check the scheme and the port in the URL, and try again."};
    case kQuarnKitConnectionLost:
      return Failure{kExitFailure, fmt::format("The connection to {} broke off.", server), why,
                     "Check the scheme and the port in the URL, and try again."};
    case kQuarnKitTooManyConnections:
      return Failure{kExitFailure, fmt::format("{} takes no further connections now.", server), why,
                     "Try again in a minute."};
    default:
      return std::nullopt;
  }
}

// The folder that is to be mounted.
std::optional<Failure> explainFolder(int64_t code, const std::string& why, const ErrorContext& context) {
  const std::string server = serverOf(context);
  const std::string folder =
      context.path.empty() ? "The start folder" : "The folder " + inQuotes(context.path);
  switch (code) {
    case kQuarnKitNoSuchItem:
      return Failure{kExitNotFound, fmt::format("{} does not exist on {}.", folder, server), why,
                     adviceForMissingFolder(context)};
    case kQuarnKitNotAFolder:
      return Failure{kExitNotFound, fmt::format("{} on {} is not a folder.", inQuotes(context.path), server),
                     why, "Check the path in the URL."};
    case kQuarnKitListingNotPermitted:
    case kQuarnKitPermissionDenied:
      return Failure{kExitFailure, fmt::format("{} on {} may not be read by this user.", folder, server), why,
                     adviceForClosedFolder(context)};
    default:
      return std::nullopt;
  }
}

Failure explainLibraryError(const NSErrorRef& error, const ErrorContext& context) {
  const std::string why = withoutName(withoutName(reasonOf(error), context.path), context.address);
  if (auto failure = explainConnection(error->code(), why, context)) return *failure;
  if (auto failure = explainFolder(error->code(), why, context)) return *failure;
  switch (error->code()) {
    case kQuarnKitProtocolError:
      return explainProtocolError(why, context);
    case kQuarnKitNotSupported:
      return explainNotSupported(why, context);
    case kQuarnKitLockFailed:
      return {kExitFailure,
              fmt::format("The lock of the identifier {} could not be taken.", inQuotes(context.passthrough)),
              why,
              fmt::format("Look at the file {}/OmbraFS.{}.pid.",
                          NSFileManager::kc_confstr(kDarwinUserTempDir), context.passthrough)};
    default:
      return {kExitFailure, "The volume could not be mounted.",
              withMeaning(static_cast<QuarnKitErrorCode>(error->code()), why), moreInLog(context)};
  }
}

Failure explainFuseDevice(const std::string& why) {
  if (why.find(kc_strerror(EACCES)) != std::string::npos) {
    return {kExitCannotMount, "This machine cannot mount: the device /dev/fuse may not be opened.", why,
            "Run: sudo chmod 666 /dev/fuse"};
  }
  return {kExitCannotMount,
          "This machine cannot mount: the device /dev/fuse is missing or may not be opened.", why,
          "As root: apt install fuse3 && modprobe fuse. In a container, pass --device /dev/fuse "
          "--cap-add SYS_ADMIN."};
}

Failure explainMountError(const NSErrorRef& error) {
  // Its description is a text for logs, which holds the reason and advice as well.
  const std::string why =
      error->userInfo().stringForKey(NSLocalizedFailureReasonErrorKey).value_or(reasonOf(error));
  switch (error->code()) {
    case kGMNoFuseDevice:
      return explainFuseDevice(why);
    case kGMMountPointMissing:
      return {kExitCannotMount, "The folder “/Volumes” is missing or may not be written.", why,
              "Run: sudo install -d -m 1777 /Volumes"};
    case kGMMountPointInUse:
      return {kExitCannotMount, "The mount point is in use.", why, "Give another name with --name."};
    case kGMMountPointInvalid:
      return {kExitCannotMount, "The mount point is not a plain folder below “/Volumes”.", why,
              "Give another name with --name."};
    default:
      // The words of fusermount3, which opens the device for users.
      if (why.find("/dev/fuse") != std::string::npos) return explainFuseDevice(why);
      return {
          kExitCannotMount, "The system refused the mount.", why,
          "Check that fusermount3 (package fuse3) may be used. To see what else is missing: ombra doctor"};
  }
}

}  // namespace

Failure explainError(const NSErrorRef& error, const ErrorContext& context) {
  if (const NSErrorRef mount = mountError(error)) return explainMountError(mount);
  if (const NSErrorRef library = libraryError(error)) return explainLibraryError(library, context);
  Failure failure{kExitFailure, "The volume could not be mounted.", error ? reasonOf(error) : "",
                  moreInLog(context)};
  // Who reports an error of this machine often knows what helps; there may be no log yet.
  const auto advice =
      error ? error->userInfo().stringForKey(NSLocalizedRecoverySuggestionErrorKey) : std::nullopt;
  if (advice) {
    failure.code = kExitCannotMount;
    const auto reason = error->userInfo().stringForKey(NSLocalizedFailureReasonErrorKey);
    if (reason && failure.why.find(*reason) == std::string::npos) failure.why += " " + *reason;
    failure.todo = *advice;
  } else if (error && error->domain() == NSPOSIXErrorDomain && error->code() == kENODEV) {
    failure.todo = inOneLine("Check that the server can be reached.", moreInLog(context));
  }
  return failure;
}

bool isMountPointInUse(const NSErrorRef& error) {
  const NSErrorRef found = mountError(error);
  return found != nullptr && found->code() == kGMMountPointInUse;
}

int64_t libraryCode(const NSErrorRef& error) {
  const NSErrorRef library = libraryError(error);
  return library ? library->code() : 0;
}

}  // namespace ombra
