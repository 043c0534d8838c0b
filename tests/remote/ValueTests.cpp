// Identifiers, paths, errors, and the line of the protocols.
#include <gtest/gtest.h>

#include <set>

#include "remote/AbstractConnection.h"
#include "remote/FilePermissions.h"
#include "remote/KCTypes.h"
#include "remote/KCUUID.h"
#include "remote/QuarnKitError.h"
#include "remote/RemotePaths.h"
#include "remote/TemporaryNames.h"
#include "remote/TranscriptText.h"
#include "remote/VerboseTranscript.h"
#include "tests/support/SessionDoubles.h"

namespace ombra {
namespace {

TEST(TranscriptText, ControlCharactersAreMadeVisibleAndNothingElseIsChanged) {
  EXPECT_EQ(visibleText("a\r\nb\t\x1b[2J\x7f"), "a\\x0d\\x0ab\\x09\\x1b[2J\\x7f");
  EXPECT_EQ(visibleText(std::string_view("\0", 1)), "\\x00");
  EXPECT_EQ(visibleText("Gr\xc3\xbc\xc3\x9f"
                        "e \\ \"\xff"),
            "Gr\xc3\xbc\xc3\x9f"
            "e \\ \"\xff");
}

TEST(TranscriptText, ARemarkIsOneLineOfItsOwn) {
  KeptTranscript transcript;
  appendRemark(transcript, "connected\r\n> PASS forged\r\n");
  EXPECT_EQ(transcript.text(), "< * connected\\x0d\\x0a> PASS forged\n");
}

TEST(UUID, StringFormIsReadBackAsTheSameIdentifier) {
  const KCUUID uuid = KCUUID::UUID();
  const std::optional<KCUUID> read = KCUUID::uuidWithString(uuid.stringValue());
  ASSERT_TRUE(read.has_value());
  EXPECT_EQ(*read, uuid);
}

TEST(UUID, FreshOnesAreRandomOfVersionFourAndDiffer) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string text = KCUUID::UUID().stringValue();
    ASSERT_EQ(text.size(), 36u);
    EXPECT_EQ(text[14], '4') << text;
    EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos) << text;
    EXPECT_TRUE(seen.insert(text).second) << text;
  }
}

TEST(UUID, LowerCaseIsReadAndWrittenInUpperCase) {
  const std::optional<KCUUID> uuid = KCUUID::uuidWithString("6fa459ea-ee8a-4ca4-894e-db77e160355e");
  ASSERT_TRUE(uuid.has_value());
  EXPECT_EQ(uuid->stringValue(), "6FA459EA-EE8A-4CA4-894E-DB77E160355E");
}

TEST(UUID, OtherTextsAreNone) {
  for (const char* text : {"", "6FA459EA", "6FA459EA-EE8A-4CA4-894E-DB77E160355",
                           "6FA459EA-EE8A-4CA4-894E-DB77E160355EA", "6FA459EAxEE8A-4CA4-894E-DB77E160355E",
                           "6FA459EG-EE8A-4CA4-894E-DB77E160355E", "6FA459EA-EE8A-4CA4-894E-DB77-160355E"}) {
    EXPECT_FALSE(KCUUID::uuidWithString(text).has_value()) << text;
  }
}

TEST(LibraryError, CarriesDomainCodeTextAndWhatLiesBeneath) {
  const NSErrorRef cause = NSError::errorWithDomain(NSPOSIXErrorDomain, 2);
  const NSErrorRef error = QuarnKitError::errorWithCode(kQuarnKitNoSuchItem, "/a", cause);
  EXPECT_EQ(error->domain(), "QuarnKitErrorDomain");
  EXPECT_EQ(error->code(), 14);
  EXPECT_EQ(error->localizedDescription(), "The item does not exist on the server: /a");
  EXPECT_EQ(error->underlyingError(), cause);
}

TEST(LibraryError, KnownNumbersAreTheOnesThatTheProgramTests) {
  EXPECT_EQ(kQuarnKitListingNotPermitted, 9);
  EXPECT_EQ(kQuarnKitNoSuchItem, 14);
  EXPECT_EQ(kQuarnKitAttributeChangeNotSupported, 17);
  EXPECT_EQ(kQuarnKitLockFailed, 22);
}

TEST(LibraryError, EveryCodeHasATextOfItsOwn) {
  std::set<std::string_view> texts;
  for (const int code : {9, 14, 17, 22}) texts.insert(QuarnKitError::textForCode(QuarnKitErrorCode(code)));
  for (int code = kQuarnKitCouldNotResolveHost; code <= kQuarnKitReadOnly; ++code) {
    texts.insert(QuarnKitError::textForCode(QuarnKitErrorCode(code)));
  }
  EXPECT_EQ(texts.size(), 4u + kQuarnKitReadOnly - kQuarnKitCouldNotResolveHost + 1u);
  EXPECT_FALSE(texts.contains(QuarnKitError::textForCode(QuarnKitErrorCode(4711))));
}

TEST(LibraryError, OfAnotherDomainIsOneOfTheLibrarysClass) {
  const NSErrorRef error =
      QuarnKitError::errorWithDomain(NSPOSIXErrorDomain, 2, {{"key", PropertyValue("value")}});
  EXPECT_NE(dynamic_cast<const QuarnKitError*>(error.get()), nullptr);
  EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(error->code(), 2);
  EXPECT_EQ(error->userInfo().count(), 1u);
}

