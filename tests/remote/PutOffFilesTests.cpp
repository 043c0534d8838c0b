// New files whose making waits for their content: who makes them, when, and who is told what became of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "tests/support/FakeEngine.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Gives a few bytes, once.
class Bytes final : public ConnectionDelegate {
 public:
  bool connection(AbstractConnection&, const TrustQuestion&) override { return true; }
  size_t connection(AbstractConnection& asking, std::byte*, size_t) override {
    if (cancels) asking.setShouldCancel(true);
    return std::exchange(isGiven, true) ? 0 : 3;
  }
  bool cancels = false;
  bool isGiven = false;
};

class PutOff : public testing::Test {
 protected:
  PutOff() {
    fake.engine->putsOff = true;
    fake.engine->onMake = [this](FakeSession&, const std::string& path, NSErrorRef* error) {
      const int failure = refusal;  // first: a test that has seen the event changes it
      note("make " + path);
      return answer(failure, error);
    };
    fake.engine->onUpload = [this](FakeSession&, NSFileHandle&, uint64_t, TransferControl&,
                                   NSErrorRef* error) {
      note("upload");
      return answer(uploadFailure, error);
    };
    fake.engine->onStream = [this](FakeSession&, const auto& next, TransferControl&, NSErrorRef* error) {
      std::byte buffer[16];
      while (next(buffer, sizeof buffer) > 0) {
      }
      note("stream");
      return answer(uploadFailure, error);
    };
    fake.engine->onChange = [this](FakeSession&, const std::string& path, NSErrorRef*) {
      note("change " + path);
      return true;
    };
    fake.engine->onList = [this](FakeSession&, const std::string& path, std::vector<RemoteEntry>*,
                                 NSErrorRef*) {
      note("list " + path);
      return true;
    };
  }

  static bool answer(int failure, NSErrorRef* error) {
    return failure == 0 || failWith(static_cast<QuarnKitErrorCode>(failure), error);
  }

  void note(std::string event) {
    const MutexLock lock(iLock);
    iEvents.push_back(std::move(event));
  }
  std::vector<std::string> events() {
    const MutexLock lock(iLock);
    return std::exchange(iEvents, {});
  }

  static bool makeOn(AbstractConnection& connection, NSFileHandle& handle, const std::string& path,
                     NSErrorRef* error = nullptr) {
    connection.setPutsOffNewFiles(true);
    const bool made = connection.uploadFileHandle(handle, path, path, 0, nullptr, error);
    connection.setPutsOffNewFiles(false);
    return made;
  }
  bool make(const std::string& path, NSErrorRef* error = nullptr) {
    return with([&](AbstractConnection& connection) { return makeOn(connection, *file, path, error); });
  }
  bool upload(const std::string& path, NSErrorRef* error = nullptr) {
    return with([&](AbstractConnection& connection) {
      return connection.uploadFileHandle(*content, path, path, 0, nullptr, error);
    });
  }
  bool list(const std::string& path, NSErrorRef* error = nullptr) {
    return with([&](AbstractConnection& connection) {
      std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
      return connection.contentsAtPath(path, &nodes, error);
    });
  }
  bool finish(const std::string& path, NSErrorRef* error = nullptr) {
    return with([&](AbstractConnection& connection) { return connection.finishUploads(*file, path, error); });
  }
  bool with(const std::function<bool(AbstractConnection&)>& work) {
    bool done = false;
    fake.with([&](AbstractConnection& connection) { done = work(connection); });
    return done;
  }
  // The pool's thread has made, or not made, what was due.
  void waitUntilSettled() {
    while (file->extents()->isPutOff()) std::this_thread::yield();
  }

  ManualClock clock;
  std::atomic<int> refusal{0};  // a code of the library's; 0: none
  std::atomic<int> uploadFailure{0};
  FakePool fake;
  std::unique_ptr<NSFileHandle> file = temporaryFile();
  std::unique_ptr<NSFileHandle> content = temporaryFile("abc");

 private:
  Mutex iLock;
  std::vector<std::string> iEvents GUARDED_BY(iLock);
};

TEST_F(PutOff, ContentTakesThePlaceOfTheEmptyFile) {
  EXPECT_TRUE(make("/f/a"));
  EXPECT_THAT(events(), IsEmpty());
  EXPECT_FALSE(file->extents()->isSettled());
  EXPECT_TRUE(upload("/f/a"));
  EXPECT_TRUE(file->extents()->isSettled());
  EXPECT_TRUE(finish("/f/a"));
  EXPECT_TRUE(list("/f"));
  EXPECT_THAT(events(), ElementsAre("upload", "list /f"));
}

