// The contract for downloads, uploads and streams. Included by ConnectionContractTests.h alone.
#pragma once

#include <algorithm>
#include <cstring>
#include <fstream>

#include "tests/support/ConnectionContract.h"
#include "tests/support/TemporaryFile.h"
#include "tests/support/TemporaryFolder.h"

namespace ombra {

// Remembers the reports, and gives the bytes of a stream in pieces.
class ContractDelegate : public ConnectionDelegate {
 public:
  bool connection(AbstractConnection&, const TrustQuestion&) override { return true; }
  void connection(AbstractConnection& reporting, uint64_t bytes, double, bool) override {
    reports.push_back(bytes);
    if (cancelAfter && bytes >= *cancelAfter) reporting.setShouldCancel(true);
  }
  size_t connection(AbstractConnection& asking, std::byte* buffer, size_t length) override {
    if (cancelAfter && given >= *cancelAfter) {
      asking.setShouldCancel(true);
      return 0;
    }
    const size_t count = std::min({length, piece, content.size() - given});
    std::memcpy(buffer, content.data() + given, count);
    given += count;
    return count;
  }

  std::vector<uint64_t> reports;
  std::optional<uint64_t> cancelAfter;
  std::string content;
  size_t piece = 10000;
  size_t given = 0;
};

inline constexpr size_t kLargeSize = 6 * 1024 * 1024 + 12345;

TEST_P(ConnectionContract, DownloadsBringTheWholeContent) {
  for (const size_t size : {size_t{0}, size_t{1}, size_t{32767}, size_t{32768}, size_t{32769}, kLargeSize}) {
    const std::string content = contractContent(size);
    server().putFile(at("file"), content);
    const std::optional<std::string> fetched = fetch(at("file"));
    ASSERT_TRUE(fetched.has_value()) << size;
    EXPECT_TRUE(*fetched == content) << size;
  }
}

TEST_P(ConnectionContract, DownloadsBeginAtTheirOffset) {
  const std::string content = contractContent(100000);
  server().putFile(at("file"), content);
  for (const uint64_t offset : {uint64_t{1}, uint64_t{50000}, uint64_t{99999}, uint64_t{100000}}) {
    const std::optional<std::string> rest = fetch(at("file"), offset);
    ASSERT_TRUE(rest.has_value()) << offset;
    EXPECT_TRUE(*rest == content.substr(offset)) << offset;
  }
}

TEST_P(ConnectionContract, DownloadOfWhatIsMissingSaysSo) {
  const auto file = temporaryFile();
  NSErrorRef error;
  uint64_t bytes = 1;
  EXPECT_FALSE(connection().downloadFileAtPath(at("missing"), *file, 0, &bytes, &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem}));
  EXPECT_EQ(bytes, 0u);
  EXPECT_EQ(file->fileLength(), 0u);
}

TEST_P(ConnectionContract, DownloadOfAFolderFails) {
  const auto file = temporaryFile();
  NSErrorRef error;
  EXPECT_FALSE(connection().downloadFileAtPath(root(), *file, 0, nullptr, &error));
  EXPECT_NE(error, nullptr);
  EXPECT_EQ(file->fileLength(), 0u);
}

TEST_P(ConnectionContract, DownloadsReportTheirWayFromTheFirstBytesToTheLast) {
  server().putFile(at("file"), contractContent(kLargeSize));
  ContractDelegate delegate;
  connection().setDelegate(&delegate);
  EXPECT_TRUE(fetch(at("file")).has_value());
  connection().setDelegate(nullptr);
  ASSERT_FALSE(delegate.reports.empty());
  EXPECT_LE(delegate.reports.front(), 1024u * 1024u) << "the first report comes with the first bytes";
  EXPECT_EQ(delegate.reports.back(), kLargeSize);
  EXPECT_TRUE(std::is_sorted(delegate.reports.begin(), delegate.reports.end()));
}

TEST_P(ConnectionContract, ReportsNeverPromiseMoreThanHasArrived) {
  const std::string content = contractContent(kLargeSize);
  server().putFile(at("file"), content);
  const auto file = temporaryFile();
  class Checker : public ConnectionDelegate {
   public:
    Checker(NSFileHandle& handle, const std::string& expected) : iHandle(handle), iExpected(expected) {}
    bool connection(AbstractConnection&, const TrustQuestion&) override { return true; }
    void connection(AbstractConnection&, uint64_t bytes, double, bool) override {
      EXPECT_LE(bytes, iHandle.fileLength());
      // What readers go by is the length of the file: all of it must be there.
      const std::string arrived = contentOf(iHandle);
      EXPECT_EQ(arrived.compare(0, arrived.size(), iExpected, 0, arrived.size()), 0);
    }
    using ConnectionDelegate::connection;

   private:
    NSFileHandle& iHandle;
    const std::string& iExpected;
  } checker(*file, content);
  connection().setDelegate(&checker);
  EXPECT_TRUE(connection().downloadFileAtPath(at("file"), *file, 0, nullptr, nullptr));
  connection().setDelegate(nullptr);
}

