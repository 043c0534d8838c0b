// Logging in, looking, changing, and servers that misbehave.
#include "tests/ftp/FTPSessionFixture.h"

namespace ombra {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class FTPSessions : public FTPSessionTest {};

TEST_F(FTPSessions, LogInAndLandInTheirFolder) {
  logIn();
  EXPECT_EQ(session->loginPath(), "/home");
  EXPECT_TRUE(session->isAlive());
}

TEST_F(FTPSessions, TheFailuresOfALogin) {
  struct Case {
    const char* start;
    const char* reply;
    QuarnKitErrorCode expected;
  };
  const Case table[] = {
      {"USER", "530 no\r\n", kQuarnKitLoginFailed},
      {"PASS", "530 Login incorrect.\r\n", kQuarnKitLoginFailed},
      {"PASS", "332 account, please\r\n", kQuarnKitLoginFailed},
      {"PASS", "530 Sorry, the maximum number of clients are already connected\r\n",
       kQuarnKitTooManyConnections},
      {"PASS", "421 too many users\r\n", kQuarnKitTooManyConnections},
      {"PASS", "", kQuarnKitConnectionLost},
      {"TYPE", "504 text only\r\n", kQuarnKitProtocolError},
      {"PASS", "hello\r\n", kQuarnKitProtocolError},
  };
  for (const Case& one : table) {
    FakeFTPServer other;
    other.answer(one.start, {one.reply});
    prepare(other.credentials());
    EXPECT_EQ(newSession(), nullptr) << one.reply;
    EXPECT_TRUE(failedWith(one.expected)) << one.reply;
  }
}

TEST_F(FTPSessions, GreetingsThatTurnUsAway) {
  const std::pair<const char*, QuarnKitErrorCode> table[] = {
      {"421 There are too many connected users, please try later.", kQuarnKitTooManyConnections},
      {"530 too many connections from your address", kQuarnKitTooManyConnections},
      {"500 go away", kQuarnKitCouldNotConnect},
      {"SSH-2.0-OpenSSH_9.2", kQuarnKitProtocolError},
      {"", kQuarnKitConnectionLost},
  };
  for (const auto& [greeting, expected] : table) {
    FakeFTPServer other;
    other.setGreetings({greeting});
    prepare(other.credentials());
    EXPECT_EQ(newSession(), nullptr) << greeting;
    EXPECT_TRUE(failedWith(expected)) << greeting;
  }
}

TEST_F(FTPSessions, APromiseBeforeTheGreetingIsWaitedFor) {
  server.setGreetings({"120 in a moment\r\n220 here I am"});
  logIn();
}

TEST_F(FTPSessions, AServerThatNeverGreetsIsGivenUp) {
  server.setGreetings({"220-a greeting\r\n without an end"});
  prepare(server.credentials());
  environment.connectLimit = std::chrono::milliseconds(150);
  EXPECT_EQ(newSession(), nullptr);
  EXPECT_TRUE(failedWith(kQuarnKitCouldNotConnect));
}

TEST_F(FTPSessions, ALoginNameWithALineEndIsNotSent) {
  const auto credentials = server.credentials();
  credentials->setUsername("me\r\nDELE /everything");
  prepare(credentials);
  EXPECT_EQ(newSession(), nullptr);
  EXPECT_TRUE(failedWith(kQuarnKitLoginFailed));
  EXPECT_THAT(sent("DELE"), IsEmpty());
}

TEST_F(FTPSessions, TheTranscriptShowsTheConversationWithoutThePassword) {
  server.setFeatures(kModernFeatures);
  server.answer("PASS", {"230-You said sesame-4711\r\n230 welcome\r\n"});
  logIn();
  const std::string text = transcript->text();
  EXPECT_THAT(text, HasSubstr("> USER someone\n"));
  EXPECT_THAT(text, HasSubstr("> PASS ********\n"));
  EXPECT_THAT(text, HasSubstr("< 230-You said ********\n"));
  EXPECT_THAT(text, HasSubstr("> RETR /learnt\n"));
  EXPECT_THAT(text, Not(HasSubstr("sesame-4711")));
}

TEST_F(FTPSessions, TheTranscriptForgesNoLines) {
  logIn();
  server.answer("MKD", {"550 no\x1b[2J\x07\r\n"});
  EXPECT_FALSE(session->createFolder("/x", &error));
  EXPECT_THAT(transcript->text(), HasSubstr("< 550 no\\x1b[2J\\x07\n"));
}

TEST_F(FTPSessions, A421InTheMiddleIsALostConnection) {
  logIn();
  server.answer("MKD", {"421 Timeout\r\n"});
  EXPECT_FALSE(session->createFolder("/x", &error));
  EXPECT_TRUE(failedWith(kQuarnKitConnectionLost));
  EXPECT_FALSE(session->isAlive());
}

TEST_F(FTPSessions, AControlConnectionThatEndsIsALostConnection) {
  logIn();
  server.answer("MKD", {""});
  EXPECT_FALSE(session->createFolder("/x", &error));
  EXPECT_TRUE(failedWith(kQuarnKitConnectionLost));
}

TEST_F(FTPSessions, RepliesThatMakeNoSenseEndTheSession) {
  const char* const replies[] = {"hello\r\n", "200ok\r\n", "\x16\x03\x01\r\n"};
  for (const char* reply : replies) {
    FakeFTPServer other;
    prepare(other.credentials());
    session = newSession();
    ASSERT_NE(session, nullptr);
    other.answer("MKD", {reply});
    EXPECT_FALSE(session->createFolder("/x", &error));
    EXPECT_TRUE(failedWith(kQuarnKitProtocolError)) << reply;
    EXPECT_FALSE(session->isAlive());
    session.reset();
  }
}

TEST_F(FTPSessions, EndlessPromisesEndTheSession) {
  logIn();
  std::string promises;
  for (int i = 0; i < 2000; ++i) promises += "150 soon\r\n";
  server.answer("MKD", {"200 x\r\n"});
  server.answer("MKD", {promises + "x"});
  EXPECT_FALSE(session->createFolder("/x", &error));
  EXPECT_TRUE(failedWith(kQuarnKitProtocolError));
}

TEST_F(FTPSessions, PortsThatAreNoneEndTheSession) {
  learns = false;
  logIn();
  server.answer("EPSV", {"229 here (|||70000|)\r\n"});
  server.putFile("/file", "x");
  EXPECT_FALSE(download("/file").has_value());
  EXPECT_TRUE(failedWith(kQuarnKitProtocolError));
}

TEST_F(FTPSessions, AServerThatThrowsAwayWhatCameEarlyIsAskedOneByOne) {
  // It answers the first of what came together and stays silent on the rest.
  prepare(server.credentials());
  server.setKeepsOnlyFirst(true);
  environment.connectLimit = std::chrono::milliseconds(300);
  EXPECT_EQ(newSession(), nullptr);
  EXPECT_TRUE(failedWith(kQuarnKitTimedOut));
  // On a busy machine that login may have got no further than to the name.
  for (int attempt = 0; session == nullptr && attempt < 3; ++attempt) {
    environment.connectLimit *= 4;
    session = newSession();
  }
  ASSERT_NE(session, nullptr) << error->description();
  server.putFile("/file", "content");
  EXPECT_EQ(download("/file"), "content");
  ASSERT_TRUE(upload("/file", "more")) << error->description();
  EXPECT_EQ(server.file("/file"), "more");
}

// Listings.

TEST_F(FTPSessions, ListingsInFactsHideWhatIsNoItem) {
  server.setFeatures(kModernFeatures);
  logIn();
  server.send("MLSD",
              "type=cdir; .\r\ntype=pdir; ..\r\ntype=file;size=1; a\r\ntype=dir; b\r\n"
              "type=file; .ombra-upload-6FA459EA-EE8A-4CA4-894E-DB77E160355E\r\ntype=file; ..\r\n"
              "type=file; ../../etc/passwd\r\ntype=OS.unix=chr; device\r\ntype=file; c\r\n");
  EXPECT_THAT(list("/"), ElementsAre("a", "b", "c"));
}

TEST_F(FTPSessions, NamesWithAZeroByteAreNotListed) {
  const std::string zero(1, '\0');
  server.setFeatures(kModernFeatures);
  logIn();
  server.send("MLSD", "type=file; a" + zero + "b\r\ntype=file; " + zero + "\r\ntype=file; c\r\n");
  EXPECT_THAT(list("/"), ElementsAre("c"));
}

TEST_F(FTPSessions, ListingsInLinesAreAskedForWithAllNames) {
  logIn();
  server.send("LIST -a",
              "total 3\r\ndrwxr-xr-x 2 a b 0 Jan  1  2020 .\r\n-rw-r--r-- 1 a b 1 Jan  1  2020 .hidden\r\n"
              "-rw-r--r-- 1 a b 1 Jan  1  2020 x\r\n-rw-r--r-- 1 a b 1 Jan  1  2020 a/b\r\n"
              "-rw-r--r-- 1 a b 1 Jan  1  2020 .ombra-upload-6FA459EA-EE8A-4CA4-894E-DB77E160355E\r\n");
  EXPECT_THAT(list("/folder"), ElementsAre(".hidden", "x"));
  EXPECT_THAT(sent("CWD"), ElementsAre("CWD /folder"));
}

TEST_F(FTPSessions, WhereAllNamesMeansOneOfThatNameTheListingIsAskedForPlainly) {
  logIn();
  server.send("LIST -a", "");
  server.send("LIST", "05-14-24  09:30AM                  184 iisstart.htm\r\n");
  EXPECT_THAT(list("/"), ElementsAre("iisstart.htm"));
  EXPECT_THAT(list("/"), ElementsAre("iisstart.htm"));
  EXPECT_THAT(sent("LIST"), ElementsAre("LIST -a", "LIST", "LIST"));
}

TEST_F(FTPSessions, AnEmptyFolderThatIsRefusedIsEmpty) {
  logIn();
  server.answer("LIST", {"550 No files found.\r\n"});
  EXPECT_THAT(list("/"), IsEmpty());
  EXPECT_EQ(error, nullptr) << error->description();
}

TEST_F(FTPSessions, AListingThatCannotBeReadIsNotAnEmptyOne) {
  logIn();
  server.send("LIST", "+i8388621.48594,m825718503,r,s280,\tdjb.html\r\n");
  EXPECT_THAT(list("/"), IsEmpty());
  EXPECT_TRUE(failedWith(kQuarnKitProtocolError));
}

TEST_F(FTPSessions, AListingOfOneEndlessLineIsRefused) {
  logIn();
  server.send("LIST", std::string(200000, 'x'));
  EXPECT_THAT(list("/"), IsEmpty());
  EXPECT_TRUE(failedWith(kQuarnKitProtocolError));
  EXPECT_EQ(download("/learnt"), "x");
}

TEST_F(FTPSessions, AListingThatIsCutOffIsNone) {
  server.setFeatures(kModernFeatures);
  logIn();
  server.send("MLSD", "type=file;size=1; a\r\n", FakeFTPServer::End::kClosed);
  server.answer("end of MLSD", {"426 broken\r\n"});
  EXPECT_THAT(list("/"), IsEmpty());
  EXPECT_TRUE(failedWith(kQuarnKitConnectionLost));
}

TEST_F(FTPSessions, TheReasonsWhyAFolderCannotBeListed) {
  logIn();
  server.putFile("/file", "x");
  EXPECT_THAT(list("/file"), IsEmpty());
  EXPECT_TRUE(failedWith(kQuarnKitNotAFolder));
  server.answer("CWD /missing", {"550 Failed to change directory.\r\n"});
  EXPECT_THAT(list("/missing"), IsEmpty());
  EXPECT_TRUE(failedWith(kQuarnKitNoSuchItem));
  server.answer("end of LIST", {"226 Transfer done (but failed to open directory).\r\n"});
  EXPECT_THAT(list("/closed"), IsEmpty());
  EXPECT_TRUE(failedWith(kQuarnKitListingNotPermitted));
}

TEST_F(FTPSessions, LinksAreResolvedWithTheListing) {
  logIn();
  server.putFile("/other/file", "12345");
  server.send(
      "LIST",
      "lrwxrwxrwx 1 a b 1 Jan  1  2020 near -> x\r\nlrwxrwxrwx 1 a b 4 Jan  1  2020 far -> /other/file\r\n"
      "lrwxrwxrwx 1 a b 3 Jan  1  2020 one -> two\r\nlrwxrwxrwx 1 a b 3 Jan  1  2020 two -> one\r\n"
      "lrwxrwxrwx 1 a b 4 Jan  1  2020 twice -> near\r\n"
      "-rw-r--r-- 1 a b 7 Jan  1  2020 x\r\n");
  server.answer("CWD /", {"250 there\r\n"});
  server.answer("CWD /other", {"550 no\r\n"});
  std::vector<RemoteEntry> entries;
  ASSERT_TRUE(session->list("/", &entries, &error)) << error->description();
  ASSERT_EQ(entries.size(), 6u);
  EXPECT_EQ(entries[0].resolution->resolvedPath, "/x");
  EXPECT_EQ(entries[0].resolution->attributes->fileSize, 7u);
  EXPECT_EQ(entries[1].resolution->resolvedPath, "/other/file");
  EXPECT_EQ(entries[1].resolution->attributes->fileSize, 5u);
  EXPECT_FALSE(entries[2].resolution->resolved) << "a circle";
  EXPECT_FALSE(entries[3].resolution->resolved);
  EXPECT_EQ(entries[4].resolution->resolvedPath, "/x");
}

// Changes.

TEST_F(FTPSessions, ALinkToEverNewLinksIsFollowedNoFurtherThanAnySystemDoes) {
  server.setFeatures(kModernFeatures);
  logIn();
  std::vector<std::string> replies;
  for (int i = 0; i < 100; ++i) {
    const std::string target = "/way" + std::to_string(i);
    replies.push_back("250-Begin\r\n type=OS.unix=slink:" + target + "; x\r\n250 End\r\n");
  }
  server.answer("MLST /way", replies);
  const auto resolution = session->resolveLink("/way", &error);
  ASSERT_TRUE(resolution) << error->description();
  EXPECT_FALSE(resolution->resolved);
  EXPECT_EQ(sent("MLST /way").size(), 40u);
}

TEST_F(FTPSessions, AMoveDoesNotReplaceWhatHasAppearedThere) {
  server.setFeatures(kModernFeatures);
  logIn();
  server.putFile("/a", "1");
  server.putFile("/b", "2");
  EXPECT_FALSE(session->move("/a", false, "/b", &error));
  EXPECT_TRUE(failedWith(kQuarnKitItemExists));
  EXPECT_EQ(server.file("/a"), "1");
  EXPECT_EQ(server.file("/b"), "2");
  EXPECT_TRUE(session->move("/a", false, "/A", &error)) << "a change of case is no replacement";
  EXPECT_FALSE(session->move("/missing", false, "/c", &error));
  EXPECT_TRUE(failedWith(kQuarnKitNoSuchItem));
}

TEST_F(FTPSessions, AModeAndADateAreChanged) {
  server.setFeatures(kModernFeatures);
  logIn();
  NSFileAttributes both;
  both.posixPermissions = 0640;
  both.modificationDate = NSDate::dateWithTimeIntervalSince1970(1e9);
  EXPECT_TRUE(session->changeAttributes(both, "/learnt", &error));
  EXPECT_THAT(sent("SITE"), ElementsAre("SITE CHMOD 640 /learnt"));
  EXPECT_THAT(sent("MFMT"), ElementsAre("MFMT 20010909014640 /learnt"));
}

TEST_F(FTPSessions, AttributesThatTheProtocolCannotChange) {
  logIn();
  NSFileAttributes owner;
  owner.ownerAccountID = 5;
  owner.posixPermissions = 0600;
  EXPECT_FALSE(session->changeAttributes(owner, "/learnt", &error));
  EXPECT_TRUE(failedWith(kQuarnKitAttributeChangeNotSupported));
  NSFileAttributes date;
  date.modificationDate = NSDate();
  EXPECT_FALSE(session->changeAttributes(date, "/learnt", &error));
  EXPECT_TRUE(failedWith(kQuarnKitAttributeChangeNotSupported));
  EXPECT_THAT(sent("SITE"), IsEmpty()) << "nothing is changed where not all can be";
  NSFileAttributes mode;
  mode.posixPermissions = 0600;
  for (const char* reply : {"502 no\r\n", "500 Unknown SITE command.\r\n", "550 Permission denied.\r\n"}) {
    server.answer("SITE CHMOD", {reply});
    EXPECT_FALSE(session->changeAttributes(mode, "/learnt", &error));
    EXPECT_TRUE(failedWith(kQuarnKitAttributeChangeNotSupported)) << reply;
  }
}

TEST_F(FTPSessions, ModesAreAskedForNoMoreWhenTheServerNeverSaidAnythingElse) {
  logIn();
  server.answer("SITE CHMOD", {"550 Permission denied.\r\n"});
  NSFileAttributes mode;
  mode.posixPermissions = 0600;
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(session->changeAttributes(mode, "/learnt", &error));
    EXPECT_TRUE(failedWith(kQuarnKitAttributeChangeNotSupported));
  }
  EXPECT_EQ(sent("SITE").size(), 3u);
}

