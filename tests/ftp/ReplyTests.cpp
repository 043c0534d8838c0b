// Replies, as bytes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "remote/ftp/FTPErrors.h"
#include "remote/ftp/FTPFeatures.h"
#include "remote/ftp/FTPReply.h"
#include "remote/ftp/FTPReplyItems.h"

namespace ombra {
namespace {

using testing::ElementsAre;

struct ReplyCase {
  const char* bytes;
  int code;
  std::vector<std::string> lines;
};

const ReplyCase kReplyCases[] = {
    {"220 ready\r\n", 220, {"ready"}},
    {"220\r\n", 220, {""}},
    {"220 ready\n", 220, {"ready"}},
    {"\r\n220 ready\r\n", 220, {"ready"}},
    {"220-Welcome\r\n220-to this\r\n220 ready\r\n", 220, {"Welcome", "to this", "ready"}},
    {"220-Welcome\r\nto this\r\n  220 no end yet\r\n220 ready\r\n",
     220,
     {"Welcome", "to this", "  220 no end yet", "ready"}},
    {"211-Features:\r\n 230 MB\r\n331 is not the end\r\n211 End\r\n",
     211,
     {"Features:", " 230 MB", "331 is not the end", "End"}},
    {"250-\r\n250 \r\n", 250, {"", ""}},
    {"550 caf\xC3\xA9\r\n", 550, {"caf\xC3\xA9"}},
};

TEST(FTPReply, IsReadHoweverItIsCut) {
  for (const ReplyCase& one : kReplyCases) {
    const std::string bytes = one.bytes;
    for (size_t step = 1; step <= bytes.size(); ++step) {
      FTPReplyParser parser;
      std::optional<FTPReply> reply;
      for (size_t at = 0; at < bytes.size(); at += step) {
        EXPECT_FALSE(reply.has_value()) << bytes << " ends before its end";
        parser.add(bytes.substr(at, step));
        reply = parser.next();
      }
      ASSERT_TRUE(reply.has_value()) << bytes;
      EXPECT_EQ(reply->code, one.code) << bytes;
      EXPECT_EQ(reply->lines, one.lines) << bytes;
      EXPECT_TRUE(parser.isEmpty());
    }
  }
}

TEST(FTPReply, SeveralInOnePieceAreReadInOrder) {
  FTPReplyParser parser;
  parser.add("200 one\r\n350-two\r\n350 three\r\n550 four\r\n22");
  std::vector<int> codes;
  while (const auto reply = parser.next()) codes.push_back(reply->code);
  EXPECT_THAT(codes, ElementsAre(200, 350, 550));
  EXPECT_FALSE(parser.isEmpty());
  EXPECT_FALSE(parser.isBroken());
}

TEST(FTPReply, WhatIsNoneIsFoundOut) {
  for (const char* bytes : {"hello\r\n", "HTTP/1.1 400 Bad Request\r\n", "20\r\n", "999 no\r\n", "099 no\r\n",
                            "220ready\r\n", "SSH-2.0-OpenSSH_9.2\r\n", "2 0 ready\r\n"}) {
    FTPReplyParser parser;
    parser.add(bytes);
    EXPECT_FALSE(parser.next().has_value()) << bytes;
    EXPECT_TRUE(parser.isBroken()) << bytes;
  }
}

TEST(FTPReply, OneThatNeverEndsIsFoundOut) {
  FTPReplyParser line;
  line.add("220 " + std::string(FTPReplyParser::kMaximumReply, 'x'));
  EXPECT_FALSE(line.next().has_value());
  EXPECT_TRUE(line.isBroken());
  FTPReplyParser lines;
  lines.add("220-begin\r\n");
  for (size_t i = 0; i < FTPReplyParser::kMaximumReply / 100 + 1 && !lines.isBroken(); ++i) {
    lines.add(std::string(120, 'x') + "\r\n");
    EXPECT_FALSE(lines.next().has_value());
  }
  EXPECT_TRUE(lines.isBroken());
}

TEST(FTPReply, DescriptionIsOneLineWithoutControlCharacters) {
  FTPReply reply{550, {"no\x1b[31m", "way\r"}};
  EXPECT_EQ(reply.description(), "550 no [31m way ");
  reply.lines.assign(1000, "words and words");
  EXPECT_LT(reply.description().size(), 500u);
}

TEST(FTPReply, PathsAreTakenOutOfTheirQuotes) {
  const std::pair<const char*, std::optional<std::string>> table[] = {
      {"\"/home/me\" is the current directory", "/home/me"},
      {"\"/a \"\"b\"\" c\"", "/a \"b\" c"},
      {"is \"/\"", "/"},
      {"\"\" is nowhere", std::nullopt},
      {"\"/never ends", std::nullopt},
      {"/home/me", std::nullopt},
  };
  for (const auto& [text, path] : table) EXPECT_EQ(quotedFTPPath(text), path) << text;
}

TEST(FTPReply, PortsOfDataConnections) {
  const std::pair<const char*, std::optional<int>> extended[] = {
      {"Entering Extended Passive Mode (|||6446|)", 6446},
      {"ok (!!!65535!)", 65535},
      {"(|||0|)", std::nullopt},
      {"(|||65536|)", std::nullopt},
      {"(||6446|)", std::nullopt},
      {"(|||6446", std::nullopt},
      {"(|||-1|)", std::nullopt},
      {"(|||99999999999999999999|)", std::nullopt},
      {"nothing", std::nullopt},
      {"(", std::nullopt},
  };
  for (const auto& [text, port] : extended) EXPECT_EQ(portOfExtendedPassive(text), port) << text;
  const std::pair<const char*, std::optional<int>> plain[] = {
      {"Entering Passive Mode (127,0,0,1,4,1)", 1025},
      {"Entering Passive Mode. 10,0,0,1,255,255", 65535},
      {"=10, 0, 0, 1, 1, 0", 256},
      {"2 servers, at (1,2,3,4,0,21).", 21},
      {"(127,0,0,1,0,0)", std::nullopt},
      {"(127,0,0,1,256,1)", std::nullopt},
      {"(127,0,0,1,4)", std::nullopt},
      {"(127,0,0,1,4,x)", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [text, port] : plain) EXPECT_EQ(portOfPassive(text), port) << text;
}

FTPReply featReply(std::vector<std::string> features) {
  FTPReply reply{211, {"Features:"}};
  for (std::string& feature : features) reply.lines.push_back(" " + feature);
  reply.lines.emplace_back("End");
  return reply;
}

TEST(FTPFeatures, AreReadInWhateverCase) {
  const FTPFeatures all = featuresOfReply(featReply(
      {"utf8", "MLST type*;size*;modify*;", "mfmt", "REST STREAM", "SIZE", "MDTM", "EPSV", "AUTH TLS;SSL"}));
  EXPECT_TRUE(all.utf8 && all.mlst && all.mfmt && all.restStream && all.size && all.mdtm && all.epsv);
  EXPECT_EQ(all.factsCommand, "");
  const FTPFeatures none = featuresOfReply({500, {"what?"}});
  EXPECT_FALSE(none.utf8 || none.mlst || none.mfmt || none.size);
  EXPECT_FALSE(featuresOfReply({211, {"MLST"}}).mlst) << "the heading is no feature";
}

TEST(FTPFeatures, FactsThatAreOffAreAskedFor) {
  EXPECT_EQ(featuresOfReply(featReply({"MLST Type*;Size*;Modify;UNIX.mode;charset;"})).factsCommand,
            "OPTS MLST Type;Size;Modify;UNIX.mode;");
}

TEST(FTPErrors, CodesAndTextsTellTheReason) {
  struct Case {
    int code;
    const char* text;
    FTPOperation operation;
    QuarnKitErrorCode expected;
  };
  const Case table[] = {
      {550, "/a/b: No such file or directory", FTPOperation::kRead, kQuarnKitNoSuchItem},
      {550, "The system cannot find the file specified. ", FTPOperation::kRead, kQuarnKitNoSuchItem},
      {550, "File doesn't exist", FTPOperation::kRead, kQuarnKitNoSuchItem},
      {550, "/a/b: Permission denied", FTPOperation::kRemove, kQuarnKitPermissionDenied},
      {550, "/a/b: Permission denied", FTPOperation::kList, kQuarnKitListingNotPermitted},
      {550, "Access is denied.", FTPOperation::kRemove, kQuarnKitPermissionDenied},
      {550, "/a/b: Directory not empty", FTPOperation::kRemove, kQuarnKitFolderNotEmpty},
      {550, "/a/b: File exists", FTPOperation::kMakeFolder, kQuarnKitItemExists},
      {521, "/a/b already exists", FTPOperation::kMakeFolder, kQuarnKitItemExists},
      {550, "/a/b: Not a directory", FTPOperation::kList, kQuarnKitNotAFolder},
      {552, "anything", FTPOperation::kStore, kQuarnKitOutOfSpace},
      {452, "anything", FTPOperation::kStore, kQuarnKitOutOfSpace},
      {451, "write: No space left on device", FTPOperation::kStore, kQuarnKitOutOfSpace},
      {550, "Disk quota exceeded", FTPOperation::kStore, kQuarnKitOutOfSpace},
      {553, "Read-only file system", FTPOperation::kStore, kQuarnKitReadOnly},
      {553, "File name too long", FTPOperation::kStore, kQuarnKitNameInvalid},
      {550, "Delete operation failed.", FTPOperation::kRemove, kQuarnKitRefused},
      {502, "what?", FTPOperation::kAttributes, kQuarnKitAttributeChangeNotSupported},
      {502, "what?", FTPOperation::kOther, kQuarnKitNotSupported},
      {530, "Please login", FTPOperation::kOther, kQuarnKitPermissionDenied},
      {421, "Timeout", FTPOperation::kOther, kQuarnKitConnectionLost},
      {426, "broken off", FTPOperation::kRead, kQuarnKitConnectionLost},
      {522, "SSL connection failed: session reuse required", FTPOperation::kRead, kQuarnKitConnectionLost},
  };
  for (const Case& one : table) {
    EXPECT_EQ(codeForFTPRefusal({one.code, {one.text}}, one.operation, "/a/b"), one.expected) << one.text;
  }
}

TEST(FTPErrors, ANameThatSoundsLikeAReasonIsNone) {
  const FTPReply reply{550, {"/docs/not found: Permission denied"}};
  EXPECT_EQ(codeForFTPRefusal(reply, FTPOperation::kRead, "/docs/not found"), kQuarnKitPermissionDenied);
}

TEST(FTPErrors, TooManySessionsAreToldFromAWrongPassword) {
  EXPECT_TRUE(isTooManyFTPSessions({421, {"There are too many connected users, please try later."}}));
  EXPECT_TRUE(isTooManyFTPSessions(
      {530, {"Sorry, the maximum number of clients (1) from your host are already connected."}}));
  EXPECT_TRUE(isTooManyFTPSessions({530, {"Too many users logged in for this account"}}));
  EXPECT_FALSE(isTooManyFTPSessions({530, {"Login incorrect."}}));
  EXPECT_FALSE(isTooManyFTPSessions({230, {"2 users are already connected"}}));
}

TEST(FTPReplyItems, LengthsAreThoseThatAFileCanHave) {
  EXPECT_EQ(sizeOfReply({213, {" 7 "}}), 7u);
  EXPECT_EQ(sizeOfReply({213, {"9223372036854775807"}}), uint64_t{INT64_MAX});
  for (const char* text :
       {"9223372036854775808", "18446744073709551615", "99999999999999999999", "-1", "7 bytes", ""}) {
    EXPECT_FALSE(sizeOfReply({213, {text}}).has_value()) << text;
  }
  EXPECT_FALSE(sizeOfReply({550, {"7"}}).has_value());
}

TEST(FTPReplyItems, MLSTTellsOfOneItem) {
  const auto item = itemOfMLST({250, {"Begin", " type=file;size=5;UNIX.mode=0640; /a b/c", "End"}});
  ASSERT_TRUE(item.has_value());
  EXPECT_EQ(item->entry.attributes.fileSize, 5u);
  EXPECT_EQ(item->entry.attributes.posixPermissions, 0640);
  EXPECT_FALSE(itemOfMLST({550, {"Begin", " type=file; x", "End"}}).has_value());
  EXPECT_FALSE(itemOfMLST({250, {"fine"}}).has_value());
}

TEST(FTPReplyItems, STATTellsOfTheItemOfThatName) {
  const FTPReply reply{213,
                       {"Status follows:", "-rw-r--r--    1 0        0               1 May 14  2023 other",
                        "-rw-------    1 0        0               7 May 14  2023 file", "End of status"}};
  const auto item = itemOfSTAT(reply, "/a/file", NSDate());
  ASSERT_TRUE(item.has_value());
  EXPECT_EQ(item->entry.attributes.fileSize, 7u);
  EXPECT_EQ(item->entry.attributes.posixPermissions, 0600);
  EXPECT_FALSE(itemOfSTAT(reply, "/a/missing", NSDate()).has_value());
}

}  // namespace
}  // namespace ombra