TEST_F(PutOff, AStreamTakesThePlaceOfTheEmptyFile) {
  EXPECT_TRUE(make("/f/a"));
  Bytes bytes;
  EXPECT_TRUE(with([&](AbstractConnection& connection) {
    return connection.streamBytesWithFilename("a", "/f/a", bytes, nullptr);
  }));
  EXPECT_TRUE(finish("/f/a"));
  EXPECT_THAT(events(), ElementsAre("stream"));
}

TEST_F(PutOff, OneSessionMakesWhatAnotherOneBringsTheContentOf) {
  fake.with([&](AbstractConnection& maker) {
    EXPECT_TRUE(makeOn(maker, *file, "/f/a"));
    // The maker's session is still in its hands.
    std::thread([&] { EXPECT_TRUE(upload("/f/a")); }).join();
  });
  EXPECT_EQ(fake.engine->made, 2);
  EXPECT_THAT(events(), ElementsAre("upload"));
}

TEST_F(PutOff, IsMadeAfterASecondAndNotBefore) {
  EXPECT_TRUE(make("/f/a"));
  clock.advanceWithin(0.9, 2);  // the one that makes files, and the one that closes sessions
  EXPECT_THAT(events(), IsEmpty());
  clock.advance(0.2);
  waitUntilSettled();
  EXPECT_THAT(events(), ElementsAre("make /f/a"));
  EXPECT_TRUE(finish("/f/a"));
  EXPECT_THAT(events(), IsEmpty());
}

TEST_F(PutOff, TheNextOneHasASecondOfItsOwn) {
  for (const char* path : {"/f/a", "/f/b"}) {
    EXPECT_TRUE(make(path));
    clock.waitForSleepers(2);
    clock.advance(1.1);
    waitUntilSettled();
    EXPECT_THAT(events(), ElementsAre(std::string("make ") + path));
  }
}

TEST_F(PutOff, AClockThatIsSetBackDoesNotKeepItWaiting) {
  EXPECT_TRUE(make("/f/a"));
  clock.waitForSleepers(2);
  clock.advance(-3600);
  waitUntilSettled();
  EXPECT_THAT(events(), ElementsAre("make /f/a"));
}

struct Look {
  const char* name;
  std::function<void(AbstractConnection&)> look;
  bool makesIt;
};

void listFolder(AbstractConnection& connection, const char* path) {
  std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
  EXPECT_TRUE(connection.contentsAtPath(path, &nodes, nullptr));
}

const std::vector<Look>& looks() {
  static const std::vector<Look> sLooks{
      {"Attributes", [](auto& c) { (void)c.attributesOfItemAtPath("/f/a", nullptr, nullptr); }, true},
      {"AttributesInOtherCase", [](auto& c) { (void)c.attributesOfItemAtPath("/f/A", nullptr, nullptr); },
       true},
      {"AttributesOfItsFolder", [](auto& c) { (void)c.attributesOfItemAtPath("/f", nullptr, nullptr); },
       true},
      {"Resolving", [](auto& c) { (void)c.resolvePath("/f/a", nullptr, nullptr, nullptr); }, true},
      {"ChangingTo", [](auto& c) { (void)c.changeDir("/f/a", nullptr); }, true},
      {"ListingItsFolder", [](auto& c) { listFolder(c, "/f"); }, true},
      {"ListingAFolderAbove", [](auto& c) { listFolder(c, "/"); }, true},
      {"MovingIt", [](auto& c) { (void)c.moveItemFromPath("/f/a", false, "/g/a", nullptr); }, true},
      {"MovingOverIt", [](auto& c) { (void)c.moveItemFromPath("/g/a", false, "/f/a", nullptr); }, true},
      {"MovingItsFolder", [](auto& c) { (void)c.moveItemFromPath("/f", true, "/g", nullptr); }, true},
      {"RemovingIt", [](auto& c) { (void)c.deleteItemAtPath("/f/a", false, nullptr); }, true},
      {"RemovingItsFolder", [](auto& c) { (void)c.deleteItemAtPath("/f", true, nullptr); }, true},
      {"MakingAFolderThere", [](auto& c) { (void)c.createFolderAtPath("/f/a", nullptr); }, true},
      {"MakingALinkThere", [](auto& c) { (void)c.createSymbolicLinkAtPath("/f/a", "/x", nullptr); }, true},
      {"Flushing", [](auto& c) { (void)c.flushFileAtPath("/f/a", nullptr); }, true},
      {"Downloading",
       [](auto& c) {
         const auto target = temporaryFile();
         (void)c.downloadFileAtPath("/f/a", *target, 0, nullptr, nullptr);
       },
       true},
      {"AttributesOfAnother", [](auto& c) { (void)c.attributesOfItemAtPath("/f/ab", nullptr, nullptr); },
       false},
      {"ListingAnotherFolder", [](auto& c) { listFolder(c, "/g"); }, false},
      {"ListingItsFolderWithASlash", [](auto& c) { listFolder(c, "/f/"); }, true},
      {"MakingAFolderBeside", [](auto& c) { (void)c.createFolderAtPath("/f/b", nullptr); }, false},
      {"ChangingItsAttributes", [](auto& c) { (void)c.changeAttributes({}, "/f/a", nullptr); }, false},
  };
  return sLooks;
}