TEST_F(FTPSessions, ModesAreAskedForAgainWhenTheServerHasChangedOne) {
  logIn();
  server.answer("SITE CHMOD /other", {"200 fine\r\n"});
  NSFileAttributes mode;
  mode.posixPermissions = 0600;
  EXPECT_TRUE(session->changeAttributes(mode, "/other", &error));
  server.answer("SITE CHMOD", {"550 Permission denied.\r\n"});
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(session->changeAttributes(mode, "/learnt", &error));
  EXPECT_EQ(sent("SITE").size(), 6u);
}

TEST_F(FTPSessions, LinksAndVolumesAreUnknownToTheProtocol) {
  logIn();
  EXPECT_FALSE(session->createSymbolicLink("/link", "target", &error));
  EXPECT_TRUE(failedWith(kQuarnKitNotSupported));
  EXPECT_FALSE(session->fileSystemAttributes("/", &error).has_value());
  EXPECT_TRUE(failedWith(kQuarnKitNotSupported));
}

TEST_F(FTPSessions, AFolderWithNothingButOldRemainsOfUploadsIsRemoved) {
  server.setFeatures(kModernFeatures);
  logIn();
  const std::string name = ".ombra-upload-6FA459EA-EE8A-4CA4-894E-DB77E160355E";
  server.putFile("/folder/" + name, "half");
  server.send("MLSD", "type=cdir; .\r\ntype=file;size=4;modify=20200101000000; " + name + "\r\n");
  server.answer("RMD", {"550 Directory not empty\r\n", "250 gone\r\n"});
  EXPECT_TRUE(session->remove("/folder", true, &error)) << error->description();
  EXPECT_THAT(sent("DELE"), ElementsAre("DELE /folder/" + name));
}