TEST_P(ConnectionContract, ACancelledDownloadStopsAndTheConnectionGoesOn) {
  const std::string content = contractContent(4 * kLargeSize);
  server().putFile(at("file"), content);
  ContractDelegate delegate;
  delegate.cancelAfter = 1;
  connection().setDelegate(&delegate);
  const auto file = temporaryFile();
  NSErrorRef error;
  uint64_t bytes = 0;
  EXPECT_FALSE(connection().downloadFileAtPath(at("file"), *file, 0, &bytes, &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitCancelled}));
  EXPECT_LT(bytes, content.size());
  connection().setDelegate(nullptr);
  const std::string arrived = contentOf(*file);
  EXPECT_EQ(content.compare(0, arrived.size(), arrived), 0);
  EXPECT_EQ(names(root()), std::vector<std::string>{"file"});
  EXPECT_TRUE(fetch(at("file")) == content);
}

TEST_P(ConnectionContract, UploadsMakeAndReplaceFiles) {
  for (const size_t size : {size_t{5}, size_t{0}, kLargeSize, size_t{32769}, size_t{1}}) {
    const std::string content = contractContent(size, 2);
    NSErrorRef error;
    ASSERT_TRUE(send(at("file"), content, &error)) << size << " " << error->description();
    EXPECT_TRUE(server().storedContent(at("file")) == content) << size;
    EXPECT_EQ(server().storedNames(root()), std::vector<std::string>{"file"});
  }
}

TEST_P(ConnectionContract, ANewFileIsThereForWhoeverLooksAndIsStoredInTheEnd) {
  const auto make = [this](NSFileHandle& file, const std::string& name) {
    connection().setPutsOffNewFiles(true);
    const bool isMade = connection().uploadFileHandle(file, name, at(name), 0, nullptr, nullptr);
    connection().setPutsOffNewFiles(false);
    return isMade;
  };
  const auto looked = temporaryFile();
  ASSERT_TRUE(make(*looked, "looked"));
  EXPECT_EQ(names(root()), std::vector<std::string>{"looked"});
  const auto empty = temporaryFile();
  ASSERT_TRUE(make(*empty, "empty"));
  EXPECT_TRUE(connection().finishUploads(*empty, at("empty"), nullptr));
  EXPECT_EQ(server().storedContent(at("empty")), "");
  const auto sent = temporaryFile();
  ASSERT_TRUE(make(*sent, "sent"));
  ASSERT_TRUE(send(at("sent"), "content"));
  EXPECT_TRUE(connection().finishUploads(*sent, at("sent"), nullptr));
  EXPECT_EQ(server().storedContent(at("sent")), "content");
  const auto gone = temporaryFile();
  ASSERT_TRUE(make(*gone, "gone"));
  EXPECT_TRUE(connection().deleteItemAtPath(at("gone"), false, nullptr));
  EXPECT_TRUE(connection().finishUploads(*gone, at("gone"), nullptr));
  EXPECT_FALSE(server().exists(at("gone")));
}

TEST_P(ConnectionContract, UploadsOfALocalPathSendTheSame) {
  const TemporaryFolder folder;
  const std::string path = folder / "file";
  const std::string content = contractContent(50000);
  std::ofstream(path, std::ios::binary) << content;
  uint64_t bytes = 0;
  NSErrorRef error;
  EXPECT_TRUE(connection().uploadFileAtPath(path, at("file"), 0, &bytes, &error));
  EXPECT_EQ(bytes, content.size());
  EXPECT_TRUE(server().storedContent(at("file")) == content);
}

TEST_P(ConnectionContract, UploadsReportTheirWay) {
  const std::string content = contractContent(kLargeSize);
  ContractDelegate delegate;
  connection().setDelegate(&delegate);
  EXPECT_TRUE(send(at("file"), content));
  connection().setDelegate(nullptr);
  ASSERT_FALSE(delegate.reports.empty());
  EXPECT_EQ(delegate.reports.back(), kLargeSize);
  EXPECT_TRUE(std::is_sorted(delegate.reports.begin(), delegate.reports.end()));
}

