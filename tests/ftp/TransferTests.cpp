// Uploads and downloads, and what goes wrong with them.
#include "tests/ftp/FTPSessionFixture.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class FTPTransfers : public FTPSessionTest {
 protected:
  void SetUp() override { server.setFeatures(kModernFeatures); }
};

TEST_F(FTPTransfers, AWholeFileArrivesUnderATemporaryNameAndIsRenamed) {
  logIn();
  server.putFile("/file", "old");
  ASSERT_TRUE(upload("/file", "new content")) << error->description();
  EXPECT_EQ(server.file("/file"), "new content");
  EXPECT_THAT(sent("STOR "), ElementsAre(StartsWith("STOR /.ombra-upload-")));
  EXPECT_THAT(sent("RNTO "), ElementsAre("RNTO /file"));
}

TEST_F(FTPTransfers, AnEmptyFileGoesToItsPlaceAtOnce) {
  logIn();
  server.putFile("/file", "old");
  ASSERT_TRUE(upload("/file", ""));
  EXPECT_EQ(server.file("/file"), "");
  EXPECT_THAT(sent("STOR "), ElementsAre("STOR /file"));
}

TEST_F(FTPTransfers, ACancelledUploadLeavesTheOldFileAndNothingElse) {
  logIn();
  server.putFile("/file", "old");
  control.cancelAt = 1;
  EXPECT_FALSE(upload("/file", std::string(8 << 20, 'x')));
  EXPECT_TRUE(failedWith(kQuarnKitCancelled));
  control.reached.clear();
  control.cancelAt = UINT64_MAX;
  EXPECT_EQ(download("/file"), "old");
  ASSERT_EQ(sent("DELE ").size(), 1u);
  EXPECT_FALSE(server.file(sent("DELE ")[0].substr(5)).has_value());
}

TEST_F(FTPTransfers, AFailedUploadLeavesTheOldFile) {
  logIn();
  server.putFile("/file", "old");
  server.answer("end of STOR", {"552 quota exceeded\r\n"});
  EXPECT_FALSE(upload("/file", "new"));
  EXPECT_TRUE(failedWith(kQuarnKitOutOfSpace));
  EXPECT_EQ(download("/file"), "old");
  EXPECT_EQ(sent("DELE ").size(), 1u);
}

TEST_F(FTPTransfers, WhatALostSessionLeftBehindTheNextOneClearsAway) {
  logIn();
  server.putFile("/file", "old");
  server.answer("end of STOR", {"", "226 fine\r\n"});
  EXPECT_FALSE(upload("/file", "new"));
  EXPECT_TRUE(failedWith(kQuarnKitConnectionLost));
  EXPECT_THAT(sent("DELE "), IsEmpty());
  session = newSession();
  ASSERT_NE(session, nullptr);
  EXPECT_EQ(download("/file"), "old");
  ASSERT_EQ(sent("DELE ").size(), 1u);
  EXPECT_THAT(sent("DELE ")[0], StartsWith("DELE /.ombra-upload-"));
}

TEST_F(FTPTransfers, WhereTemporaryNamesAreRefusedTheFileIsWrittenInPlace) {
  logIn();
  server.answer("STOR /.ombra", {"553 no names with a dot\r\n"});
  ASSERT_TRUE(upload("/file", "new")) << error->description();
  EXPECT_EQ(server.file("/file"), "new");
}

TEST_F(FTPTransfers, WhereARenameReplacesNothingTheFileIsWrittenInPlaceFromThenOn) {
  logIn();
  server.putFile("/file", "old");
  server.answer("RNTO", {"550 File already exists\r\n"});
  ASSERT_TRUE(upload("/file", "new")) << error->description();
  EXPECT_EQ(server.file("/file"), "new");
  EXPECT_EQ(sent("DELE ").size(), 1u);
  ASSERT_TRUE(upload("/file", "newer"));
  EXPECT_EQ(server.file("/file"), "newer");
  EXPECT_EQ(sent("RNTO ").size(), 1u);
}

