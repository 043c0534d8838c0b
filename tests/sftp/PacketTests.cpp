// Bytes of the protocol and their meaning.
#include <gtest/gtest.h>

#include "remote/sftp/SFTPAssembler.h"
#include "remote/sftp/SFTPPacket.h"
#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SFTPReplies.h"
#include "tests/sftp/PeerTransport.h"

namespace ombra::test {
namespace {

std::span<const std::byte> bytesOf(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

SFTPReply replyOf(uint8_t type, std::string_view body) {
  SFTPReply reply;
  reply.type = type;
  reply.packet.data = std::make_unique<std::byte[]>(body.size() + 1);
  std::copy(bytesOf(body).begin(), bytesOf(body).end(), reply.packet.data.get());
  reply.packet.capacity = body.size() + 1;
  reply.packet.size = body.size();
  return reply;
}

TEST(SFTPPacketWriter, WritesBigEndianNumbersAndCountedStrings) {
  SFTPPacketWriter writer(3);
  writer.u8(0xff).u32(0x01020304).u64(0x0506070809000102).string("ab");
  const auto bytes = writer.finish();
  EXPECT_EQ(hex(std::string("\0\0\0\x14\x03\xff\1\2\3\4\5\6\7\x8\x9\0\1\2\0\0\0\2ab", 24)),
            hex({reinterpret_cast<const char*>(bytes.data()), bytes.size()}));
}

TEST(SFTPPacketReader, ReadsWhatTheWriterWrites) {
  SFTPPacketWriter writer(3);
  writer.u8(7).u32(0x80000001).u64(UINT64_MAX).string(std::string_view("a\0b", 3)).string("");
  SFTPPacketReader reader(writer.finish().subspan(5));
  EXPECT_EQ(7, reader.u8());
  EXPECT_EQ(0x80000001u, reader.u32());
  EXPECT_EQ(UINT64_MAX, reader.u64());
  EXPECT_EQ(std::string_view("a\0b", 3), reader.string());
  EXPECT_EQ("", reader.string());
  EXPECT_TRUE(reader.ok());
  EXPECT_EQ(0u, reader.remaining());
}

TEST(SFTPPacketReader, AnswersNothingAfterTheFirstValueThatDoesNotFit) {
  SFTPPacketReader reader(
      bytesOf(std::string_view("\0\0\0\x09"
                               "abc\0\0\0\1",
                               11)));
  EXPECT_EQ("", reader.string());
  EXPECT_FALSE(reader.ok());
  EXPECT_EQ(0u, reader.u32()) << "bytes behind a broken string must not be taken for values";
  EXPECT_EQ(0u, reader.remaining());
}

TEST(SFTPPacketReader, RefusesALengthThatWouldWrapAround) {
  SFTPPacketReader reader(
      bytesOf(std::string_view("\xff\xff\xff\xff"
                               "abcd",
                               8)));
  EXPECT_EQ("", reader.string());
  EXPECT_FALSE(reader.ok());
}

TEST(SFTPAttributes, EveryCombinationOfFieldsSurvivesTheWire) {
  for (int mask = 0; mask < 16; ++mask) {
    SFTPAttributes attributes;
    if (mask & 1) attributes.size = 0x123456789aull;
    if (mask & 2) attributes.owner = SFTPAttributes::Owner{501, 20};
    if (mask & 4) attributes.permissions = 0100640;
    if (mask & 8) attributes.times = SFTPAttributes::Times{11, 22};
    SFTPPacketWriter writer(1);
    writeSFTPAttributes(writer, attributes);
    SFTPPacketReader reader(writer.finish().subspan(5));
    EXPECT_EQ(attributes, readSFTPAttributes(reader)) << mask;
    EXPECT_TRUE(reader.ok());
    EXPECT_EQ(0u, reader.remaining());
  }
}

TEST(SFTPAttributes, ExtendedPairsAreSkipped) {
  const std::string bytes = u32(kSFTPAttributeExtended | kSFTPAttributeSize) + u64(5) + u32(2) + str("a@b") +
                            str("1") + str("c@d") + str("") + "rest";
  SFTPPacketReader reader(bytesOf(bytes));
  EXPECT_EQ(5u, readSFTPAttributes(reader).size);
  EXPECT_TRUE(reader.ok());
  EXPECT_EQ(4u, reader.remaining());
}

TEST(SFTPAttributes, BecomeFileAttributes) {
  SFTPAttributes attributes;
  attributes.size = 7;
  attributes.owner = SFTPAttributes::Owner{501, 20};
  attributes.permissions = 0104755;
  attributes.times = SFTPAttributes::Times{1, 0xffffffff};
  const NSFileAttributes result = fileAttributesFromSFTP(attributes);
  EXPECT_EQ(NSFileTypeValue::NSFileTypeRegular, result.fileType);
  EXPECT_EQ(7u, result.fileSize);
  EXPECT_EQ(04755, result.posixPermissions);
  EXPECT_EQ(NSDate::dateWithNanoseconds(4294967295000000000), result.modificationDate);
  EXPECT_EQ(501u, result.ownerAccountID);
  EXPECT_EQ(20u, result.groupOwnerAccountID);
  EXPECT_FALSE(result.creationDate.has_value());
}

TEST(SFTPAttributes, WithoutAModeThereIsNoFileType) {
  EXPECT_FALSE(fileAttributesFromSFTP({}).fileType.has_value());
  EXPECT_EQ(0u, fileAttributesFromSFTP({}).count());
}

// Replies that are no replies: each parser must refuse each of them without reading beyond its bytes.
struct HostileReply {
  const char* what;
  uint8_t type;
  std::string body;
};

class HostileReplies : public ::testing::TestWithParam<HostileReply> {};

TEST_P(HostileReplies, AreRefusedByEveryParser) {
  const SFTPReply reply = replyOf(GetParam().type, GetParam().body);
  EXPECT_FALSE(parseSFTPStatus(reply));
  EXPECT_FALSE(parseSFTPHandle(reply));
  EXPECT_FALSE(parseSFTPData(reply));
  EXPECT_FALSE(parseSFTPNames(reply));
  EXPECT_FALSE(parseSFTPAttributes(reply));
  EXPECT_FALSE(parseSFTPVolume(reply));
  EXPECT_FALSE(parseSFTPLimits(reply));
}

INSTANTIATE_TEST_SUITE_P(
    Table, HostileReplies,
    ::testing::Values(
        HostileReply{"empty status", kSFTPStatus, ""}, HostileReply{"cut status code", kSFTPStatus, "\1\2\3"},
        HostileReply{"status text beyond the end", kSFTPStatus, u32(4) + u32(100) + "abc"},
        HostileReply{"empty handle", kSFTPHandle, u32(0)},
        HostileReply{"handle longer than the protocol allows", kSFTPHandle, str(std::string(257, 'h'))},
        HostileReply{"handle beyond the end", kSFTPHandle, u32(9) + "h"},
        HostileReply{"data beyond the end", kSFTPData, u32(0xffffffff) + "x"},
        HostileReply{"four thousand million names", kSFTPName, u32(0xffffffff)},
        HostileReply{"one name too many", kSFTPName, u32(2) + str("a") + str("a") + u32(0)},
        HostileReply{"name beyond the end", kSFTPName, u32(1) + u32(50) + "abcdefgh"},
        HostileReply{"attributes without their size", kSFTPAttrs, u32(kSFTPAttributeSize) + "\1"},
        HostileReply{"attributes with a million pairs", kSFTPAttrs,
                     u32(kSFTPAttributeExtended) + u32(1000000)},
        HostileReply{"half of a volume", kSFTPExtendedReply, u64(1) + u64(1)},
        HostileReply{"unknown type", 77, u32(0) + u32(0)}, HostileReply{"nothing", kSFTPName, ""}),
    [](const auto& test) {
      std::string name = test.param.what;
      std::replace(name.begin(), name.end(), ' ', '_');
      return name;
    });

TEST(SFTPReplies, AStatusMayComeWithoutItsText) {
  const auto status = parseSFTPStatus(replyOf(kSFTPStatus, u32(4)));
  ASSERT_TRUE(status);
  EXPECT_EQ(4u, status->code);
  EXPECT_EQ("", status->message);
}

TEST(SFTPReplies, ALongStatusTextIsCut) {
  const auto status =
      parseSFTPStatus(replyOf(kSFTPStatus, u32(4) + str(std::string(100000, 'x')) + str("en")));
  ASSERT_TRUE(status);
  EXPECT_EQ(1024u, status->message.size());
}

TEST(SFTPReplies, VersionTellsItsExtensions) {
  SFTPExtensions extensions;
  const std::string body = u32(3) + str("a@b") + str("1") + str("c@d") + str(std::string_view("\0x", 2));
  EXPECT_EQ(3u, parseSFTPVersion(bytesOf(body), &extensions));
  EXPECT_EQ((SFTPExtensions{{"a@b", "1"}, {"c@d", std::string("\0x", 2)}}), extensions);
  EXPECT_FALSE(parseSFTPVersion(bytesOf(u32(3) + u32(99)), &extensions));
  EXPECT_FALSE(parseSFTPVersion(bytesOf("\0\0"), &extensions));
}

struct Collected {
  std::vector<std::string> packets;
  SFTPBufferPool pool;
  SFTPAssembler assembler{pool, 1000, [this](SFTPBuffer packet) {
                            packets.emplace_back(reinterpret_cast<const char*>(packet.data.get()),
                                                 packet.size);
                            pool.giveBack(std::move(packet));
                            return packets.back() != "stop";
                          }};
};

TEST(SFTPAssembler, CutsPacketsHoweverTheBytesArrive) {
  const std::string stream =
      packet("a") + packet(std::string(999, 'b')) + packet(std::string(1000, 'c')) + packet("dd");
  for (size_t cut = 1; cut <= stream.size(); cut = cut < 16 ? cut + 1 : cut * 2) {
    Collected collected;
    for (size_t at = 0; at < stream.size(); at += cut) {
      ASSERT_TRUE(collected.assembler.append(bytesOf(std::string_view(stream).substr(at, cut))));
    }
    EXPECT_EQ((std::vector<std::string>{"a", std::string(999, 'b'), std::string(1000, 'c'), "dd"}),
              collected.packets)
        << "cut to " << cut;
  }
}

TEST(SFTPAssembler, RefusesLengthsOutOfBoundsForGood) {
  for (const uint32_t length : {0u, 1001u, 0x7fffffffu, 0xffffffffu}) {
    Collected collected;
    EXPECT_FALSE(collected.assembler.append(bytesOf(u32(length)))) << length;
    EXPECT_FALSE(collected.assembler.append(bytesOf(packet("a"))));
    EXPECT_TRUE(collected.packets.empty());
  }
}

TEST(SFTPAssembler, StopsWhenAPacketIsRefused) {
  Collected collected;
  EXPECT_FALSE(collected.assembler.append(bytesOf(packet("stop") + packet("more"))));
  EXPECT_EQ(std::vector<std::string>{"stop"}, collected.packets);
}

TEST(SFTPBufferPool, GivesBackWhatItGot) {
  SFTPBufferPool pool;
  SFTPBuffer buffer = pool.take(kSFTPMaximumPieceLength);
  const std::byte* place = buffer.data.get();
  buffer.size = 5;
  pool.giveBack(std::move(buffer));
  const SFTPBuffer again = pool.take(10000);
  EXPECT_EQ(place, again.data.get());
  EXPECT_EQ(0u, again.size);
  EXPECT_GE(again.capacity, 10000u);
  EXPECT_GE(pool.take(900000).capacity, 900000u) << "an unusual packet gets a buffer of its own";
}

}  // namespace
}  // namespace ombra::test