class PutOffLooks : public PutOff, public testing::WithParamInterface<Look> {};

TEST_P(PutOffLooks, MakesWhatItWouldSeeFirst) {
  EXPECT_TRUE(make("/f/a"));
  fake.with(GetParam().look);
  const std::vector<std::string> seen = events();
  EXPECT_EQ(std::count(seen.begin(), seen.end(), "make /f/a"), GetParam().makesIt ? 1 : 0);
  if (GetParam().makesIt) {
    EXPECT_EQ(seen.front(), "make /f/a");
  }
}

INSTANTIATE_TEST_SUITE_P(Calls, PutOffLooks, testing::ValuesIn(looks()),
                         [](const auto& about) { return std::string(about.param.name); });

TEST_F(PutOff, SynchronisingMakesItAndTellsARefusal) {
  refusal = kQuarnKitPermissionDenied;
  EXPECT_TRUE(make("/f/a"));
  NSErrorRef error;
  EXPECT_FALSE(finish("/f/a", &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitPermissionDenied));
  EXPECT_THAT(events(), ElementsAre("make /f/a"));
}

TEST_F(PutOff, ARefusalThatNobodyWaitedForIsToldBySynchronising) {
  refusal = kQuarnKitPermissionDenied;
  EXPECT_TRUE(make("/f/a"));
  clock.waitForSleepers(2);
  clock.advance(1.1);
  waitUntilSettled();
  EXPECT_TRUE(file->extents()->isInDoubt());
  NSErrorRef error;
  EXPECT_FALSE(finish("/f/a", &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitPermissionDenied));
  EXPECT_THAT(events(), ElementsAre("make /f/a"));
}

TEST_F(PutOff, ALookIsAnsweredAlthoughTheFileIsRefused) {
  refusal = kQuarnKitPermissionDenied;
  EXPECT_TRUE(make("/f/a"));
  EXPECT_TRUE(list("/f"));
  EXPECT_TRUE(list("/f"));
  EXPECT_THAT(events(), ElementsAre("make /f/a", "list /f", "list /f"));
  EXPECT_FALSE(finish("/f/a"));
}

TEST_F(PutOff, ALookThatLosesItsSessionMeanwhileIsRepeated) {
  refusal = kQuarnKitConnectionLost;
  EXPECT_TRUE(make("/f/a"));
  clock.waitForSleepers(2);  // the one that makes files, and the one that closes sessions
  std::thread looker([&] { EXPECT_TRUE(list("/f")); });
  while (events().empty()) std::this_thread::yield();
  refusal = 0;
  clock.waitForSleepers(3);  // and the pause before the repetition
  clock.advance(0.3);
  looker.join();
  EXPECT_THAT(events(), ElementsAre("make /f/a", "list /f"));
  EXPECT_TRUE(finish("/f/a"));
}

TEST_F(PutOff, WhatIsLeftWhenThePoolEndsHasFailed) {
  EXPECT_TRUE(make("/f/a"));
  fake.pool->shutDown();
  EXPECT_FALSE(file->extents()->isPutOff());
  NSErrorRef error = file->extents()->takeFailure();
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitConnectionLost));
  EXPECT_THAT(events(), IsEmpty());
}