TEST_F(FTPTransfers, AFullDiskIsNoReasonToWriteInPlace) {
  logIn();
  server.putFile("/file", "old");
  server.answer("STOR /.ombra", {"552 no space left\r\n"});
  EXPECT_FALSE(upload("/file", "new"));
  EXPECT_TRUE(failedWith(kQuarnKitOutOfSpace));
  EXPECT_EQ(server.file("/file"), "old");
}

TEST_F(FTPTransfers, LinksAndFilesThatMayNotBeWrittenAreNotReplaced) {
  logIn();
  const char* const facts[] = {"type=OS.unix=slink:/there", "type=file;perm=adfr",
                               "type=file;UNIX.mode=0444"};
  for (const char* fact : facts) {
    server.answer("MLST /file", {std::string("250-Begin\r\n ") + fact + "; /file\r\n250 End\r\n"});
    ASSERT_TRUE(upload("/file", "new")) << fact << " " << error->description();
    EXPECT_EQ(server.file("/file"), "new") << fact;
    EXPECT_THAT(sent("RNTO "), IsEmpty()) << fact;
  }
}

// As proftpd does: the type is the target's, the length that of the link's text.
TEST_F(FTPTransfers, ALinkThatIsToldOfAsAFileIsNotReplaced) {
  server.setFeatures(kModernFeatures);
  logIn();
  server.putFile("/file", "what the link leads to");
  server.answer("MLST /file", {"250-Begin\r\n type=file;size=7;UNIX.mode=0644; /file\r\n250 End\r\n"});
  ASSERT_TRUE(upload("/file", "new")) << error->description();
  EXPECT_EQ(server.file("/file"), "new");
  EXPECT_THAT(sent("RNTO "), IsEmpty());
  EXPECT_THAT(server.files(), ElementsAre("/file", "/learnt"));
}

TEST_F(FTPTransfers, TheModeOfWhatIsReplacedIsKept) {
  logIn();
  server.answer("MLST /file", {"250-Begin\r\n type=file;UNIX.mode=0600; /file\r\n250 End\r\n"});
  server.putFile("/file", "old");
  ASSERT_TRUE(upload("/file", "new"));
  EXPECT_THAT(sent("SITE "), ElementsAre(StartsWith("SITE CHMOD 600 /.ombra-upload-")));
}

TEST_F(FTPTransfers, WhereTheModeCannotBeKeptTheFileIsWrittenInPlaceUnlessItIsThatOfNewFiles) {
  logIn();
  server.answer("SITE CHMOD", {"502 no\r\n"});
  server.answer("MLST /private", {"250-Begin\r\n type=file;UNIX.mode=0600; /file\r\n250 End\r\n"});
  server.putFile("/private", "old");
  ASSERT_TRUE(upload("/private", "new")) << error->description();
  EXPECT_THAT(sent("RNTO "), IsEmpty());
  EXPECT_EQ(server.file("/private"), "new");
  server.putFile("/usual", "old");
  ASSERT_TRUE(upload("/usual", "new"));
  EXPECT_THAT(sent("RNTO "), ElementsAre("RNTO /usual"));
  EXPECT_EQ(sent("SITE ").size(), 1u) << "it is not asked for in vain twice";
}

TEST_F(FTPTransfers, AnUploadFromAnOffsetIsRefused) {
  logIn();
  const auto file = temporaryFile("content");
  EXPECT_FALSE(session->upload(*file, "/file", 3, control, &error));
  EXPECT_TRUE(failedWith(kQuarnKitNotSupported));
}

TEST_F(FTPTransfers, AStreamIsWrittenInPlace) {
  logIn();
  int pieces = 3;
  const auto next = [&pieces](std::byte* bytes, size_t) -> size_t {
    bytes[0] = std::byte{'x'};
    return pieces-- > 0 ? 1 : 0;
  };
  ASSERT_TRUE(session->stream(next, "/file", control, &error)) << error->description();
  EXPECT_EQ(server.file("/file"), "xxx");
  EXPECT_THAT(sent("STOR "), ElementsAre("STOR /file"));
}

