// Ports for data that are asked for before there is something to transfer.
#include "tests/ftp/FTPSessionFixture.h"

namespace ombra {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

// Every test begins with one transfer behind it.
class FTPPorts : public FTPSessionTest {
 protected:
  void SetUp() override {
    server.setFeatures(kModernFeatures);
    server.putFile("/a", "first");
    server.putFile("/b", "second");
  }
  // Another one: the walk that it makes has its next port asked for, and the server has come to that.
  void walk(FakeFTPServer::Ports ports = FakeFTPServer::Ports::kKept) {
    logIn();
    server.setPorts(ports);
    EXPECT_EQ(download("/a"), "first");
    const bool isLate = ports == FakeFTPServer::Ports::kLate || ports == FakeFTPServer::Ports::kRefusedLate;
    isLate ? server.waitForAnswers("late EPSV", 1) : server.waitForAnswers("EPSV", 3);
    iSeen = server.commands().size();
  }
  // The commands of the session since then; names of temporary files cut off.
  std::vector<std::string> since() const {
    const std::vector<std::string> all = server.commands();
    std::vector<std::string> found;
    for (size_t i = iSeen; i < all.size(); ++i) found.push_back(all[i].substr(0, all[i].find("-upload-")));
    return found;
  }

 private:
  size_t iSeen = 0;
};

TEST_F(FTPPorts, OneTransferLeavesNoPortBehind) {
  logIn();
  EXPECT_EQ(server.commands().back(), "RETR /learnt");
  EXPECT_TRUE(session->createFolder("/folder", &error));
  EXPECT_EQ(sent("EPSV").size(), 1u);
}

TEST_F(FTPPorts, TransfersThatFollowEachOtherFindTheirPortAskedFor) {
  walk();
  server.takeRoundTrips();
  EXPECT_EQ(download("/b"), "second");
  server.waitForAnswers("EPSV", 4);
  EXPECT_THAT(since(), ElementsAre("MLST /b", "RETR /b", "EPSV"));
  EXPECT_EQ(server.takeRoundTrips(), 1);
}

TEST_F(FTPPorts, AnUploadAsksForTheNextPortWithItsRename) {
  walk();
  server.takeRoundTrips();
  ASSERT_TRUE(upload("/new", "content"));
  EXPECT_EQ(server.file("/new"), "content");
  EXPECT_EQ(server.takeRoundTrips(), 2) << "sent, and renamed";
  server.waitForAnswers("EPSV", 4);
  EXPECT_THAT(since(),
              ElementsAre("MLST /new", "SIZE /new", "STOR /.ombra", "RNFR /.ombra", "RNTO /new", "EPSV"));
}

TEST_F(FTPPorts, WhatIsDoneBetweenTwoTransfersDoesNotTouchThePort) {
  walk();
  EXPECT_TRUE(session->createFolder("/folder", &error));
  EXPECT_FALSE(session->createFolder("/a\nb", &error));
  EXPECT_TRUE(session->isAlive());
  EXPECT_EQ(download("/b"), "second");
  EXPECT_THAT(since(), Not(Contains("EPSV").Times(2)));
  EXPECT_THAT(since(), Contains("RETR /b"));
}

TEST_F(FTPPorts, AFileThatIsMissingDoesNotDisturbTheNextTransfer) {
  walk();
  EXPECT_FALSE(download("/missing").has_value());
  EXPECT_TRUE(failedWith(kQuarnKitNoSuchItem));
  EXPECT_EQ(download("/b"), "second");
  EXPECT_EQ(server.sessions(), 1);
}

TEST_F(FTPPorts, ACancelledTransferDoesNotDisturbTheNextOne) {
  walk();
  server.send("RETR /a", "who", FakeFTPServer::End::kSilent);
  control.cancelAt = 3;
  EXPECT_FALSE(download("/a").has_value());
  control.reached.clear();
  control.cancelAt = UINT64_MAX;
  EXPECT_EQ(download("/b"), "second");
  EXPECT_EQ(server.sessions(), 1);
}

TEST_F(FTPPorts, AServerThatWentAwayBehindTheAnswerThatNobodyHasReadYetIsNotAlive) {
  walk(FakeFTPServer::Ports::kLast);
  EXPECT_FALSE(session->isAlive());
}

// A server that looks at nothing else during a transfer has the next port asked for with it.
TEST_F(FTPPorts, WithAServerThatReadsBetweenTransfersOnlyThePortIsAskedForWithTheTransfer) {
  server.setGreetings({"220 (vsFTPd 3.0.3)"});
  logIn();
  server.send("RETR /a", "who", FakeFTPServer::End::kSilent);
  control.cancelAt = 3;
  EXPECT_FALSE(download("/a").has_value());
  control.reached.clear();
  control.cancelAt = UINT64_MAX;
  EXPECT_EQ(download("/b"), "second");
  server.waitForAnswers("EPSV", 4);
  EXPECT_THAT(server.commands(), Contains("EPSV").Times(4));
  const auto all = server.commands();
  EXPECT_THAT(std::vector<std::string>(all.end() - 7, all.end()),
              ElementsAre("MLST /a", "EPSV", "RETR /a", "EPSV", "MLST /b", "RETR /b", "EPSV"));
}

// Ports that cannot be had, or not for long. Whatever is transferred next must not notice.

struct Habit {
  const char* name;
  FakeFTPServer::Ports ports;
  bool isLearnt;  // no port is asked for ahead any more
};

class FTPPortHabits : public FTPPorts, public testing::WithParamInterface<Habit> {
 protected:
  // Beginning with that transfer ports are asked for ahead no more, or go on to be.
  void expectLearnt() {
    server.setPorts(FakeFTPServer::Ports::kKept);
    EXPECT_EQ(download("/b"), "second");
    EXPECT_EQ(download("/b"), "second");
    const auto all = server.commands();
    const size_t last = all.size() - (all.back() == "EPSV" ? 2 : 1);
    EXPECT_EQ(all[last], "RETR /b");
    EXPECT_EQ(all[last - 1], GetParam().isLearnt ? "EPSV" : "MLST /b");
    EXPECT_EQ(server.sessions(), 1);
    EXPECT_EQ(error, nullptr);
  }
};

TEST_P(FTPPortHabits, ADownloadArrives) {
  walk(GetParam().ports);
  EXPECT_EQ(download("/b"), "second");
  EXPECT_EQ(version, "6:1715679000000000000");
  expectLearnt();
}

TEST_P(FTPPortHabits, ADownloadThatGoesOnLeavesNoRestartBehind) {
  walk(GetParam().ports);
  EXPECT_EQ(download("/a", 2), "rst");
  EXPECT_EQ(download("/b"), "second");
  expectLearnt();
}

TEST_P(FTPPortHabits, AFileIsReplaced) {
  walk(GetParam().ports);
  ASSERT_TRUE(upload("/a", "new")) << error->description();
  EXPECT_EQ(server.file("/a"), "new");
  EXPECT_TRUE(session->isAlive());
  expectLearnt();
}

TEST_P(FTPPortHabits, AFileThatMustNotBeReplacedIsWrittenInPlace) {
  server.answer("MLST /a", {"250-Begin\r\n type=file;perm=adfr; /a\r\n250 End\r\n"});
  walk(GetParam().ports);
  ASSERT_TRUE(upload("/a", "new")) << error->description();
  EXPECT_EQ(server.file("/a"), "new");
  expectLearnt();
  EXPECT_THAT(server.files(), ElementsAre("/a", "/b", "/learnt")) << "nothing stays beside it";
}

TEST_P(FTPPortHabits, AFileIsEmptied) {
  walk(GetParam().ports);
  ASSERT_TRUE(upload("/a", "")) << error->description();
  EXPECT_EQ(server.file("/a"), "");
  expectLearnt();
}

TEST_P(FTPPortHabits, AStreamLosesNothing) {
  walk(GetParam().ports);
  int pieces = 3;
  const auto next = [&pieces](std::byte* bytes, size_t) -> size_t {
    bytes[0] = std::byte{'x'};
    return pieces-- > 0 ? 1 : 0;
  };
  ASSERT_TRUE(session->stream(next, "/new", control, &error)) << error->description();
  EXPECT_EQ(server.file("/new"), "xxx");
  expectLearnt();
}

TEST_P(FTPPortHabits, AFolderIsListed) {
  server.send("MLSD", "type=file;size=1; x\r\n");
  walk(GetParam().ports);
  EXPECT_THAT(list("/folder"), ElementsAre("x"));
  expectLearnt();
}

TEST_P(FTPPortHabits, AFolderIsListedInLines) {
  server.setFeatures({"SIZE", "MDTM"});
  server.send("LIST", "-rw-r--r-- 1 a b 1 Jan  1  2020 x\r\n");
  walk(GetParam().ports);
  EXPECT_THAT(list("/folder"), ElementsAre("x"));
  EXPECT_EQ(server.sessions(), 1);
}

INSTANTIATE_TEST_SUITE_P(Of, FTPPortHabits,
                         testing::Values(Habit{"Servers", FakeFTPServer::Ports::kKept, false},
                                         Habit{"ForgetfulServers", FakeFTPServer::Ports::kForgotten, true},
                                         Habit{"SlowServers", FakeFTPServer::Ports::kLate, false},
                                         Habit{"UnwillingServers", FakeFTPServer::Ports::kRefused, true},
                                         Habit{"SlowUnwillingServers", FakeFTPServer::Ports::kRefusedLate,
                                               true}),
                         [](const testing::TestParamInfo<Habit>& one) { return one.param.name; });

}  // namespace
}  // namespace ombra