TEST_F(PutOff, ContentThatFailsLeavesTheFileToBeMade) {
  EXPECT_TRUE(make("/f/a"));
  uploadFailure = kQuarnKitOutOfSpace;
  EXPECT_FALSE(upload("/f/a"));
  EXPECT_TRUE(file->extents()->isPutOff());
  EXPECT_TRUE(list("/f"));
  EXPECT_THAT(events(), ElementsAre("upload", "make /f/a", "list /f"));
  EXPECT_TRUE(finish("/f/a"));
}

TEST_F(PutOff, WhatWasStoredIsNotEmptiedWhenACancelMarkComesBehindIt) {
  EXPECT_TRUE(make("/f/a"));
  Bytes bytes;
  bytes.cancels = true;
  EXPECT_FALSE(with([&](AbstractConnection& connection) {
    return connection.streamBytesWithFilename("a", "/f/a", bytes, nullptr);
  }));
  EXPECT_FALSE(file->extents()->isPutOff());
  EXPECT_TRUE(list("/f"));
  EXPECT_THAT(events(), ElementsAre("stream", "list /f"));
}

// The empty file would come behind the content, or the listing before it.
TEST_F(PutOff, ALookWaitsForContentThatIsUnderWay) {
  fake.engine->onUpload = [this](FakeSession&, NSFileHandle&, uint64_t, TransferControl&, NSErrorRef*) {
    fake.engine->gate.pass();
    note("upload");
    return true;
  };
  EXPECT_TRUE(make("/f/a"));
  std::thread sender([&] { EXPECT_TRUE(upload("/f/a")); });
  EXPECT_TRUE(fake.engine->gate.waitUntilEntered());
  std::thread looker([&] { EXPECT_TRUE(list("/f")); });
  // Neither does it hold others up.
  EXPECT_TRUE(list("/g"));
  fake.engine->gate.open();
  sender.join();
  looker.join();
  const std::vector<std::string> seen = events();
  EXPECT_THAT(seen, ElementsAre("list /g", "upload", "list /f"));
}

TEST_F(PutOff, OfTwoFilesOfAPathTheLaterOneIsMade) {
  EXPECT_TRUE(make("/f/a"));
  const auto later = temporaryFile();
  EXPECT_TRUE(with([&](AbstractConnection& connection) { return makeOn(connection, *later, "/f/a"); }));
  EXPECT_TRUE(file->extents()->isSettled());
  EXPECT_TRUE(list("/f"));
  EXPECT_TRUE(later->extents()->isSettled());
  EXPECT_THAT(events(), ElementsAre("make /f/a", "list /f"));
}

TEST_F(PutOff, WhatCannotBeMadeIsRefusedAtOnce) {
  fake.engine->onCheckNewFile = [](FakeSession&, const std::string&, bool*, NSErrorRef* error) {
    return failWith(kQuarnKitNoSuchItem, error);
  };
  NSErrorRef error;
  EXPECT_FALSE(make("/f/a", &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNoSuchItem));
  EXPECT_TRUE(file->extents()->isSettled());
  EXPECT_THAT(events(), IsEmpty());
}

TEST_F(PutOff, WhereOnlyTheMakingTellsItIsDoneAtOnce) {
  fake.engine->onCheckNewFile = [](FakeSession&, const std::string&, bool* mayWait, NSErrorRef*) {
    *mayWait = false;
    return true;
  };
  EXPECT_TRUE(make("/f/a"));
  EXPECT_THAT(events(), ElementsAre("upload"));
}

TEST_F(PutOff, NothingElseIsPutOff) {
  EXPECT_TRUE(with([&](AbstractConnection& c) { return makeOn(c, *content, "/f/content"); }));
  const auto ordinary = temporaryFile("", NSFileHandle::Kind::kFile);
  EXPECT_TRUE(with([&](AbstractConnection& c) { return makeOn(c, *ordinary, "/f/ordinary"); }));
  EXPECT_TRUE(with([&](AbstractConnection& c) {
    return c.uploadFileHandle(*file, "emptied", "/f/emptied", 0, nullptr, nullptr);
  }));
  fake.engine->putsOff = false;
  EXPECT_TRUE(make("/f/elsewhere"));
  EXPECT_THAT(events(), ElementsAre("upload", "upload", "upload", "upload"));
}

}  // namespace
}  // namespace ombra