TEST_P(ConnectionContract, UploadsKeepTheModeOfWhatTheyReplace) {
  server().putFile(at("file"), "old");
  NSFileAttributes mode;
  mode.posixPermissions = 0600;
  if (!connection().changeAttributes(mode, at("file"), nullptr)) return;
  ASSERT_TRUE(send(at("file"), "new"));
  EXPECT_EQ(node(root(), "file")->permissions(), FilePermissions(0600));
}

TEST_P(ConnectionContract, UploadsIntoAMissingFolderFail) {
  NSErrorRef error;
  EXPECT_FALSE(send(at("missing/file"), "x", &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem, kQuarnKitRefused}));
  EXPECT_FALSE(server().exists(at("missing")));
}

TEST_P(ConnectionContract, ACancelledUploadIsNotMistakenForAWholeOne) {
  const std::string content = contractContent(8 * kLargeSize);
  ContractDelegate delegate;
  delegate.cancelAfter = 1;
  connection().setDelegate(&delegate);
  NSErrorRef error;
  EXPECT_FALSE(send(at("file"), content, &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitCancelled}));
  connection().setDelegate(nullptr);
  EXPECT_FALSE(server().storedContent(at("file")) == content);
  if (!server().forgetsBrokenUploads()) {
    EXPECT_TRUE(send(at("other"), "small"));
    EXPECT_EQ(server().storedContent(at("other")), "small");
    return;
  }
  EXPECT_TRUE(send(at("file"), "small"));
  EXPECT_EQ(server().storedContent(at("file")), "small");
  EXPECT_EQ(names(root()), std::vector<std::string>{"file"});
}

TEST_P(ConnectionContract, UploadsFromAnOffsetChangeTheFileInPlace) {
  std::string content = contractContent(100000);
  server().putFile(at("file"), content);
  std::fill(content.begin() + 60000, content.begin() + 60100, 'x');
  content += "appended";
  const auto file = temporaryFile(content, NSFileHandle::Kind::kFile);
  NSErrorRef error;
  uint64_t bytes = 0;
  const bool sent = connection().uploadFileHandle(*file, "file", at("file"), 60000, &bytes, &error);
  EXPECT_EQ(sent, connection().supportsUploadByteOffset());
  if (!sent) {
    EXPECT_TRUE(hasCode(error, {kQuarnKitNotSupported}));
    return;
  }
  EXPECT_EQ(bytes, content.size());
  EXPECT_TRUE(server().storedContent(at("file")) == content);
}

TEST_P(ConnectionContract, AnInPlaceUploadSendsOnlyWhatIsNotConfirmed) {
  if (!connection().supportsUploadByteOffset()) return;
  const std::string content = contractContent(200000);
  const auto file = temporaryFile(content);
  ASSERT_TRUE(connection().uploadFileHandle(*file, "file", at("file"), 0, nullptr, nullptr));
  EXPECT_TRUE(file->unconfirmedExtents(0).empty()) << "a whole upload confirms everything";
  // Somebody changes the server's copy behind our back: what is confirmed is not sent again, so it stays.
  std::string changed = content;
  changed[150000] = static_cast<char>(~changed[150000]);
  server().putFile(at("file"), changed);
  ASSERT_TRUE(file->writeAll("page", 4, 100000));
  file->noteWritten({100000, 100004});
  changed.replace(100000, 4, "page");
  uint64_t bytes = 0;
  ASSERT_TRUE(connection().uploadFileHandle(*file, "file", at("file"), 100000, &bytes, nullptr));
  EXPECT_TRUE(server().storedContent(at("file")) == changed);
  EXPECT_EQ(bytes, content.size());
  EXPECT_TRUE(file->unconfirmedExtents(0).empty());
}

// What somebody else took away from the server's copy is there again after an upload in place, wherever that
// begins.
TEST_P(ConnectionContract, AnInPlaceUploadIntoAShortenedFileHasTheResultOfAWholeOne) {
  if (!connection().supportsUploadByteOffset()) return;
  for (const NSFileHandle::Kind kind : {NSFileHandle::Kind::kScratch, NSFileHandle::Kind::kFile}) {
    for (const size_t left : {size_t{0}, size_t{50000}, size_t{100002}, size_t{150000}}) {
      std::string content = contractContent(200000);
      const auto file = temporaryFile(content, kind);
      ASSERT_TRUE(connection().uploadFileHandle(*file, "file", at("file"), 0, nullptr, nullptr));
      ASSERT_TRUE(connection().finishUploads(*file, at("file"), nullptr));
      server().putFile(at("file"), content.substr(0, left));
      ASSERT_TRUE(file->writeAll("page", 4, 100000));
      file->noteWritten({100000, 100004});
      content.replace(100000, 4, "page");
      NSErrorRef error;
      ASSERT_TRUE(connection().uploadFileHandle(*file, "file", at("file"), 100000, nullptr, &error)) << left;
      EXPECT_TRUE(server().storedContent(at("file")) == content)
          << left << (file->isScratch() ? " scratch" : " ordinary");
      EXPECT_TRUE(file->unconfirmedExtents(0).empty()) << left;
    }
  }
}