TEST_F(FTPTransfers, AStreamThatIsRefusedTakesNothingFromItsWriter) {
  logIn();
  server.answer("STOR", {"553 no\r\n"});
  int taken = 0;
  const auto next = [&taken](std::byte*, size_t) -> size_t {
    ++taken;
    return 0;
  };
  EXPECT_FALSE(session->stream(next, "/file", control, &error));
  EXPECT_EQ(taken, 0);
}

TEST_F(FTPTransfers, ADownloadGoesOnAtItsOffset) {
  logIn();
  server.putFile("/file", "0123456789");
  EXPECT_EQ(download("/file"), "0123456789");
  EXPECT_EQ(download("/file", 4), "456789");
  EXPECT_THAT(sent("REST "), ElementsAre("REST 4"));
  EXPECT_EQ(download("/file", 10), "") << "all of it is here: nothing is asked for";
  EXPECT_EQ(sent("RETR /file").size(), 2u);
}

TEST_F(FTPTransfers, ADownloadOfAFileThatChangedDoesNotGoOn) {
  logIn();
  server.putFile("/file", "0123456789");
  EXPECT_EQ(download("/file"), "0123456789");
  server.putFile("/file", "0123456789a");
  EXPECT_FALSE(download("/file", 4).has_value());
  EXPECT_TRUE(failedWith(kQuarnKitItemChanged));
  server.putFile("/file", "012");
  version.clear();
  EXPECT_FALSE(download("/file", 4).has_value());
  EXPECT_TRUE(failedWith(kQuarnKitItemChanged)) << "there is nothing at that offset any more";
}

// As long as before: the date alone tells.
TEST_F(FTPTransfers, ADownloadOfAFileWithAnotherDateDoesNotGoOn) {
  logIn();
  server.putFile("/file", "0123456789");
  EXPECT_EQ(download("/file"), "0123456789");
  server.answer(
      "MLST /file",
      {"250-Begin\r\n type=file;size=10;modify=20240514093001;UNIX.mode=0644; /file\r\n250 End\r\n"});
  EXPECT_FALSE(download("/file", 4).has_value());
  EXPECT_TRUE(failedWith(kQuarnKitItemChanged));
  EXPECT_THAT(sent("REST "), IsEmpty());
}

TEST_F(FTPTransfers, AnOlderServerTellsAChangedFileByItsLengthAndDateToo) {
  server.setFeatures({"SIZE", "MDTM", "REST STREAM", "EPSV"});
  logIn();
  server.putFile("/file", "0123456789");
  EXPECT_EQ(download("/file"), "0123456789");
  EXPECT_EQ(download("/file", 4), "456789");
  const std::string known = version;
  server.answer("MDTM /file", {"213 20240514093001\r\n"});
  EXPECT_FALSE(download("/file", 4).has_value());
  EXPECT_TRUE(failedWith(kQuarnKitItemChanged)) << "another date";
  server.answer("MDTM /file", {"213 20240514093000\r\n"});
  server.putFile("/file", "0123456789a");
  version = known;
  EXPECT_FALSE(download("/file", 4).has_value());
  EXPECT_TRUE(failedWith(kQuarnKitItemChanged)) << "another length";
}

TEST_F(FTPTransfers, ARestartThatWasNotUsedIsTakenBack) {
  logIn();
  server.putFile("/file", "0123456789");
  server.answer("RETR /file", {"550 no, not now\r\n"});
  EXPECT_FALSE(download("/file", 4).has_value());
  EXPECT_EQ(download("/learnt"), "x");
  EXPECT_THAT(sent("REST "), ElementsAre("REST 4", "REST 0"));
}

