// What it costs to make a file: its empty content, then its mode.
#include "remote/sftp/SFTPProtocol.h"
#include "tests/sftp/SessionFixture.h"

namespace ombra::test {
namespace {

class SFTPCreation : public SessionFixture {
 protected:
  void SetUp() override {
    logIn();
    local = makeLocalFile(NSFileHandle::Kind::kScratch, "");
  }
  bool create() { return session->upload(*local, "/f", 0, control, &error); }
  bool setMode(uint16_t mode, std::string_view path = "/f") {
    NSFileAttributes attributes;
    attributes.posixPermissions = mode;
    return session->changeAttributes(attributes, path, &error);
  }

  std::unique_ptr<NSFileHandle> local;
};

TEST_F(SFTPCreation, AModeThatTheServerHasGivenAlreadyIsNotSet) {
  ASSERT_TRUE(create());
  ASSERT_TRUE(setMode(0644));
  EXPECT_EQ(peer->countOf(kSFTPSetstat), 0u);
}

TEST_F(SFTPCreation, AnotherModeIsSet) {
  ASSERT_TRUE(create());
  ASSERT_TRUE(setMode(0600));
  EXPECT_EQ(peer->countOf(kSFTPSetstat), 1u);
}

TEST_F(SFTPCreation, WhatTheServerSaidCountsOnce) {
  ASSERT_TRUE(create());
  ASSERT_TRUE(setMode(0644));
  ASSERT_TRUE(setMode(0644));
  EXPECT_EQ(peer->countOf(kSFTPSetstat), 1u) << "somebody else may have changed it by then";
}

TEST_F(SFTPCreation, AWriteMayHaveChangedTheMode) {
  ASSERT_TRUE(create());
  ASSERT_TRUE(local->writeAll("x", 1, 0));
  local->noteWritten({0, 1});
  ASSERT_TRUE(create());
  ASSERT_TRUE(setMode(0644));
  EXPECT_EQ(peer->countOf(kSFTPSetstat), 1u);
}

TEST_F(SFTPCreation, AChangeOfMoreThanTheModeIsSent) {
  ASSERT_TRUE(create());
  NSFileAttributes attributes;
  attributes.posixPermissions = 0644;
  attributes.modificationDate = NSDate::dateWithTimeIntervalSince1970(1000);
  ASSERT_TRUE(session->changeAttributes(attributes, "/f", &error));
  EXPECT_EQ(peer->countOf(kSFTPSetstat), 1u);
}

TEST_F(SFTPCreation, TheModeOfAnotherPathIsSet) {
  server.addFile("/g", "");
  ASSERT_TRUE(create());
  ASSERT_TRUE(setMode(0644, "/g"));
  EXPECT_EQ(peer->countOf(kSFTPSetstat), 1u);
}

TEST_F(SFTPCreation, TheServerIsAskedInTheSameRoundTripWhetherTheFileIsThere) {
  server.batch = SIZE_MAX;
  const size_t before = peer->waits();
  ASSERT_TRUE(create());
  EXPECT_EQ(peer->waits() - before, 1u);
  ASSERT_TRUE(control.newFile);
  EXPECT_EQ(control.newFile->fileSize, 0u);
  EXPECT_EQ(control.newFile->posixPermissions, 0644);
}

TEST_F(SFTPCreation, AFileThatIsNotThereIsNotDescribed) {
  server.before = [this](const PeerRequest& request) {
    if (request.type == kSFTPLstat) server.remove("/f");
  };
  ASSERT_TRUE(create());
  EXPECT_EQ(peer->countOf(kSFTPLstat), 1u);
  EXPECT_FALSE(control.newFile);
}

// What comes into being behind it has another name.
TEST_F(SFTPCreation, ALinkInItsPlaceIsDescribedAsOne) {
  server.addFile("/target", "x");
  server.addLink("/f", "/target");
  ASSERT_TRUE(create());
  ASSERT_TRUE(control.newFile);
  EXPECT_EQ(control.newFile->fileType, NSFileTypeValue::NSFileTypeSymbolicLink);
}

TEST_F(SFTPCreation, AWriteDescribesNothing) {
  ASSERT_TRUE(create());
  control.newFile.reset();
  ASSERT_TRUE(local->writeAll("x", 1, 0));
  local->noteWritten({0, 1});
  ASSERT_TRUE(create());
  EXPECT_FALSE(control.newFile);
}

TEST_F(SFTPCreation, TakesOneRoundTripWithItsMode) {
  server.batch = SIZE_MAX;
  const size_t before = peer->waits();
  ASSERT_TRUE(create());
  ASSERT_TRUE(setMode(0644));
  EXPECT_EQ(peer->waits() - before, 1u);
}

}  // namespace
}  // namespace ombra::test
