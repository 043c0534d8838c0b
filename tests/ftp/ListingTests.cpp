// Lines of listings, as bytes.
#include <gtest/gtest.h>

#include "remote/ftp/FTPFacts.h"
#include "remote/ftp/FTPLines.h"
#include "remote/ftp/FTPListLine.h"

namespace ombra {
namespace {

constexpr int64_t kSecond = 1'000'000'000;
// 2024-05-14 12:00:00
const NSDate kNow = NSDate::dateWithNanoseconds(1715688000 * kSecond);

NSDate at(int64_t seconds) { return NSDate::dateWithNanoseconds(seconds * kSecond); }

struct ListCase {
  const char* line;
  const char* name;
  uint32_t type;
  std::optional<uint64_t> size;
  std::optional<NSDate> date;
  std::optional<uint16_t> mode{};
  std::optional<std::string> target{};
};

const ListCase kListCases[] = {
    // Unix: this year without a year, older with one.
    {"-rw-r--r--    1 1000     1000         1234 May 14 09:30 file.txt", "file.txt", kNodeTypeFile, 1234,
     at(1715679000), 0644},
    {"-rw-r--r--    1 ftp      ftp          1234 May 14  2023 file.txt", "file.txt", kNodeTypeFile, 1234,
     at(1684022400), 0644},
    {"drwxr-xr-x    2 ftp      ftp          4096 Jan  1 00:00 folder", "folder", kNodeTypeFolder,
     std::nullopt, at(1704067200), 0755},
    // Later than now: the year before.
    {"-rw-r--r--    1 ftp      ftp             1 Dec 31 23:59 old", "old", kNodeTypeFile, 1, at(1704067140),
     0644},
    // A clock ahead of ours by hours.
    {"-rw-r--r--    1 ftp      ftp             1 May 15 09:00 ahead", "ahead", kNodeTypeFile, 1,
     at(1715763600), 0644},
    {"-rw-r--r--    1 ftp      ftp             1 Feb 29 12:00 leap", "leap", kNodeTypeFile, 1, at(1709208000),
     0644},
    // Names keep their blanks, at both ends.
    {"-rw-r--r--    1 ftp      ftp             1 May 14 09:30  two  blanks ", " two  blanks ", kNodeTypeFile,
     1, at(1715679000), 0644},
    {"-rw-r--r--    1 ftp      ftp             1 May 14 09:30 May 14 09:30 x", "May 14 09:30 x",
     kNodeTypeFile, 1, at(1715679000), 0644},
    // No group; no owner of one word; special bits; an access list.
    {"-rw-r--r--   1 someone      77 Nov  5  2021 nogroup", "nogroup", kNodeTypeFile, 77, at(1636070400),
     0644},
    {"-rwsr-xr-t+  1 Domain Users Some Group 77 Nov  5  2021 words", "words", kNodeTypeFile, 77,
     at(1636070400), 05755},
    {"-rw-rwSr-T   1 a b 77 Nov  5  2021 caps", "caps", kNodeTypeFile, 77, at(1636070400), 03664},
    // Other orders of the date.
    {"-rw-r--r--   1 a b 77 5 Nov 2021 day first", "day first", kNodeTypeFile, 77, at(1636070400), 0644},
    {"-rw-r--r--   1 a b 77 2021-11-05 10:20 digits", "digits", kNodeTypeFile, 77, at(1636107600), 0644},
    // Links.
    {"lrwxrwxrwx   1 a b 6 Nov  5  2021 link -> target", "link", kNodeTypeAlias, 6, at(1636070400),
     std::nullopt, "target"},
    {"lrwxrwxrwx   1 a b 0 Nov  5  2021 a -> b -> c -> /d/e", "a", kNodeTypeAlias, 0, at(1636070400),
     std::nullopt, "b -> c -> /d/e"},
    {"lrwxrwxrwx   1 a b 6 Nov  5  2021 a -> b -> target", "a -> b", kNodeTypeAlias, 6, at(1636070400),
     std::nullopt, "target"},
    // A device has two numbers for a size: the second stands before the date.
    {"crw-rw-rw-   1 root root 1, 3 Nov  5  2021 null", "null", kNodeTypeFile, 3, at(1636070400), 0666},
    {"d [R----F--] supervisor            512       Jan 16 18:53    login", "   login", kNodeTypeFolder,
     std::nullopt, at(1705431180)},
    // The longest file that there can be, and longer ones, whose length is not known then.
    {"-rw-r--r--   1 a b 9223372036854775807 Nov  5  2021 huge", "huge", kNodeTypeFile, INT64_MAX,
     at(1636070400), 0644},
    {"-rw-r--r--   1 a b 9223372036854775808 Nov  5  2021 more", "more", kNodeTypeFile, std::nullopt,
     at(1636070400), 0644},
    {"-rw-r--r--   1 a b 18446744073709551615 Nov  5  2021 most", "most", kNodeTypeFile, std::nullopt,
     at(1636070400), 0644},
    {"05-14-24  09:30AM 18446744073709551615 most", "most", kNodeTypeFile, std::nullopt, at(1715679000)},
    // DOS.
    {"05-14-24  09:30AM                  184 iisstart.htm", "iisstart.htm", kNodeTypeFile, 184,
     at(1715679000)},
    {"05-14-2023  12:05AM       <DIR>          asp net ", "asp net ", kNodeTypeFolder, std::nullopt,
     at(1684022700)},
    {"05-14-23  12:05PM       <DIR>           blank", " blank", kNodeTypeFolder, std::nullopt,
     at(1684065900)},
    {"05-14-99  21:05                   184  x", " x", kNodeTypeFile, 184, at(926715900)},
    {"05-14-23  12:05PM       <JUNCTION>     link [C:\\there]", "link", kNodeTypeAlias, std::nullopt,
     at(1684065900), std::nullopt, "C:\\there"},
};

TEST(FTPListLine, ItemsOfUnixAndDOS) {
  for (const ListCase& one : kListCases) {
    for (const char* end : {"", "\r"}) {
      const auto item = itemOfListLine(std::string(one.line) + end, kNow);
      ASSERT_TRUE(item.has_value()) << one.line;
      EXPECT_EQ(item->kind, FTPItem::Kind::kItem) << one.line;
      EXPECT_EQ(item->entry.name, one.name) << one.line;
      EXPECT_EQ(item->entry.type, one.type) << one.line;
      EXPECT_EQ(item->entry.attributes.fileSize, one.size) << one.line;
      EXPECT_EQ(item->entry.attributes.modificationDate, one.date) << one.line;
      EXPECT_EQ(item->entry.attributes.posixPermissions, one.mode) << one.line;
      EXPECT_EQ(item->entry.targetPath, one.target) << one.line;
    }
  }
}

TEST(FTPListLine, TheFolderItselfIsNoItemOfIt) {
  for (const char* line : {"drwxr-xr-x    2 ftp      ftp          4096 Jan  1 00:00 .",
                           "drwxr-xr-x    2 ftp      ftp          4096 Jan  1 00:00 .."}) {
    const auto item = itemOfListLine(line, kNow);
    ASSERT_TRUE(item.has_value());
    EXPECT_EQ(item->kind, FTPItem::Kind::kSelf);
  }
}

TEST(FTPListLine, TheNumberOfNamesAndNumericOwnersAreTold) {
  const auto item = itemOfListLine("-rw-r--r--    3 1000     1001         1234 May 14 09:30 file", kNow);
  ASSERT_TRUE(item.has_value());
  EXPECT_EQ(item->links, 3u);
  EXPECT_EQ(item->entry.attributes.ownerAccountID, 1000u);
  EXPECT_EQ(item->entry.attributes.groupOwnerAccountID, 1001u);
}

TEST(FTPListLine, AroundNewYearADateIsNotAYearAway) {
  const NSDate lastOfDecember = at(1735689540);  // 2024-12-31 23:59
  const auto item = itemOfListLine("-rw-r--r--    1 a b 1 Jan  1 00:30 x", lastOfDecember);
  ASSERT_TRUE(item.has_value());
  EXPECT_EQ(item->entry.attributes.modificationDate, at(1735691400));
}

TEST(FTPListLine, WhatIsNoItemIsNone) {
  for (const char* line :
       {"", "\r", "total 12", "hello", "-rw-r--r--", "-rw-r--r-- 1 a b", "-rw-r--r-- 1 a b 77 Nov  5  2021",
        "-rw-r--r-- 1 a b 77 Nov  5  2021 ", "-rwzr--r-- 1 a b 77 Nov  5  2021 x",
        "?rw-r--r-- 1 a b 77 Nov  5  2021 x", "-rw-r--r-- 1 a b 77 Nov 32  2021 x",
        "-rw-r--r-- 1 a b -7 Nov  5  2021 x", "-rw-r--r-- 1 a b 77 Foo  5  2021 x",
        "13-14-24  09:30AM                  184 x", "05-14-24  09:70AM                  184 x",
        "05-14-24  09:30AM       <WHAT>          x", "05-14-24  09:30AM                  184",
        "type=file;size=1; x"}) {
    EXPECT_FALSE(itemOfListLine(line, kNow).has_value()) << line;
  }
  EXPECT_TRUE(isListHeading("total 12"));
  EXPECT_TRUE(isListHeading("\r"));
  EXPECT_FALSE(isListHeading("total loss"));
  EXPECT_FALSE(isListHeading("hello"));
}

TEST(FTPFacts, TellOfAnItem) {
  const auto item = itemOfFacts(
      "Type=file;Size=1024;Modify=20240514093000.250;Create=20230514000000;UNIX.mode=0100640;UNIX.uid=7;"
      "UNIX.gid=8;Perm=ADfrw;Unique=x;  a; b");
  ASSERT_TRUE(item.has_value());
  EXPECT_EQ(item->entry.name, " a; b");
  EXPECT_EQ(item->entry.type, kNodeTypeFile);
  EXPECT_EQ(item->entry.attributes.fileSize, 1024u);
  EXPECT_EQ(item->entry.attributes.modificationDate,
            NSDate::dateWithNanoseconds(1715679000 * kSecond + 250'000'000));
  EXPECT_EQ(item->entry.attributes.creationDate, at(1684022400));
  EXPECT_EQ(item->entry.attributes.posixPermissions, 0640);
  EXPECT_EQ(item->entry.attributes.ownerAccountID, 7u);
  EXPECT_EQ(item->entry.attributes.groupOwnerAccountID, 8u);
  EXPECT_EQ(item->permissions, "adfrw");
}

TEST(FTPFacts, KindsOfItems) {
  struct Case {
    const char* line;
    FTPItem::Kind kind;
    uint32_t type;
    std::optional<std::string> target;
  };
  const Case table[] = {
      {"type=dir;size=4096; x", FTPItem::Kind::kItem, kNodeTypeFolder, std::nullopt},
      {"type=cdir; .", FTPItem::Kind::kSelf, kNodeTypeFolder, std::nullopt},
      {"type=pdir; ..", FTPItem::Kind::kSelf, kNodeTypeFolder, std::nullopt},
      {"type=OS.unix=slink:/there; x", FTPItem::Kind::kItem, kNodeTypeAlias, "/there"},
      {"type=OS.unix=slink:a b; x", FTPItem::Kind::kItem, kNodeTypeAlias, "a b"},
      {"type=OS.unix=symlink;size=3; x", FTPItem::Kind::kItem, kNodeTypeAlias, std::nullopt},
      {"type=OS.unix=chr-1/3; x", FTPItem::Kind::kUnknown, kNodeTypeFile, std::nullopt},
      {"type=strange; x", FTPItem::Kind::kUnknown, kNodeTypeFile, std::nullopt},
      {" nothing is known", FTPItem::Kind::kItem, kNodeTypeFile, std::nullopt},
  };
  for (const Case& one : table) {
    const auto item = itemOfFacts(one.line);
    ASSERT_TRUE(item.has_value()) << one.line;
    EXPECT_EQ(item->kind, one.kind) << one.line;
    EXPECT_EQ(item->entry.type, one.type) << one.line;
    EXPECT_EQ(item->entry.targetPath, one.target) << one.line;
  }
  EXPECT_FALSE(itemOfFacts("type=dir;size=4096; x")->entry.attributes.fileSize.has_value());
}

TEST(FTPFacts, ValuesThatMakeNoSenseAreLeftOut) {
  const auto item = itemOfFacts("type=file;size=-1;modify=yesterday;UNIX.mode=rwx;UNIX.uid=root; x");
  ASSERT_TRUE(item.has_value());
  EXPECT_EQ(item->entry.attributes, NSFileAttributes());
}

TEST(FTPFacts, ALengthThatNoFileHasIsLeftOut) {
  EXPECT_EQ(itemOfFacts("size=9223372036854775807; x")->entry.attributes.fileSize, uint64_t{INT64_MAX});
  for (const char* line : {"size=9223372036854775808; x", "size=18446744073709551615; x",
                           "size=99999999999999999999; x", "size=1 GB; x"}) {
    ASSERT_TRUE(itemOfFacts(line).has_value()) << line;
    EXPECT_FALSE(itemOfFacts(line)->entry.attributes.fileSize.has_value()) << line;
  }
}

TEST(FTPFacts, WhatIsNoFactLineIsNone) {
  for (const char* line : {"", " ", "type=file;", "type=file; ", "type=file;size=1;x", "file; x",
                           "-rw-r--r--    1 a b 1 Jan  1 00:30 x"}) {
    EXPECT_FALSE(itemOfFacts(line).has_value()) << line;
  }
}

TEST(FTPTime, IsReadAndWritten) {
  const std::pair<const char*, std::optional<NSDate>> table[] = {
      {"20240514093000", at(1715679000)},
      {"20240514093000.5", NSDate::dateWithNanoseconds(1715679000 * kSecond + 500'000'000)},
      {"19691231235959", at(-1)},
      {"191000514093000", at(958296600)},
      {"2024051409300", std::nullopt},
      {"20241314093000", std::nullopt},
      {"20240514243000", std::nullopt},
      {"2024051409300x", std::nullopt},
      {"20240514093000.x", std::nullopt},
      {"99991231235959", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [text, date] : table) EXPECT_EQ(dateOfFTPTime(text), date) << text;
  EXPECT_EQ(ftpTimeOfDate(at(1715679000)), "20240514093000");
  EXPECT_EQ(ftpTimeOfDate(at(-1)), "19691231235959");
}

TEST(FTPLines, AreCutOutHoweverTheyCome) {
  const std::string bytes = "one\ntwo\r\n\nlast";
  for (size_t step = 1; step <= bytes.size(); ++step) {
    FTPLines lines;
    std::vector<std::string> found;
    const auto take = [&found](std::string_view line) {
      found.emplace_back(line);
      return true;
    };
    for (size_t at = 0; at < bytes.size(); at += step) {
      ASSERT_TRUE(lines.add(std::string_view(bytes).substr(at, step), take));
    }
    ASSERT_TRUE(lines.finish(take));
    EXPECT_EQ(found, (std::vector<std::string>{"one", "two\r", "", "last"})) << step;
  }
}

TEST(FTPLines, OneThatNeverEndsIsFoundOut) {
  FTPLines lines;
  const auto take = [](std::string_view) { return true; };
  EXPECT_TRUE(lines.add(std::string(FTPLines::kMaximumLine, 'x'), take));
  EXPECT_FALSE(lines.add("x", take));
}

}  // namespace
}  // namespace ombra