TEST(LibraryError, WrappingKeepsDomainCodeAndUserInfoAndNull) {
  const NSErrorRef plain = NSError::errorWithDomain("Other", 7, {{"key", PropertyValue("value")}});
  const NSErrorRef wrapped = QuarnKitError::quarnKitErrorWithError(plain);
  EXPECT_NE(dynamic_cast<const QuarnKitError*>(wrapped.get()), nullptr);
  EXPECT_EQ(wrapped->domain(), "Other");
  EXPECT_EQ(wrapped->code(), 7);
  EXPECT_EQ(wrapped->userInfo(), plain->userInfo());
  EXPECT_EQ(QuarnKitError::quarnKitErrorWithError(wrapped), wrapped);
  EXPECT_EQ(QuarnKitError::quarnKitErrorWithError(nullptr), nullptr);
}

TEST(LibraryError, ACodeOfAnotherDomainIsNotMistakenForOurs) {
  EXPECT_FALSE(QuarnKitError::isCode(NSError::errorWithDomain(NSPOSIXErrorDomain, 14), kQuarnKitNoSuchItem));
  EXPECT_FALSE(QuarnKitError::isCode(nullptr, kQuarnKitNoSuchItem));
  EXPECT_TRUE(QuarnKitError::isCode(QuarnKitError::errorWithCode(kQuarnKitNoSuchItem), kQuarnKitNoSuchItem));
}

TEST(RemotePaths, HaveOneNormalForm) {
  const std::pair<const char*, const char*> table[] = {
      {"/", "/"},         {"", "/"},
      {"/a/", "/a"},      {"//a///b//", "/a/b"},
      {"/a/./b", "/a/b"}, {"/a//b/./c/../d/", "/a/b/d"},
      {"/a/../b", "/b"},  {"/../..", "/"},
      {"/a/b/..", "/a"},  {"a/b", "/a/b"},
      {"/...", "/..."},   {"/a/.hidden", "/a/.hidden"},
      {"/ a ", "/ a "},   {"/\xff\xfe", "/\xff\xfe"},
  };
  for (const auto& [path, normal] : table) EXPECT_EQ(normal, normalRemotePath(path)) << path;
}

TEST(RemotePaths, JoinAndPart) {
  EXPECT_EQ("/b", absoluteRemotePath("/b", "/a"));
  EXPECT_EQ("/a/b", absoluteRemotePath("b", "/a"));
  EXPECT_EQ("/a/b", remotePathInFolder("/a", "b"));
  EXPECT_EQ("/b", remotePathInFolder("/", "b"));
  EXPECT_EQ("/a/b", remotePathInFolder("/a/", "b"));
  EXPECT_EQ("/", parentOfRemotePath("/a"));
  EXPECT_EQ("/a", parentOfRemotePath("/a/b"));
  EXPECT_EQ("/", parentOfRemotePath("/"));
  EXPECT_EQ("b", nameOfRemotePath("/a/b"));
  EXPECT_EQ("b", nameOfRemotePath("b"));
}

TEST(RemotePaths, BelowIsByWholeComponents) {
  EXPECT_TRUE(isAtOrBelowRemotePath("/a/b", "/a"));
  EXPECT_TRUE(isAtOrBelowRemotePath("/a", "/a"));
  EXPECT_TRUE(isAtOrBelowRemotePath("/a", "/"));
  EXPECT_FALSE(isAtOrBelowRemotePath("/ab", "/a"));
  EXPECT_FALSE(isAtOrBelowRemotePath("/a", "/a/b"));
}

TEST(TemporaryNames, LieBesideTheFileAndAreKnownByTheirWholeForm) {
  const std::string temporary = temporaryPathBeside("/a/file");
  EXPECT_TRUE(temporary.starts_with("/a/.ombra-upload-")) << temporary;
  EXPECT_TRUE(isTemporaryName(nameOfRemotePath(temporary)));
  EXPECT_NE(temporary, temporaryPathBeside("/a/file"));
  EXPECT_FALSE(isTemporaryName(".ombra-upload-"));
  EXPECT_FALSE(isTemporaryName(".ombra-upload-6FA459EA-EE8A-4CA4-894E-DB77E160355X"));
  EXPECT_TRUE(isTemporaryName(".ombra-upload-6FA459EA-EE8A-4CA4-894E-DB77E160355E"));
}

TEST(Protocol, OnlyS3IsAmazonS3) {
  EXPECT_TRUE(AbstractConnection::isS3(kProtocolS3));
  for (const uint32_t protocol :
       {kProtocolSFTP, kProtocolFTP, kProtocolFTPImplicitTLS, kProtocolFTPExplicitTLS, kProtocolWebDAV,
        kProtocolWebDAVTLS, kProtocolFile, 0u}) {
    EXPECT_FALSE(AbstractConnection::isS3(protocol));
  }
}

TEST(Permissions, KeepSixteenBits) { EXPECT_EQ(FilePermissions(0xFFFF).mode(), 0xFFFF); }

TEST(NodeTypes, AreThreeDistinctCodes) {
  EXPECT_EQ((std::set<uint32_t>{kNodeTypeFile, kNodeTypeFolder, kNodeTypeAlias, 0}).size(), 4u);
}

}  // namespace
}  // namespace ombra