TEST_F(FTPSessions, AFolderInWhichAnUploadIsUnderWayIsNotRemoved) {
  server.setFeatures(kModernFeatures);
  logIn();
  server.send(
      "MLSD",
      "type=file;size=4;modify=20990101000000; .ombra-upload-6FA459EA-EE8A-4CA4-894E-DB77E160355E\r\n");
  server.answer("RMD", {"550 Directory not empty\r\n"});
  EXPECT_FALSE(session->remove("/folder", true, &error));
  EXPECT_TRUE(failedWith(kQuarnKitFolderNotEmpty));
  EXPECT_THAT(sent("DELE"), IsEmpty());
}

TEST_F(FTPSessions, APathFromTheHomeFolderGoesAsItIs) {
  logIn();
  server.answer("PWD", {"257 \"/home/someone/sub\"\r\n"});
  bool isDirectory = false;
  EXPECT_EQ(session->realPath("~/sub", "/elsewhere", &isDirectory, &error), "/home/someone/sub");
  EXPECT_TRUE(isDirectory);
  EXPECT_THAT(sent("CWD"), ElementsAre("CWD ~/sub"));
}

TEST_F(FTPSessions, UTF8IsAskedForUnlessAnotherEncodingWasChosen) {
  server.setFeatures(kModernFeatures);
  // As some servers answer that never speak anything else.
  server.answer("OPTS UTF8", {"504 it is on already\r\n"});
  logIn();
  EXPECT_THAT(sent("OPTS UTF8"), ElementsAre("OPTS UTF8 ON"));
  FakeFTPServer other;
  other.setFeatures(kModernFeatures);
  const auto credentials = other.credentials();
  credentials->setEncoding("ISO-8859-1");
  prepare(credentials);
  const auto latin = newSession();
  ASSERT_NE(latin, nullptr);
  EXPECT_THAT(other.commands(), Not(Contains("OPTS UTF8 ON")));
}

TEST_F(FTPSessions, AStartFolderThatWasNotToldIsLookedAt) {
  server.answer("PWD", {"502 what?\r\n"});
  session = newSession();
  ASSERT_NE(session, nullptr);
  server.answer("CWD /", {"550 no\r\n"});
  bool isDirectory = false;
  EXPECT_FALSE(session->realPath(session->loginPath(), "/", &isDirectory, &error).has_value());
}

}  // namespace
}  // namespace ombra