TEST_F(FTPTransfers, ARestartThatIsRefusedBringsNothingIntoTheWrongPlace) {
  logIn();
  server.putFile("/file", "0123456789");
  server.answer("REST 4", {"502 no\r\n"});
  EXPECT_FALSE(download("/file", 4).has_value());
  EXPECT_TRUE(failedWith(kQuarnKitNotSupported));
  EXPECT_EQ(download("/learnt"), "x");
}

TEST_F(FTPTransfers, DataThatAreCutOffAreALostConnectionAndWhatArrivedIsKept) {
  logIn();
  server.putFile("/file", "whole");
  server.send("RETR /file", "who", FakeFTPServer::End::kClosed);
  server.answer("end of RETR /file", {"426 cut\r\n"});
  const auto file = temporaryFile();
  EXPECT_FALSE(session->download("/file", *file, 0, &version, control, &error));
  EXPECT_TRUE(failedWith(kQuarnKitConnectionLost));
  EXPECT_EQ(contentOf(*file), "who");
  EXPECT_EQ(control.reached.back(), 3u);
}

// It says that this was all, but has told of more before.
TEST_F(FTPTransfers, AnEndBeforeTheLengthThatWasToldIsALostConnection) {
  logIn();
  server.putFile("/file", "whole");
  server.send("RETR /file", "who", FakeFTPServer::End::kClosed);
  EXPECT_FALSE(download("/file").has_value());
  EXPECT_TRUE(failedWith(kQuarnKitConnectionLost));
  session = newSession();
  ASSERT_NE(session, nullptr);
  server.send("RETR /file", "le", FakeFTPServer::End::kClosed);
  EXPECT_EQ(download("/file", 3), "le");
}

// As some servers do: the length and the date that MLST tells are those of the link.
TEST_F(FTPTransfers, ALinkWhoseOwnLengthIsToldArrivesAndGoesOn) {
  logIn();
  server.putFile("/short", "whole");
  server.answer("MLST /short", {"250-Begin\r\n type=file;size=11; /short\r\n250 End\r\n"});
  EXPECT_EQ(download("/short"), "whole");
  server.putFile("/long", "0123456789");
  server.answer("MLST /long", {"250-Begin\r\n type=file;size=3; /long\r\n250 End\r\n"});
  version.clear();
  EXPECT_EQ(download("/long"), "0123456789");
  EXPECT_EQ(download("/long", 4), "456789");
}

TEST_F(FTPTransfers, AFileThatHasGrownSinceItsLengthWasToldArrivesWhole) {
  logIn();
  server.putFile("/file", "whole");
  server.send("RETR /file", "whole and more", FakeFTPServer::End::kClosed);
  EXPECT_EQ(download("/file"), "whole and more");
}

TEST_F(FTPTransfers, AResetDataConnectionIsALostConnection) {
  logIn();
  server.putFile("/file", "whole");
  server.send("RETR /file", "", FakeFTPServer::End::kReset);
  EXPECT_FALSE(download("/file").has_value());
  EXPECT_TRUE(failedWith(kQuarnKitConnectionLost));
}

TEST_F(FTPTransfers, AnEndThatIsToldBeforeTheDataCutsNothingOff) {
  logIn();
  server.setEndsBeforeData(true);
  const std::string content(3 << 20, 'x');
  server.putFile("/file", content);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(download("/file") == content);
  EXPECT_EQ(download("/learnt"), "x");
}

TEST_F(FTPTransfers, ASilenceInTheMiddleOfADownloadEndsItAfterTheLimit) {
  logIn();
  environment.idleLimit = std::chrono::milliseconds(200);
  session = newSession();
  ASSERT_NE(session, nullptr);
  server.putFile("/file", "whole");
  server.send("RETR /file", "who", FakeFTPServer::End::kSilent);
  EXPECT_FALSE(download("/file").has_value());
  EXPECT_TRUE(failedWith(kQuarnKitTimedOut));
}

