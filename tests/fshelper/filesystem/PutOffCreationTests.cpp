// New files that the server is told of when they have content, or are closed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"
#include "tests/support/FakeEngine.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PutOffCreation : public FileSystemTest {
 protected:
  PutOffCreation() {
    gStreamingSupported = true;
    fake.engine->putsOff = true;
    fake.engine->keepsNames = true;
    fake.engine->inPlace = false;
    fake.engine->onList = [this](FakeSession&, const std::string&, std::vector<RemoteEntry>* entries,
                                 NSErrorRef*) {
      entries->clear();
      if (isMade) entries->emplace_back().name = "1";
      return true;
    };
    fake.engine->onAttributes = [this](FakeSession&, const std::string& path, NSErrorRef* fault) {
      return (isMade && path.ends_with("/1")) || failWith(kQuarnKitNoSuchItem, fault);
    };
    fake.engine->onMake = [this](FakeSession&, const std::string&, NSErrorRef* fault) {
      return store(fault);
    };
    fake.engine->onUpload = [this](FakeSession&, NSFileHandle&, uint64_t, TransferControl&,
                                   NSErrorRef* fault) { return store(fault); };
    fake.engine->onStream = [this](FakeSession&, const auto& next, TransferControl&, NSErrorRef* fault) {
      std::byte buffer[16];
      while (next(buffer, sizeof buffer) > 0) {
      }
      return store(fault);
    };
    fileSystem.setConnectionPool(fake.pool);
    EXPECT_TRUE(fileSystem.preflight(&error));
    EXPECT_THAT(list("/"), IsEmpty());
  }

  bool store(NSErrorRef* fault) {
    ++requests;
    if (isForbidden) return failWith(kQuarnKitPermissionDenied, fault);
    isMade = true;
    return true;
  }
  GMUserData create() {
    GMUserData file;
    EXPECT_TRUE(fileSystem.createFileAtPath("/1", {}, &file, &error));
    return file;
  }

  FakePool fake;
  std::atomic<bool> isMade{false};
  std::atomic<bool> isForbidden{false};
  std::atomic<int> requests{0};
};

TEST_F(PutOffCreation, AFileThatIsWrittenAtOnceIsOneRequest) {
  const GMUserData file = create();
  EXPECT_THAT(list("/"), ElementsAre("1"));
  EXPECT_EQ(requests, 0);
  EXPECT_TRUE(fileSystem.isCreationInDoubt(file));
  EXPECT_EQ(fileSystem.writeFileAtPath("/1", file, "abc", 3, 0, &error), 3);
  EXPECT_TRUE(fileSystem.synchronizeFileAtPath("/1", file, &error));
  EXPECT_FALSE(fileSystem.isCreationInDoubt(file));
  fileSystem.releaseFileAtPath("/1", file);
  EXPECT_EQ(requests, 1);
}

TEST_F(PutOffCreation, AnEmptyFileIsMadeWhenItIsSynchronised) {
  const GMUserData file = create();
  EXPECT_TRUE(fileSystem.synchronizeFileAtPath("/1", file, &error));
  EXPECT_EQ(requests, 1);
  EXPECT_TRUE(isMade);
  EXPECT_TRUE(fileSystem.synchronizeFileAtPath("/1", file, &error));
  EXPECT_EQ(requests, 1);
}

TEST_F(PutOffCreation, AListingThatIsFetchedMeanwhileHasTheFile) {
  const GMUserData file = create();
  makeStale("/");
  EXPECT_THAT(list("/"), ElementsAre("1"));
  EXPECT_EQ(requests, 1);
  EXPECT_EQ(fileSystem.openFileAtPathIfAny("/1"), file);
}

TEST_F(PutOffCreation, AFileThatIsRefusedIsToldOfAndGoesAwayWithoutATrace) {
  isForbidden = true;
  const GMUserData file = create();
  EXPECT_FALSE(fileSystem.synchronizeFileAtPath("/1", file, &error));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(underlyingCode(), kQuarnKitPermissionDenied);
  fileSystem.releaseFileAtPath("/1", file);
  EXPECT_THAT(list("/"), IsEmpty());
  EXPECT_THAT(fileSystem.drainAll(), IsEmpty());
}

TEST_F(PutOffCreation, WhatNobodyHasClosedIsMadeAtTheEnd) {
  const GMUserData file = create();
  EXPECT_THAT(fileSystem.drainAll(), IsEmpty());
  EXPECT_TRUE(isMade);
  EXPECT_EQ(requests, 1);
}

// Emptying what is there is done at once.
TEST_F(PutOffCreation, ATruncationIsNotPutOff) {
  const GMUserData file = create();
  EXPECT_TRUE(fileSystem.synchronizeFileAtPath("/1", file, &error));
  EXPECT_TRUE(fileSystem.truncateFileAtPath("/1", file, 0, &error));
  EXPECT_EQ(requests, 2);
  EXPECT_FALSE(fileSystem.isCreationInDoubt(file));
}

}  // namespace
}  // namespace ombra
