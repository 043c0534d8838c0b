// Paths, error codes, the transfer window, extents of local files, transcript lines.
#include <gtest/gtest.h>
#include <unistd.h>

#include "remote/sftp/FileExtents.h"
#include "remote/sftp/SFTPErrors.h"
#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SFTPTranscript.h"
#include "remote/sftp/SFTPTransferWindow.h"
#include "tests/sftp/SessionFixture.h"

namespace ombra::test {
namespace {

struct StatusCase {
  uint32_t status;
  const char* text;
  SFTPOperation operation;
  QuarnKitErrorCode code;
};

TEST(SFTPErrors, EveryStatusHasItsCode) {
  const StatusCase table[] = {
      {kSFTPStatusNoSuchFile, "No such file", SFTPOperation::kOther, kQuarnKitNoSuchItem},
      {kSFTPStatusNoSuchFile, "No such file", SFTPOperation::kList, kQuarnKitNoSuchItem},
      {kSFTPStatusPermissionDenied, "Permission denied", SFTPOperation::kList, kQuarnKitListingNotPermitted},
      {kSFTPStatusPermissionDenied, "Permission denied", SFTPOperation::kWrite, kQuarnKitPermissionDenied},
      {kSFTPStatusPermissionDenied, "Permission denied", SFTPOperation::kSetAttributes,
       kQuarnKitPermissionDenied},
      {kSFTPStatusFailure, "Failure", SFTPOperation::kOther, kQuarnKitRefused},
      {kSFTPStatusFailure, "", SFTPOperation::kOther, kQuarnKitRefused},
      {kSFTPStatusFailure, "Failure", SFTPOperation::kSetAttributes, kQuarnKitAttributeChangeNotSupported},
      {kSFTPStatusFailure, "write: No space left on device", SFTPOperation::kWrite, kQuarnKitOutOfSpace},
      {kSFTPStatusFailure, "Disk quota exceeded", SFTPOperation::kWrite, kQuarnKitOutOfSpace},
      {kSFTPStatusFailure, "ENOSPC", SFTPOperation::kWrite, kQuarnKitOutOfSpace},
      {kSFTPStatusFailure, "File exists", SFTPOperation::kChangeName, kQuarnKitItemExists},
      {kSFTPStatusFailure, "DIRECTORY NOT EMPTY", SFTPOperation::kOther, kQuarnKitFolderNotEmpty},
      {kSFTPStatusFailure, "Read-only file system", SFTPOperation::kWrite, kQuarnKitReadOnly},
      {kSFTPStatusFailure, "Not a directory", SFTPOperation::kList, kQuarnKitNotAFolder},
      {kSFTPStatusFailure, "File name too long", SFTPOperation::kChangeName, kQuarnKitNameInvalid},
      {kSFTPStatusFailure, "Access denied", SFTPOperation::kList, kQuarnKitListingNotPermitted},
      {kSFTPStatusFailure, "EACCES", SFTPOperation::kWrite, kQuarnKitPermissionDenied},
      {kSFTPStatusFailure, "chmod is not supported here", SFTPOperation::kSetAttributes,
       kQuarnKitAttributeChangeNotSupported},
      {kSFTPStatusBadMessage, "Bad message", SFTPOperation::kChangeName, kQuarnKitNameInvalid},
      {kSFTPStatusBadMessage, "Bad message", SFTPOperation::kOther, kQuarnKitRefused},
      {kSFTPStatusNoConnection, "", SFTPOperation::kOther, kQuarnKitConnectionLost},
      {kSFTPStatusConnectionLost, "", SFTPOperation::kOther, kQuarnKitConnectionLost},
      {kSFTPStatusOpUnsupported, "Operation unsupported", SFTPOperation::kOther, kQuarnKitNotSupported},
      {kSFTPStatusOpUnsupported, "Operation unsupported", SFTPOperation::kSetAttributes,
       kQuarnKitAttributeChangeNotSupported},
      {kSFTPStatusFileAlreadyExists, "", SFTPOperation::kChangeName, kQuarnKitItemExists},
      {kSFTPStatusWriteProtect, "", SFTPOperation::kWrite, kQuarnKitReadOnly},
      {kSFTPStatusNoSpaceOnFilesystem, "", SFTPOperation::kWrite, kQuarnKitOutOfSpace},
      {kSFTPStatusQuotaExceeded, "", SFTPOperation::kWrite, kQuarnKitOutOfSpace},
      {kSFTPStatusDirNotEmpty, "", SFTPOperation::kOther, kQuarnKitFolderNotEmpty},
      {kSFTPStatusNotADirectory, "", SFTPOperation::kList, kQuarnKitNotAFolder},
      {kSFTPStatusInvalidFilename, "", SFTPOperation::kChangeName, kQuarnKitNameInvalid},
      {4711, "who knows", SFTPOperation::kOther, kQuarnKitRefused},
  };
  for (const StatusCase& row : table) {
    EXPECT_EQ(row.code, codeForSFTPStatus({row.status, row.text}, row.operation))
        << row.status << " " << row.text;
  }
}

TEST(SFTPErrors, TellThePathAndTheServersWords) {
  const NSErrorRef error = errorForSFTPStatus({4, "computer says no"}, SFTPOperation::kOther, "/a/b");
  EXPECT_NE(std::string::npos, error->localizedDescription().find("/a/b"));
  EXPECT_NE(std::string::npos, error->localizedDescription().find("computer says no"));
}

TEST(SFTPTransferWindow, DoublesWithEachRoundTripUpToSixteenMebibytes) {
  SFTPTransferWindow window(kSFTPMaximumPieceLength);
  const size_t first = window.limit();
  EXPECT_EQ(4u, first);
  for (size_t i = 0; i < first; ++i) window.replied(std::chrono::milliseconds(100));
  EXPECT_EQ(2 * first, window.limit());
  for (int i = 0; i < 1000; ++i) window.replied(std::chrono::milliseconds(100));
  EXPECT_EQ(kSFTPTransferWindowBytes / kSFTPMaximumPieceLength, window.limit());
}

TEST(SFTPTransferWindow, FillsAHundredMillisecondsAtOneGigabitAlsoWithSmallPieces) {
  SFTPTransferWindow window(kSFTPDefaultPieceLength);
  for (int i = 0; i < 1000; ++i) window.replied(std::chrono::milliseconds(100));
  EXPECT_GE(window.limit() * kSFTPDefaultPieceLength, 12'500'000u);
}

TEST(SFTPTransferWindow, OnALineThatAnswersAtOnceHoldsNoMoreThanAMebibyte) {
  SFTPTransferWindow window(kSFTPDefaultPieceLength);
  for (int i = 0; i < 1000; ++i) window.replied(std::chrono::microseconds(300));
  EXPECT_EQ(32u, window.limit());
}

TEST(SFTPTransferWindow, HoldsWhatTenGigabitsBringInTheTimeOfTheQuickestReply) {
  SFTPTransferWindow window(kSFTPDefaultPieceLength);
  for (int i = 0; i < 1000; ++i) window.replied(std::chrono::milliseconds(5));
  EXPECT_EQ(6'250'000u / kSFTPDefaultPieceLength, window.limit());
}

TEST(SFTPTransferWindow, StopsGrowingWhenRepliesQueueUpAndShrinksWhenTheyDoSoForLong) {
  SFTPTransferWindow window(kSFTPMaximumPieceLength);
  window.replied(std::chrono::milliseconds(250));
  const size_t limit = window.limit();
  window.replied(std::chrono::milliseconds(600));
  EXPECT_EQ(limit, window.limit());
  for (int i = 0; i < 100; ++i) window.replied(std::chrono::milliseconds(1300));
  EXPECT_EQ(2u, window.limit());
}

TEST(FileExtents, LeaveHolesOut) {
  const auto file = makeLocalFile(NSFileHandle::Kind::kFile);
  const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
  ASSERT_EQ(0, ftruncate(file->fileDescriptor(), static_cast<off_t>(10 * page)));
  EXPECT_TRUE(dataExtents(*file, 0, 10 * page).empty());
  ASSERT_TRUE(file->writeAll("x", 1, 2 * page));
  ASSERT_TRUE(file->writeAll("x", 1, 5 * page));
  EXPECT_EQ((std::vector<FileExtent>{{2 * page, 3 * page}, {5 * page, 6 * page}}),
            dataExtents(*file, 0, 10 * page));
  EXPECT_EQ((std::vector<FileExtent>{{2 * page + 7, 3 * page}, {5 * page, 5 * page + 1}}),
            dataExtents(*file, 2 * page + 7, 5 * page + 1));
}

TEST(FileExtents, LeaveThePositionWhereItWas) {
  const auto file = makeLocalFile(NSFileHandle::Kind::kFile, "abcdef");
  lseek(file->fileDescriptor(), 3, SEEK_SET);
  EXPECT_EQ((std::vector<FileExtent>{{0, 6}}), dataExtents(*file, 0, 6));
  EXPECT_EQ(3, lseek(file->fileDescriptor(), 0, SEEK_CUR));
}

TEST(SFTPTranscript, QuotesWhatWouldBreakALine) {
  EXPECT_EQ("\"a\\\"b\\\\c\\x0a\\x1b\xc3\xa4\"", sftpQuoted("a\"b\\c\n\x1b\xc3\xa4"));
  EXPECT_EQ("open id=3 \"/a\" flags=read\n", sftpRequestText(3, "open \"/a\" flags=read"));
  EXPECT_EQ("limits id=1\n", sftpRequestText(1, "limits"));
  EXPECT_EQ("write+create+truncate", sftpOpenFlagsText(kSFTPOpenWrite | kSFTPOpenCreate | kSFTPOpenTruncate));
}

}  // namespace
}  // namespace ombra::test