TEST_F(FTPTransfers, ACancelledDownloadStopsWhileNothingComesAndTheSessionGoesOn) {
  logIn();
  server.putFile("/file", "whole");
  server.send("RETR /file", "who", FakeFTPServer::End::kSilent);
  control.cancelAt = 3;
  EXPECT_FALSE(download("/file").has_value());
  EXPECT_TRUE(failedWith(kQuarnKitCancelled));
  control.reached.clear();
  control.cancelAt = UINT64_MAX;
  EXPECT_EQ(download("/learnt"), "x");
}

TEST_F(FTPTransfers, ATransferThatIsCancelledBeforeItBeginsAsksForNothing) {
  logIn();
  control.cancelled = true;
  EXPECT_FALSE(download("/learnt").has_value());
  EXPECT_TRUE(failedWith(kQuarnKitCancelled));
  EXPECT_EQ(sent("RETR ").size(), 1u) << "the one that logIn made";
}

TEST_F(FTPTransfers, InterruptEndsAWaitFromAnotherThread) {
  logIn();
  server.putFile("/file", "whole");
  server.send("RETR /file", "who", FakeFTPServer::End::kSilent);
  class Interrupter final : public TransferControl {
   public:
    explicit Interrupter(Session& running) : iSession(running) {}
    ~Interrupter() override {
      if (iThread.joinable()) iThread.join();
    }
    void progress(uint64_t) override {
      iThread = std::thread([this] { iSession.interrupt(); });
    }
    bool shouldCancel() const override { return false; }

   private:
    Session& iSession;
    std::thread iThread;
  } interrupter(*session);
  const auto file = temporaryFile();
  EXPECT_FALSE(session->download("/file", *file, 0, &version, interrupter, &error));
  EXPECT_TRUE(failedWith(kQuarnKitConnectionLost));
  EXPECT_FALSE(session->isAlive());
}

TEST_F(FTPTransfers, MissingFilesSaySo) {
  logIn();
  EXPECT_FALSE(download("/missing").has_value());
  EXPECT_TRUE(failedWith(kQuarnKitNoSuchItem));
  EXPECT_EQ(download("/learnt"), "x");
}

TEST_F(FTPTransfers, NamesThatTheProtocolCannotCarryAreRefusedBeforeAnythingIsSent) {
  logIn();
  const size_t before = server.commands().size();
  for (const std::string& path :
       {std::string("/a\nDELE /learnt"), std::string("/a\rb"), std::string("/a\0b", 4)}) {
    EXPECT_FALSE(download(path).has_value());
    EXPECT_TRUE(failedWith(kQuarnKitNameInvalid));
    EXPECT_FALSE(upload(path, "x"));
    EXPECT_FALSE(session->remove(path, false, &error));
    EXPECT_FALSE(session->move("/learnt", false, path, &error));
    EXPECT_TRUE(failedWith(kQuarnKitNameInvalid));
  }
  EXPECT_EQ(server.commands().size(), before);
}

TEST_F(FTPTransfers, PlainPassiveModeIsTakenWhereTheExtendedOneIsUnknown) {
  server.answer("EPSV", {"500 what?\r\n"});
  logIn();
  EXPECT_EQ(download("/learnt"), "x");
  ASSERT_TRUE(upload("/file", "new"));
  EXPECT_EQ(sent("EPSV").size(), 1u);
  server.waitForAnswers("PASV", 4);
  EXPECT_EQ(sent("PASV").size(), 4u) << "the last one for what may follow";
}

// The server names another host in its reply, as one behind an address translation does, or a hostile one.
TEST_F(FTPTransfers, TheAddressInAPassiveReplyIsNotFollowed) {
  server.answer("EPSV", {"500 what?\r\n"});
  logIn();
  server.putFile("/file", "content");
  EXPECT_EQ(download("/file"), "content");
  EXPECT_THAT(transcript->text(), HasSubstr("227 Passive (192,0,2,1,"));
}

}  // namespace
}  // namespace ombra
