#include <gtest/gtest.h>

#include "platform/foundation/NSUnarchiver.h"
#include "remote/KCCredentials.h"
#include "remote/KCTypes.h"

namespace ombra {
namespace {

using Field = NSArchiver::Field;

std::shared_ptr<KCCredentials> full() {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(kProtocolSFTP);
  credentials->setAddress("nas.local");
  credentials->setPort(2222);
  credentials->setUsername("anna");
  credentials->setPassword("gehêim");
  credentials->setInitialPath("~/docs");
  credentials->setEncoding("ISO-8859-1");
  credentials->setOption("identityFile", "/home/anna/.ssh/id");
  credentials->setOption("of the future", "kept");
  return credentials;
}

// The fields of a good record, for tests that spoil one.
std::vector<Field> goodFields() {
  std::vector<Field> fields(9);
  fields[0].type = Field::Type::kUnsignedInt;
  fields[0].number = kProtocolSFTP;
  fields[2].type = Field::Type::kInt;
  for (const size_t i : {1, 3, 4, 5, 6, 7}) fields[i].type = Field::Type::kString;
  fields[1].text = "nas.local";
  fields[7].text = "6FA459EA-EE8A-4CA4-894E-DB77E160355E";
  fields[8].type = Field::Type::kStringDictionary;
  return fields;
}

NSData archive(const std::vector<Field>& fields, std::string_view name = "KCCredentials",
               int64_t version = 1) {
  return NSArchiver::archivedDataWithRecord(name, version, fields);
}

void expectRefused(const NSData& data, std::string_view reasonPart) {
  std::string reason;
  EXPECT_EQ(KCCredentials::credentialsWithArchivedData(data, &reason), nullptr) << reasonPart;
  EXPECT_NE(reason.find(reasonPart), std::string::npos) << reason;
}

TEST(CredentialsArchive, EveryFieldComesBack) {
  const auto credentials = full();
  std::string reason;
  const auto read = KCCredentials::credentialsWithArchivedData(credentials->archivedData(), &reason);
  ASSERT_NE(read, nullptr) << reason;
  EXPECT_EQ(read->protocol(), kProtocolSFTP);
  EXPECT_EQ(read->address(), "nas.local");
  EXPECT_EQ(read->port(), 2222);
  EXPECT_EQ(read->username(), "anna");
  EXPECT_EQ(read->password(), "gehêim");
  EXPECT_EQ(read->initialPath(), "~/docs");
  EXPECT_EQ(read->encoding(), "ISO-8859-1");
  EXPECT_EQ(read->UUID(), credentials->UUID());
  EXPECT_EQ(read->options(), credentials->options());
  EXPECT_EQ(reason, "");
}

TEST(CredentialsArchive, AStartFolderInAnotherEncodingComesBackInTheServersBytes) {
  const auto credentials = full();
  credentials->setInitialPath(
      "/b\xFC"
      "cher");
  std::string reason;
  const auto read = KCCredentials::credentialsWithArchivedData(credentials->archivedData(), &reason);
  ASSERT_NE(read, nullptr) << reason;
  EXPECT_EQ(read->initialPath(),
            "/b\xFC"
            "cher");
}

TEST(CredentialsArchive, AbsentTextsStayAbsentAndEmptyOnesEmpty) {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(kProtocolFTP);
  credentials->setAddress("h");
  credentials->setPassword("");
  std::string reason;
  const auto read = KCCredentials::credentialsWithArchivedData(credentials->archivedData(), &reason);
  ASSERT_NE(read, nullptr) << reason;
  EXPECT_FALSE(read->username().has_value());
  EXPECT_EQ(read->password(), "");
  EXPECT_FALSE(read->initialPath().has_value());
  EXPECT_FALSE(read->encoding().has_value());
  EXPECT_TRUE(read->options().empty());
}

TEST(CredentialsArchive, AProtocolWithTheHighestBitSurvives) {
  std::vector<Field> fields = goodFields();
  fields[0].number = 0xF0000001;
  std::string reason;
  const auto read = KCCredentials::credentialsWithArchivedData(archive(fields), &reason);
  ASSERT_NE(read, nullptr) << reason;
  EXPECT_EQ(read->protocol(), 0xF0000001u);
}

TEST(CredentialsArchive, OtherRecordsAreRefused) {
  expectRefused(archive(goodFields(), "KCSomething"), "no credentials");
  expectRefused(archive(goodFields(), "KCCredentials", 2), "version");
  std::vector<Field> short_ = goodFields();
  short_.pop_back();
  expectRefused(archive(short_), "number of fields");
  std::vector<Field> long_ = goodFields();
  long_.push_back(long_[2]);
  expectRefused(archive(long_), "number of fields");
}

TEST(CredentialsArchive, FieldsOutOfTheirRangeAreRefused) {
  const auto spoiled = [](size_t index, auto change) {
    std::vector<Field> fields = goodFields();
    change(fields[index]);
    return archive(fields);
  };
  expectRefused(spoiled(0, [](Field& field) { field.number = 0; }), "protocol");
  expectRefused(spoiled(1, [](Field& field) { field.text.reset(); }), "address");
  expectRefused(spoiled(1, [](Field& field) { field.text = ""; }), "address");
  expectRefused(spoiled(1, [](Field& field) { field.text = "host\r\nQUIT"; }), "address");
  expectRefused(spoiled(1, [](Field& field) { field.text = "two words"; }), "address");
  expectRefused(spoiled(2, [](Field& field) { field.number = -1; }), "port");
  expectRefused(spoiled(2, [](Field& field) { field.number = 65536; }), "port");
  expectRefused(spoiled(3, [](Field& field) { field.text = std::string("a\0b", 3); }), "user name");
  expectRefused(spoiled(7, [](Field& field) { field.text = "no uuid"; }), "identifier");
  expectRefused(spoiled(7, [](Field& field) { field.text.reset(); }), "identifier");
  expectRefused(spoiled(8,
                        [](Field& field) {
                          field.dictionary = {{"k", std::string("\0", 1)}};
                        }),
                "options");
}

TEST(CredentialsArchive, FieldsOfAnotherTypeAreRefused) {
  for (size_t index = 0; index < 9; ++index) {
    std::vector<Field> fields = goodFields();
    const bool isNumber = index == 0 || index == 2;
    fields[index] = Field{};
    fields[index].type = isNumber ? Field::Type::kString : Field::Type::kInt;
    if (isNumber) fields[index].text = "4711";
    std::string reason;
    EXPECT_EQ(KCCredentials::credentialsWithArchivedData(archive(fields), &reason), nullptr) << index;
    EXPECT_NE(reason, "") << index;
  }
}

TEST(CredentialsArchive, ReasonsHoldNoSecret) {
  std::vector<Field> fields = goodFields();
  fields[4].text = "topsecret";
  fields[2].number = -5;
  std::string reason;
  EXPECT_EQ(KCCredentials::credentialsWithArchivedData(archive(fields), &reason), nullptr);
  EXPECT_EQ(reason.find("topsecret"), std::string::npos);
}

TEST(CredentialsArchive, EveryTruncationIsRefused) {
  const NSData data = full()->archivedData();
  for (size_t length = 0; length < data.size(); ++length) {
    const NSData cut(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(length));
    std::string reason;
    ASSERT_EQ(KCCredentials::credentialsWithArchivedData(cut, &reason), nullptr) << length;
    ASSERT_NE(reason, "") << length;
  }
}

TEST(CredentialsArchive, EveryFlippedByteIsReadOrRefusedWithoutHarm) {
  const NSData data = full()->archivedData();
  for (size_t at = 0; at < data.size(); ++at) {
    for (const uint8_t value : {0x00, 0x7F, 0x80, 0x84, 0x85, 0x86, 0x92, 0x93, 0xFF}) {
      NSData changed = data;
      changed[at] = value;
      std::string reason;
      const auto read = KCCredentials::credentialsWithArchivedData(changed, &reason);
      ASSERT_EQ(read == nullptr, !reason.empty()) << at;
    }
  }
}

TEST(Credentials, AFreshOneHasAnIdentifierOfItsOwn) {
  EXPECT_NE(KCCredentials().UUID(), KCCredentials().UUID());
}

// Looks behind the end of a short text, where a shorter one leaves what was there.
TEST(Credentials, AReplacedOptionLeavesNothingOfTheFormerOneBehind) {
  KCCredentials credentials;
  credentials.setOption("passphrase", "0123456789abcd");
  credentials.setOption("passphrase", "x");
  const std::string& kept = credentials.options().at("passphrase");
  EXPECT_EQ(kept, "x");
  ASSERT_GE(kept.capacity(), 14u);
  EXPECT_EQ(std::string(kept.data(), 14).find("56789"), std::string::npos);
}

TEST(Credentials, OptionsAreFoundByTheirKey) {
  KCCredentials credentials;
  EXPECT_FALSE(credentials.option("region").has_value());
  credentials.setOption("region", "eu");
  EXPECT_EQ(credentials.option("region"), "eu");
}

}  // namespace
}  // namespace ombra
