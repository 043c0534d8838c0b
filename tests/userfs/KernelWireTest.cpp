#include "platform/userfs/KernelWire.h"

#include <gtest/gtest.h>
#include <linux/fuse.h>

#include <cstring>
#include <vector>

#include "platform/userfs/RequestContext.h"

namespace ombra {
namespace {

template <typename Body>
std::vector<char> request(uint32_t opcode, uint64_t nodeID, const Body& body) {
  std::vector<char> message(sizeof(fuse_in_header) + sizeof(Body));
  fuse_in_header head{};
  head.len = static_cast<uint32_t>(message.size());
  head.opcode = opcode;
  head.nodeid = nodeID;
  std::memcpy(message.data(), &head, sizeof(head));
  std::memcpy(message.data() + sizeof(head), &body, sizeof(body));
  return message;
}

template <typename Body>
Body bodyOf(const std::vector<char>& message) {
  Body body{};
  std::memcpy(&body, message.data() + sizeof(fuse_in_header), sizeof(body));
  return body;
}

uint64_t handleOfSeven(uint64_t nodeID) { return nodeID == 7 ? 42 : 0; }

void process(std::vector<char>& message) {
  ASSERT_TRUE(readRequestHead(message.data(), message.size()));
  addHandleToAttributeRequest(message.data(), message.size(), handleOfSeven);
}

TEST(KernelWire, AnAttributeRequestOfARemovedFileGetsItsHandle) {
  auto message = request(FUSE_GETATTR, 7, fuse_getattr_in{});
  process(message);
  EXPECT_EQ(bodyOf<fuse_getattr_in>(message).fh, 42u);
  EXPECT_EQ(bodyOf<fuse_getattr_in>(message).getattr_flags, FUSE_GETATTR_FH);
}

TEST(KernelWire, AChangeOfARemovedFileGetsItsHandleBesideWhatItChanges) {
  fuse_setattr_in change{};
  change.valid = FATTR_MODE;
  change.mode = 0600;
  auto message = request(FUSE_SETATTR, 7, change);
  process(message);
  EXPECT_EQ(bodyOf<fuse_setattr_in>(message).fh, 42u);
  EXPECT_EQ(bodyOf<fuse_setattr_in>(message).valid, static_cast<uint32_t>(FATTR_MODE | FATTR_FH));
  EXPECT_EQ(bodyOf<fuse_setattr_in>(message).mode, 0600u);
}

TEST(KernelWire, OtherRequestsStayAsTheyAre) {
  fuse_getattr_in withHandle{};
  withHandle.getattr_flags = FUSE_GETATTR_FH;
  withHandle.fh = 9;
  for (auto message : {request(FUSE_GETATTR, 8, fuse_getattr_in{}), request(FUSE_GETATTR, 7, withHandle),
                       request(FUSE_READ, 7, fuse_read_in{})}) {
    const auto before = message;
    process(message);
    EXPECT_EQ(message, before);
  }
}

TEST(KernelWire, AMessageThatEndsEarlyStaysAsItIs) {
  auto message = request(FUSE_GETATTR, 7, fuse_getattr_in{});
  for (size_t size = 0; size < message.size(); ++size) {
    std::vector<char> cut(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(size));
    const auto before = cut;
    EXPECT_EQ(readRequestHead(cut.data(), cut.size()), size >= sizeof(fuse_in_header));
    addHandleToAttributeRequest(cut.data(), cut.size(), handleOfSeven);
    EXPECT_EQ(cut, before);
  }
}

TEST(KernelWire, TheNumberOfACreatedFileIsReadFromTheReply) {
  fuse_out_header head{};
  uint64_t nodeID = 77;
  iovec parts[] = {{&head, sizeof(head)}, {&nodeID, sizeof(nodeID)}};
  EXPECT_EQ(nodeIDOfCreationReply(parts, 2), 77u);
  EXPECT_EQ(nodeIDOfCreationReply(parts, 1), 0u);
  head.error = -5;
  EXPECT_EQ(nodeIDOfCreationReply(parts, 2), 0u);
}

TEST(KernelWire, TheReplyToOpeningAFolderLetsTheListingBeKept) {
  fuse_out_header head{};
  fuse_open_out body{};
  iovec parts[] = {{&head, sizeof(head)}, {&body, sizeof(body)}};
  body.fh = 12;
  EXPECT_EQ(allowListingCache(parts, 2, false), 12u);
  EXPECT_EQ(body.open_flags, static_cast<uint32_t>(FOPEN_CACHE_DIR));
  allowListingCache(parts, 2, true);
  EXPECT_EQ(body.open_flags, static_cast<uint32_t>(FOPEN_CACHE_DIR | FOPEN_KEEP_CACHE));
  body.open_flags = 0;
  head.error = -2;
  EXPECT_EQ(allowListingCache(parts, 2, true), std::nullopt);
  EXPECT_EQ(body.open_flags, 0u);
}

TEST(KernelWire, TheReleaseOfAFolderNamesItsHandle) {
  auto message = folderRelease(12, 7);
  process(message);
  EXPECT_EQ(handleOfFolderRelease(message.data(), message.size()), 12u);
  EXPECT_EQ(RequestContext::current().nodeID, 7u);
  auto other = request(FUSE_RELEASE, 7, fuse_release_in{});
  process(other);
  EXPECT_EQ(handleOfFolderRelease(other.data(), other.size()), std::nullopt);
}

}  // namespace
}  // namespace ombra
