// A volume whose server refuses uploads, until it does not.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {

class Drain : public FileSystemTest {
 protected:
  Drain() {
    gStreamingSupported = true;
    server.setSupportsUploadByteOffset(false);
    mountPoint.path = "/Volumes/Srv";
    std::filesystem::remove_all(recovered);
    connect();
  }
  void refuseUploads() {
    for (const char* operation : {"uploadFileHandle", "uploadFileAtPath", "streamBytesWithFilename"}) {
      server.failAlways(operation, kAnyPath, refusal(kQuarnKitOutOfSpace));
    }
  }
  GMUserData create(const std::string& path) {
    GMUserData file;
    EXPECT_TRUE(fileSystem.createFileAtPath(path, {}, &file, &error));
    return file;
  }
  void release(const std::string& path, const GMUserData& file) {
    try {
      fileSystem.releaseFileAtPath(path, file);
    } catch (const KCException&) {
    }
    server.waitUntilAllReleased();
  }
  // A file whose content the server refuses, still open.
  GMUserData writeRefused(const std::string& path, const std::string& text) {
    const GMUserData file = create(path);
    refuseUploads();
    fileSystem.writeFileAtPath(path, file, text.data(), text.size(), 0, nullptr);
    // What the write has started ends refused, and does not go on when the server accepts uploads again.
    waitUntilSettled(file);
    server.waitUntilAllReleased();
    return file;
  }
  // The same, and then the server loses the file and a listing shows that.
  void leaveOldBehind() {
    const GMUserData old = writeRefused(kPath, "old");
    server.removeItem(kPath);
    makeStale("/");
    list("/");
    release(kPath, old);
    ASSERT_EQ(fileSystem._nodeForPath(kPath), nullptr);
    server.stopFailing();
  }
  void store(const std::string& path, const std::string& text) {
    const GMUserData file = create(path);
    ASSERT_EQ(write(path, file, text), static_cast<int>(text.size()));
    ASSERT_TRUE(fileSystem.synchronizeFileAtPath(path, file, &error));
    release(path, file);
  }
  static std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  static std::vector<std::string> contentsOf(const std::vector<GMUndelivered>& undelivered) {
    std::vector<std::string> contents;
    for (const GMUndelivered& one : undelivered) contents.push_back(contentOf(one.savedAs));
    return contents;
  }

  static constexpr const char* kPath = "/new.txt";
  const std::string recovered = std::string(getenv("XDG_STATE_HOME")) + "/ombrafs/recovered";
  RecordedLog log;
};

}  // namespace ombra
