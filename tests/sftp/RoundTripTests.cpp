// What each piece of work costs over a long way: how often it has to wait for the server.
#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "remote/sftp/SFTPProtocol.h"
#include "tests/sftp/SessionFixture.h"

namespace ombra::test {
namespace {

// The server says nothing until the session has nothing more to send, so that each wait is a round trip.
class SFTPRoundTrips : public SessionFixture {
 protected:
  void SetUp() override {
    server.addFolder("/folder");
    for (int i = 0; i < 10; ++i) server.addFile(fmt::format("/folder/f{}", i), pattern(4096));
    server.addFile("/f", pattern(4096));
    logIn();
    server.batch = SIZE_MAX;
    control.isEarly = true;
  }

  void makeNew(const std::string& path) {
    newFile = makeLocalFile(NSFileHandle::Kind::kScratch);
    newPath = path;
    ASSERT_TRUE(session->upload(*newFile, path, 0, control, &error));
    NSFileAttributes mode;
    mode.posixPermissions = 0644;
    ASSERT_TRUE(session->changeAttributes(mode, path, &error));
  }
  void append(size_t total, size_t piece) { append(total, pattern(piece)); }
  void append(size_t total, const std::string& bytes) {
    for (size_t done = 0; done < total; done += bytes.size()) {
      const uint64_t offset = newFile->fileLength();
      ASSERT_TRUE(newFile->writeAll(bytes.data(), bytes.size(), offset));
      newFile->noteWritten({offset, offset + bytes.size()});
      ASSERT_TRUE(session->upload(*newFile, newPath, offset, control, &error));
    }
  }
  void overwrite(const std::string& path) {
    newFile = makeLocalFile(NSFileHandle::Kind::kScratch, pattern(4096, 7));
    newPath = path;
    newFile->noteWritten({0, 10});
    ASSERT_TRUE(session->upload(*newFile, path, 0, control, &error));
  }
  void read(const std::string& path) {
    const auto local = makeLocalFile(NSFileHandle::Kind::kScratch);
    ASSERT_TRUE(session->download(path, *local, 0, nullptr, control, &error));
  }
  void list(const std::string& path) {
    std::vector<RemoteEntry> entries;
    ASSERT_TRUE(session->list(path, &entries, &error));
  }
  void makeFolder(const std::string& path) {
    ASSERT_TRUE(session->createFolder(path, &error));
    // Whoever makes one looks at it next.
    bool isDirectory = false;
    ASSERT_TRUE(session->attributes(path, &isDirectory, &error));
    ASSERT_TRUE(isDirectory);
  }

  std::unique_ptr<NSFileHandle> newFile;
  std::string newPath;
};

TEST_F(SFTPRoundTrips, EachPieceOfWorkStaysWithinItsBudget) {
  struct Row {
    const char* work;
    size_t roundTrips;
    std::function<void()> run;
  };
  NSFileAttributes mode;
  mode.posixPermissions = 0600;
  const Row rows[] = {
      {"a folder is listed", 2, [&] { list("/folder"); }},
      {"a small file is opened and read", 2, [&] { read("/folder/f0"); }},
      {"an item is looked at", 1, [&] { (void)session->attributes("/f", nullptr, &error); }},
      {"a file is created with its mode", 1, [&] { makeNew("/new"); }},
      {"4 KiB are written to it", 0, [&] { append(4096, 4096); }},
      {"it is closed", 1, [&] { session->becameIdle(); }},
      {"a file is created and closed empty", 2,
       [&] {
         makeNew("/empty");
         session->becameIdle();
       }},
      {"a file is created", 1, [&] { makeNew("/large"); }},
      {"1 MiB is appended in pieces of 4 KiB", 0, [&] { append(1 << 20, 4096); }},
      {"it is stored, and the file is closed", 1, [&] { session->becameIdle(); }},
      {"another one is created", 1, [&] { makeNew("/larger"); }},
      {"1 MiB is appended in pieces of 128 KiB", 0, [&] { append(1 << 20, 128 * 1024); }},
      {"it is stored and closed as well", 1, [&] { session->becameIdle(); }},
      {"a file that is there is opened and changed", 2, [&] { overwrite("/f"); }},
      {"it is closed as well", 1, [&] { session->becameIdle(); }},
      {"a mode is changed", 1, [&] { (void)session->changeAttributes(mode, "/f", &error); }},
      {"a file is moved", 1, [&] { (void)session->move("/new", false, "/moved", &error); }},
      {"a file is moved over another", 1, [&] { (void)session->move("/moved", false, "/f", &error); }},
      {"a file is removed", 1, [&] { (void)session->remove("/f", false, &error); }},
      {"a folder is made and looked at", 1, [&] { makeFolder("/d"); }},
      {"a link is made", 1, [&] { (void)session->createSymbolicLink("/d/link", "../folder", &error); }},
      {"a folder with a link is listed, and where the link leads", 3, [&] { list("/d"); }},
      {"a link is removed", 1, [&] { (void)session->remove("/d/link", false, &error); }},
      {"a folder is removed", 1, [&] { (void)session->remove("/d", true, &error); }},
      {"the volume is looked at", 1, [&] { (void)session->fileSystemAttributes("/", &error); }},
  };
  for (const Row& row : rows) {
    const size_t before = peer->waits();
    error = nullptr;
    row.run();
    EXPECT_EQ(error, nullptr) << row.work;
    EXPECT_EQ(peer->waits() - before, row.roundTrips) << row.work;
  }
}

TEST_F(SFTPRoundTrips, AFolderIsDescribedOnceByWhatCameWithItsMaking) {
  makeFolder("/d");
  server.setDate("/d", 2000);
  const auto now = session->attributes("/d", nullptr, &error);
  ASSERT_TRUE(now);
  EXPECT_EQ(now->modificationDate, NSDate::dateWithTimeIntervalSince1970(2000));
}

TEST_F(SFTPRoundTrips, WhatCameWithAMakingIsForgottenByAnyOtherWork) {
  ASSERT_TRUE(session->createFolder("/d", &error));
  ASSERT_TRUE(session->remove("/d", true, &error));
  EXPECT_FALSE(session->attributes("/d", nullptr, &error));
}

TEST_F(SFTPRoundTrips, AFolderThatCannotBeMadeIsTold) {
  EXPECT_FALSE(session->createFolder("/folder", &error));
  EXPECT_EQ(codeOf(error), kQuarnKitItemExists);
}

// More than the transfer window is not left under way, however quickly a program writes.
TEST_F(SFTPRoundTrips, WhatIsUnderWayIsBounded) {
  constexpr size_t kWhole = size_t{36} << 20;
  makeNew("/large");
  const size_t before = peer->waits();
  size_t waits = before, underWay = 0, most = 0;
  server.before = [&](const PeerRequest& request) {
    if (request.type != kSFTPWrite) return;
    // With each wait all that has been sent is answered.
    if (std::exchange(waits, peer->waits()) != peer->waits()) underWay = 0;
    underWay += request.body.size();
    most = std::max(most, underWay);
  };
  append(kWhole, std::string(1 << 20, 'x'));
  EXPECT_LE(peer->waits() - before, kWhole >> 20) << "at least 1 MiB for each round trip";
  EXPECT_GT(most, kSFTPTransferWindowBytes / 2) << "a way that brings no queue lets it grow";
  EXPECT_LT(most, kSFTPTransferWindowBytes + kSFTPTransferWindowBytes / 100)
      << "with what is around the bytes";
  session->becameIdle();
  EXPECT_EQ(server.content("/large").size(), kWhole);
}

}  // namespace
}  // namespace ombra::test
