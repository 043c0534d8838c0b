#include "frontend/Explain.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "frontend/MountAnnouncements.h"
#include "platform/foundation/NSKeyedArchiver.h"
#include "platform/userfs/GMUserFileSystem.h"
#include "remote/KCTypes.h"
#include "remote/QuarnKitError.h"

namespace ombra {
namespace {

using testing::HasSubstr;

const ErrorContext kContext{"nas", 2222, "anna", "/photos", "team", "Photos"};

struct LibraryCase {
  QuarnKitErrorCode code;
  ExitCode exitCode;
  const char* says;
};

class LibraryErrors : public testing::TestWithParam<LibraryCase> {};

TEST_P(LibraryErrors, AreToldWithTheirExitCode) {
  const auto library = QuarnKitError::errorWithCode(GetParam().code, "the server's own words");
  // As the helper sends it: beneath an error of the system, through an archive.
  const auto outer =
      NSError::errorWithDomain(NSPOSIXErrorDomain, kEIO, {{std::string(NSUnderlyingErrorKey), library}});
  std::string reason;
  const auto arrived =
      NSKeyedUnarchiver::unarchivedError(NSKeyedArchiver::archivedDataWithRootObject(outer), &reason);
  ASSERT_TRUE(arrived) << reason;
  const Failure failure = explainError(arrived, kContext);
  EXPECT_EQ(failure.code, GetParam().exitCode);
  EXPECT_THAT(failure.text(), HasSubstr(GetParam().says));
  EXPECT_THAT(failure.text(), HasSubstr("he server's own words"));
  EXPECT_EQ(libraryCode(arrived), GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(
    Table, LibraryErrors,
    testing::Values(LibraryCase{kQuarnKitLoginFailed, kExitLoginRefused, "anna@nas"},
                    LibraryCase{kQuarnKitUntrusted, kExitHostKey, "another key"},
                    LibraryCase{kQuarnKitCouldNotResolveHost, kExitFailure, "was not found"},
                    LibraryCase{kQuarnKitCouldNotConnect, kExitFailure, "“nas:2222”"},
                    LibraryCase{kQuarnKitNoSuchItem, kExitNotFound, "/photos"},
                    LibraryCase{kQuarnKitNotAFolder, kExitNotFound, "not a folder"},
                    LibraryCase{kQuarnKitListingNotPermitted, kExitFailure, "may not be read"},
                    LibraryCase{kQuarnKitPermissionDenied, kExitFailure, "may not be read"},
                    LibraryCase{kQuarnKitTimedOut, kExitFailure, "No answer"},
                    LibraryCase{kQuarnKitConnectionLost, kExitFailure, "broke off"},
                    LibraryCase{kQuarnKitTooManyConnections, kExitFailure, "no further connections"},
                    LibraryCase{kQuarnKitLockFailed, kExitFailure, "OmbraFS.team.pid"},
                    LibraryCase{kQuarnKitProtocolError, kExitFailure, "ombra logs Photos"}));

struct ProtocolCase {
  uint32_t protocol;
  QuarnKitErrorCode code;
  const char* path;
  ExitCode exitCode;
  const char* says;
};

class ErrorsOfProtocols : public testing::TestWithParam<ProtocolCase> {};

TEST_P(ErrorsOfProtocols, SayWhatHelpsThere) {
  ErrorContext context = kContext;
  context.protocol = GetParam().protocol;
  context.path = GetParam().path;
  const Failure failure = explainError(QuarnKitError::errorWithCode(GetParam().code, "own words"), context);
  EXPECT_EQ(failure.code, GetParam().exitCode);
  EXPECT_THAT(failure.text(), HasSubstr(GetParam().says));
  EXPECT_THAT(failure.text(), HasSubstr("wn words"));
}

INSTANTIATE_TEST_SUITE_P(
    Table, ErrorsOfProtocols,
    testing::Values(
        ProtocolCase{kProtocolSFTP, kQuarnKitLoginFailed, "", kExitLoginRefused, "--identity"},
        ProtocolCase{kProtocolFTP, kQuarnKitLoginFailed, "", kExitLoginRefused, "--password-file"},
        ProtocolCase{kProtocolWebDAVTLS, kQuarnKitLoginFailed, "", kExitLoginRefused, "--password-file"},
        ProtocolCase{kProtocolS3, kQuarnKitLoginFailed, "/b", kExitLoginRefused, "access key"},
        ProtocolCase{kProtocolSFTP, kQuarnKitUntrusted, "", kExitHostKey, "another key"},
        ProtocolCase{kProtocolFTPExplicitTLS, kQuarnKitUntrusted, "", kExitHostKey, "certificate"},
        ProtocolCase{kProtocolS3, kQuarnKitUntrusted, "/b", kExitHostKey, "certificate"},
        ProtocolCase{kProtocolS3, kQuarnKitNoSuchItem, "/nobucket", kExitNotFound, "--endpoint"},
        ProtocolCase{kProtocolS3, kQuarnKitNoSuchItem, "/nobucket", kExitNotFound, "/nobucket"},
        ProtocolCase{kProtocolS3, kQuarnKitListingNotPermitted, "/", kExitFailure, "s3://bucket"},
        ProtocolCase{kProtocolS3, kQuarnKitListingNotPermitted, "/b", kExitFailure, "may not be read"},
        ProtocolCase{kProtocolWebDAV, kQuarnKitProtocolError, "", kExitFailure, "the scheme and the port"},
        ProtocolCase{kProtocolFTPExplicitTLS, kQuarnKitNotSupported, "", kExitFailure, "offers no TLS"},
        ProtocolCase{kProtocolWebDAV, kQuarnKitNotSupported, "", kExitFailure, "could not be mounted"}));

struct MountCase {
  int code;
  const char* says;
};

class MountErrors : public testing::TestWithParam<MountCase> {};

TEST_P(MountErrors, SayWhatThisMachineLacks) {
  const Failure failure =
      explainError(NSError::errorWithDomain(kGMUserFileSystemErrorDomain, GetParam().code), kContext);
  EXPECT_EQ(failure.code, kExitCannotMount);
  EXPECT_THAT(failure.text(), HasSubstr(GetParam().says));
}

INSTANTIATE_TEST_SUITE_P(Table, MountErrors,
                         testing::Values(MountCase{kGMNoFuseDevice, "/dev/fuse"},
                                         MountCase{kGMMountPointMissing, "install -d -m 1777 /Volumes"},
                                         MountCase{kGMMountPointInUse, "in use"},
                                         MountCase{kGMMountPointInvalid, "--name"},
                                         MountCase{kGMMountRefused, "fusermount3"}));

TEST(Explain, TheItemThatASentenceNamesIsNotNamedAgain) {
  const auto why = [](std::string_view words) {
    return explainError(QuarnKitError::errorWithCode(kQuarnKitNoSuchItem, words), kContext).why;
  };
  EXPECT_EQ(why("/photos (server: gone)"), "server: gone");
  EXPECT_EQ(why("/photos: the server answered 404"), "the server answered 404");
  EXPECT_EQ(why("/photos"), "");
  EXPECT_EQ(why("/photos2 is gone"), "/photos2 is gone");
  EXPECT_EQ(why("nas: no answer"), "no answer");
}

TEST(Explain, WordsThatTheErrorBeneathRepeatsAreToldOnce) {
  const auto beneath = QuarnKitError::errorWithDomain(
      "HTTP", 405, {{std::string(NSLocalizedDescriptionKey), "the server answered 405 (not here)"}});
  const auto error =
      QuarnKitError::errorWithCode(kQuarnKitLoginFailed, "/a: the server answered 405", beneath);
  EXPECT_EQ(explainError(error, kContext).why, "/a: the server answered 405 (not here)");
}

Failure refusedMount(std::string_view reason) {
  return explainError(
      NSError::errorWithDomain(kGMUserFileSystemErrorDomain, kGMMountRefused,
                               {{std::string(NSLocalizedDescriptionKey), "All of it, for logs."},
                                {std::string(NSLocalizedFailureReasonErrorKey), std::string(reason)}}),
      kContext);
}

TEST(Explain, ARefusedMountIsToldWithItsReasonAlone) {
  EXPECT_EQ(refusedMount("too many volumes").why, "too many volumes");
}

TEST(Explain, AFuseDeviceThatIsClosedToTheUserIsToBeOpened) {
  const Failure failure = refusedMount("fusermount3: failed to open /dev/fuse: Permission denied");
  EXPECT_EQ(failure.code, kExitCannotMount);
  EXPECT_EQ(failure.text(),
            "This machine cannot mount: the device /dev/fuse may not be opened. "
            "fusermount3: failed to open /dev/fuse: Permission denied.\nRun: sudo chmod 666 /dev/fuse");
}

TEST(Sentence, BeginsWithACapitalUnlessItIsAName) {
  EXPECT_EQ(sentence("keys refused"), "Keys refused.");
  EXPECT_EQ(sentence("self-signed certificate\n"), "Self-signed certificate.");
  EXPECT_EQ(sentence("nohost.example: unknown"), "nohost.example: unknown.");
  EXPECT_EQ(sentence("nas: unknown"), "nas: unknown.");
  EXPECT_EQ(sentence("ssh-ed25519 is refused"), "ssh-ed25519 is refused.");
  EXPECT_EQ(sentence("failed."), "Failed.");
  EXPECT_EQ(sentence(""), "");
}

TEST(Explain, TheErrorOfTheMountDecidesOverWhatLiesBeneath) {
  const auto beneath = QuarnKitError::errorWithCode(kQuarnKitLoginFailed);
  const auto outer = NSError::errorWithDomain(kGMUserFileSystemErrorDomain, kGMMountRefused,
                                              {{std::string(NSUnderlyingErrorKey), beneath}});
  EXPECT_EQ(explainError(outer, kContext).code, kExitCannotMount);
}

TEST(Explain, NoErrorAtAllIsAGeneralFailure) {
  const Failure failure = explainError(nullptr, {});
  EXPECT_EQ(failure.code, kExitFailure);
  EXPECT_EQ(failure.text(), "The volume could not be mounted.");
  EXPECT_EQ(libraryCode(nullptr), 0);
}

TEST(Explain, TheMeaningOfACodeIsNotToldTwice) {
  const auto error = QuarnKitError::errorWithCode(kQuarnKitLoginFailed, "keys refused");
  EXPECT_EQ(explainError(error, kContext).why, "keys refused");
  EXPECT_EQ(explainError(QuarnKitError::errorWithCode(kQuarnKitLoginFailed), kContext).why, "");
  const auto other = QuarnKitError::errorWithCode(kQuarnKitProtocolError, "odd reply");
  EXPECT_EQ(explainError(other, kContext).why,
            std::string(QuarnKitError::textForCode(kQuarnKitProtocolError)) + ": odd reply");
}

TEST(Explain, AnErrorOfTheSystemShowsItsText) {
  EXPECT_THAT(explainError(NSError::errorWithDomain(NSPOSIXErrorDomain, kEACCES), kContext).text(),
              HasSubstr("ermission denied"));
}

TEST(Explain, AnErrorThatKnowsWhatToDoIsOfThisMachineAndSaysIt) {
  const auto error = NSError::errorWithDomain(
      NSPOSIXErrorDomain, 1,
      {{std::string(NSLocalizedDescriptionKey), "“chown x” could not be run with administrator rights."},
       {std::string(NSLocalizedFailureReasonErrorKey), "sudo: a password is required"},
       {std::string(NSLocalizedRecoverySuggestionErrorKey), "Install the package again."}});
  const Failure failure = explainError(error, {.logName = "nas"});
  EXPECT_EQ(failure.code, kExitCannotMount);
  EXPECT_EQ(failure.why,
            "“chown x” could not be run with administrator rights. sudo: a password is required");
  EXPECT_EQ(failure.todo, "Install the package again.");
}

TEST(Explain, WordsOfAServerCannotMoveTheCursor) {
  const auto error = QuarnKitError::errorWithCode(kQuarnKitLoginFailed,
                                                  "\x1b[2Jgone\r\n\xC2\x9b"
                                                  "31m\xff");
  const std::string text = explainError(error, kContext).text();
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
  EXPECT_EQ(text.find('\r'), std::string::npos);
  EXPECT_EQ(text.find("\xC2\x9b"), std::string::npos);
  EXPECT_EQ(text.find('\xff'), std::string::npos);
  EXPECT_THAT(text, HasSubstr("gone"));
}

TEST(Failure, IsOneLineAndWhatToDoASecond) {
  EXPECT_EQ((Failure{kExitFailure, "It broke", "too old\n", "See: shop new"}.text()),
            "It broke. Too old.\nSee: shop new");
  EXPECT_EQ((Failure{kExitFailure, "It broke!", "", ""}.text()), "It broke!");
}

struct Word {
  const char* text;
  const char* quoted;
};

class ShellWords : public testing::TestWithParam<Word> {};

TEST_P(ShellWords, AreQuotedWhereNeeded) { EXPECT_EQ(shellQuoted(GetParam().text), GetParam().quoted); }

INSTANTIATE_TEST_SUITE_P(Table, ShellWords,
                         testing::Values(Word{"nas", "nas"}, Word{"", "''"}, Word{"My Disk", "'My Disk'"},
                                         Word{"it's", "'it'\\''s'"}, Word{"$HOME", "'$HOME'"},
                                         Word{"~x", "'~x'"}, Word{"[::1]:22", "'[::1]:22'"},
                                         Word{"a\nb", "'a b'"}));

TEST(MountAnnouncement, IsReadWithItsError) {
  const auto error = QuarnKitError::errorWithCode(kQuarnKitLoginFailed);
  const auto read = MountAnnouncements::read(
      {"OFSMountFailed", "name",
       NSDictionary{{"volumeName", "n"},
                    {"mountPath", "/Volumes/n"},
                    {"address", "a"},
                    {"passthrough", "p"},
                    {"errorData", NSKeyedArchiver::archivedDataWithRootObject(error)}}});
  ASSERT_TRUE(read);
  EXPECT_EQ(read->kind, MountAnnouncement::Kind::kMountFailed);
  EXPECT_EQ(read->mountPath, "/Volumes/n");
  EXPECT_EQ(read->passthrough, "p");
  EXPECT_EQ(libraryCode(read->error), kQuarnKitLoginFailed);
}

TEST(MountAnnouncement, ToleratesWhatIsMissingOrOfTheWrongType) {
  const auto empty = MountAnnouncements::read({"OFSDidMount", "name", std::nullopt});
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->mountPath, "");
  const auto odd = MountAnnouncements::read(
      {"OFSMountFailed", "name", NSDictionary{{"mountPath", 7}, {"errorData", NSData{1, 2, 3}}}});
  ASSERT_TRUE(odd);
  EXPECT_EQ(odd->mountPath, "");
  EXPECT_EQ(odd->error, nullptr);
  EXPECT_FALSE(MountAnnouncements::read({"OFSInvalidateCache", "name", std::nullopt}));
}

}  // namespace
}  // namespace ombra