TEST_P(ConnectionContract, AnInPlaceUploadIntoAFileThatIsGoneMakesItWhole) {
  if (!connection().supportsUploadByteOffset()) return;
  for (const NSFileHandle::Kind kind : {NSFileHandle::Kind::kScratch, NSFileHandle::Kind::kFile}) {
    std::string content = contractContent(200000);
    const auto file = temporaryFile(content, kind);
    ASSERT_TRUE(connection().uploadFileHandle(*file, "file", at("file"), 0, nullptr, nullptr));
    ASSERT_TRUE(connection().deleteItemAtPath(at("file"), false, nullptr));
    ASSERT_TRUE(file->writeAll("page", 4, 100000));
    file->noteWritten({100000, 100004});
    content.replace(100000, 4, "page");
    NSErrorRef error;
    ASSERT_TRUE(connection().uploadFileHandle(*file, "file", at("file"), 100000, nullptr, &error));
    EXPECT_TRUE(server().storedContent(at("file")) == content);
    EXPECT_TRUE(file->unconfirmedExtents(0).empty());
  }
}

TEST_P(ConnectionContract, ExtentsBeforeTheOffsetStayUnconfirmed) {
  if (!connection().supportsUploadByteOffset()) return;
  const auto file = temporaryFile(contractContent(1000));
  ASSERT_TRUE(connection().uploadFileHandle(*file, "file", at("file"), 0, nullptr, nullptr));
  file->noteWritten({10, 20});
  file->noteWritten({500, 600});
  ASSERT_TRUE(connection().uploadFileHandle(*file, "file", at("file"), 15, nullptr, nullptr));
  EXPECT_EQ(file->unconfirmedExtents(0), (std::vector<FileExtent>{{10, 15}}));
}

TEST_P(ConnectionContract, AHoleAtTheEndIsToldByTheLength) {
  if (!connection().supportsUploadByteOffset()) return;
  const auto file = temporaryFile("hello");
  ASSERT_TRUE(connection().uploadFileHandle(*file, "file", at("file"), 0, nullptr, nullptr));
  ASSERT_TRUE(file->writeAll("end", 3, 1000000));
  file->noteWritten({1000000, 1000003});
  ASSERT_TRUE(connection().uploadFileHandle(*file, "file", at("file"), 1000000, nullptr, nullptr));
  std::string expected = "hello";
  expected.resize(1000000, '\0');
  EXPECT_TRUE(server().storedContent(at("file")) == expected + "end");
}

TEST_P(ConnectionContract, StreamsSendWhatTheHandlerGives) {
  for (const size_t size : {size_t{0}, size_t{5}, kLargeSize, size_t{70000}}) {
    ContractDelegate handler;
    handler.content = contractContent(size, 3);
    connection().setDelegate(&handler);
    NSErrorRef error;
    const bool streamed = connection().streamBytesWithFilename("file", at("file"), handler, &error);
    connection().setDelegate(nullptr);
    EXPECT_TRUE(handler.reports.empty()) << "progress is never reported during a stream";
    if (!streamed) {
      EXPECT_TRUE(hasCode(error, {kQuarnKitNotSupported}));
      EXPECT_FALSE(server().exists(at("file")));
      return;
    }
    EXPECT_TRUE(server().storedContent(at("file")) == handler.content) << size;
    EXPECT_EQ(server().storedNames(root()), std::vector<std::string>{"file"});
  }
}

TEST_P(ConnectionContract, ACancelledStreamFailsAndTheConnectionGoesOn) {
  ContractDelegate handler;
  handler.content = contractContent(kLargeSize, 4);
  handler.cancelAfter = kLargeSize / 2;
  NSErrorRef error;
  EXPECT_FALSE(connection().streamBytesWithFilename("file", at("file"), handler, &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitCancelled, kQuarnKitNotSupported}));
  EXPECT_FALSE(server().storedContent(at("file")) == handler.content);
  EXPECT_TRUE(send(at("file"), "after"));
  EXPECT_EQ(server().storedContent(at("file")), "after");
}

}  // namespace ombra
