// What each piece of work costs over a long way: how often the server has to wait for the session.
#include <functional>

#include "tests/ftp/FTPSessionFixture.h"

namespace ombra {
namespace {

using testing::ElementsAre;

constexpr size_t kSmall = 4096;

class FTPRoundTrips : public FTPSessionTest {
 protected:
  struct Row {
    const char* work;
    int roundTrips;
    std::function<void()> run;
  };
  // Does all of it in turn, on a session that has made a transfer before.
  void expect(const std::vector<Row>& rows) {
    server.putFile("/there", std::string(kSmall, 'x'));
    server.send("MLSD", "type=file;size=1; a\r\n");
    server.send("LIST", "-rw-r--r-- 1 a b 1 Jan  1  2020 a\r\n");
    logIn();
    for (const Row& row : rows) {
      error = nullptr;
      row.run();
      EXPECT_EQ(error, nullptr) << row.work << ": " << error->description();
      EXPECT_EQ(server.takeRoundTrips(), row.roundTrips) << row.work;
    }
  }

  void stream(const std::string& path) {
    bool isDone = false;
    const auto next = [&isDone](std::byte*, size_t) { return std::exchange(isDone, true) ? 0 : kSmall; };
    (void)session->stream(next, path, control, &error);
  }
  void lookAt(const std::string& path) {
    bool isDirectory = false;
    (void)session->attributes(path, &isDirectory, &error);
  }
  void changeMode(const std::string& path) {
    NSFileAttributes mode;
    mode.posixPermissions = 0600;
    (void)session->changeAttributes(mode, path, &error);
  }
  void makeFolder(const std::string& path) { (void)session->createFolder(path, &error); }
  void move(const std::string& from, const std::string& to) { (void)session->move(from, false, to, &error); }
  void remove(const std::string& path, bool isDirectory) { (void)session->remove(path, isDirectory, &error); }

  const std::string small = std::string(kSmall, 'x');
};

// The connection for the data, which the server does not wait for, comes on top of each transfer.
TEST_F(FTPRoundTrips, EachPieceOfWorkStaysWithinItsBudget) {
  server.setFeatures(kModernFeatures);
  expect({
      {"a folder is listed", 1, [this] { list("/"); }},
      {"an item is looked at", 1, [this] { lookAt("/there"); }},
      {"a small file is read", 1, [this] { download("/there"); }},
      {"it is read on from the middle", 2, [this] { download("/there", 10); }},
      {"an empty file is made", 1, [this] { upload("/empty", ""); }},
      {"it is filled with a stream", 1, [this] { stream("/empty"); }},
      {"a small file is stored as a whole, and renamed", 2, [this] { upload("/new", small); }},
      {"the first file is replaced, whose mode is tried alone", 3, [this] { upload("/there", small); }},
      {"a further one is replaced", 2, [this] { upload("/there", small); }},
      {"a file is emptied", 1, [this] { upload("/there", ""); }},
      {"a mode is changed", 1, [this] { changeMode("/there"); }},
      {"a folder is made", 1, [this] { makeFolder("/folder"); }},
      {"a file is moved", 2, [this] { move("/new", "/moved"); }},
      {"a file is removed", 1, [this] { remove("/moved", false); }},
      {"a folder is removed", 1, [this] { remove("/folder", true); }},
  });
}

// Without MLST, as vsftpd is.
TEST_F(FTPRoundTrips, AnOlderServerIsAskedNoMoreOften) {
  server.setFeatures({"SIZE", "MDTM", "EPSV", "REST STREAM"});
  server.answer("CWD /moved", {"550 no such folder\r\n"});
  expect({
      {"a folder is listed", 1, [this] { list("/folder"); }},
      {"an item is looked at", 1, [this] { lookAt("/there"); }},
      {"a small file is read", 1, [this] { download("/there"); }},
      {"it is read on from the middle", 2, [this] { download("/there", 10); }},
      {"a small file is stored as a whole, and renamed", 2, [this] { upload("/new", small); }},
      {"a file is emptied", 1, [this] { upload("/there", ""); }},
      {"a file is moved", 2, [this] { move("/new", "/moved"); }},
      {"a file is removed", 1, [this] { remove("/moved", false); }},
  });
}

// From the login to the first listing of the folder that it landed in.
TEST_F(FTPRoundTrips, MountingTheStartFolderCostsFive) {
  server.send("LIST -a", "-rw-r--r-- 1 a b 1 Jan  1  2020 x\r\n");
  session = newSession();
  ASSERT_NE(session, nullptr);
  bool isDirectory = false;
  EXPECT_EQ(session->realPath(session->loginPath(), "/", &isDirectory, &error), "/home");
  EXPECT_TRUE(isDirectory);
  EXPECT_THAT(list("/home"), ElementsAre("x"));
  EXPECT_EQ(server.takeRoundTrips(), 5) << "name, password, what it can do; a port, the listing";
  EXPECT_THAT(server.commands(), ElementsAre("FEAT", "TYPE I", "PWD", "CWD /home", "EPSV", "LIST -a"));
}

TEST_F(FTPRoundTrips, ALaterSessionAsksForWhatIsKnownNoMore) {
  server.setFeatures(kModernFeatures);
  logIn();
  const auto second = newSession();
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(server.takeRoundTrips(), 3) << "name, password, and all that it needs";
  EXPECT_EQ(sent("FEAT").size(), 1u);
}

}  // namespace
}  // namespace ombra
