// A program that writes goes on while its bytes are under way. Whenever the connection ends, or the server
// refuses something, nothing of that may be lost without a word.
#include "remote/sftp/SFTPProtocol.h"
#include "tests/sftp/SessionFixture.h"

namespace ombra::test {
namespace {

class SFTPWriteBehindLoss : public SessionFixture {
 protected:
  static constexpr size_t kPage = 4096;
  static constexpr int kPages = 24;

  void begin() {
    server.readLength = server.writeLength = 0;
    logIn();
    control.isEarly = true;
    local = makeLocalFile(NSFileHandle::Kind::kScratch);
  }
  // Writes a page as a program does that does not look back: an upload that fails has left the page
  // unconfirmed.
  void writePage(int page) {
    const std::string bytes = pattern(kPage, static_cast<unsigned>(page) + 1);
    const uint64_t offset = static_cast<uint64_t>(page) * kPage;
    ASSERT_TRUE(local->writeAll(bytes.data(), bytes.size(), offset));
    local->noteWritten({offset, offset + kPage});
    (void)session->upload(*local, "/f", offset, control, nullptr);
  }
  void writeAllPages() {
    (void)session->upload(*local, "/f", 0, control, nullptr);
    for (int page = 0; page < kPages; ++page) writePage(page);
    // And some of them once more.
    for (int page = 0; page < kPages; page += 5) writePage(page);
    session->becameIdle();
  }
  bool isDoubtful() const {
    return !local->extents()->isSettled() || !local->unconfirmedExtents(0).empty() ||
           local->extents()->givenBackFrom().has_value();
  }
  bool isStored() const { return server.content("/f") == readLocalFile(*local); }
  // What the synchronisation does that learns of it: all that is unconfirmed, to the last word.
  void sendRest() {
    (void)local->extents()->takeFailure();
    control.isEarly = false;
    NSErrorRef reason;
    ASSERT_TRUE(session->upload(*local, "/f", 0, control, &reason)) << reason->description();
    session->becameIdle();
    ASSERT_FALSE(isDoubtful());
  }
  size_t requestsOfAWholeRun() {
    begin();
    writeAllPages();
    EXPECT_FALSE(isDoubtful());
    EXPECT_TRUE(isStored());
    server.remove("/f");
    return peer->requests().size();
  }

  std::unique_ptr<NSFileHandle> local;
};

TEST_F(SFTPWriteBehindLoss, IsNoticedWhereverTheConnectionEnds) {
  const size_t requests = requestsOfAWholeRun();
  for (size_t last = 4; last < requests; ++last) {
    begin();
    // The server has done what it was told so far; its answers are on the way.
    server.batch = last % 2 == 0 ? 1 : SIZE_MAX;
    server.before = [&](const PeerRequest&) {
      if (peer->requests().size() >= last) peer->hangUp();
    };
    writeAllPages();
    server.before = nullptr;
    server.batch = 1;
    if (!isDoubtful()) {
      EXPECT_TRUE(isStored()) << "ended at request " << last;
    }
    server.hangUp();
    logIn();
    sendRest();
    EXPECT_TRUE(isStored()) << "ended at request " << last;
    server.remove("/f");
  }
}

TEST_F(SFTPWriteBehindLoss, IsNoticedWhicheverWriteIsRefused) {
  for (size_t refused = 0; refused < kPages + 5; ++refused) {
    begin();
    server.batch = refused % 2 == 0 ? 1 : SIZE_MAX;
    size_t writes = 0;
    server.before = [&](const PeerRequest& request) {
      // Only this one: what comes behind it is taken.
      if (request.type != kSFTPWrite) return;
      server.refusals.clear();
      if (writes++ == refused) server.refusals[kSFTPWrite] = {kSFTPStatusFailure, 0};
    };
    writeAllPages();
    server.before = nullptr;
    server.refusals.clear();
    server.batch = 1;
    if (!isDoubtful()) {
      EXPECT_TRUE(isStored()) << "refused write " << refused;
    }
    sendRest();
    EXPECT_TRUE(isStored()) << "refused write " << refused;
    server.remove("/f");
  }
}

// A server that stores at the close.
TEST_F(SFTPWriteBehindLoss, IsNoticedWhenTheCloseIsRefused) {
  begin();
  server.refusals[kSFTPClose] = {kSFTPStatusFailure, 0};
  writeAllPages();
  EXPECT_TRUE(isDoubtful());
  server.refusals.clear();
  server.forgetHandles();
  server.remove("/f");
  sendRest();
  EXPECT_TRUE(isStored());
}

}  // namespace
}  // namespace ombra::test
