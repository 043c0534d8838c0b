// Child sets.
#include <fmt/format.h>

#include <map>
#include <random>

#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

constexpr std::string_view kComposed = "caf\xC3\xA9";     // one character for the accented letter
constexpr std::string_view kDecomposed = "cafe\xCC\x81";  // the letter, then its accent

OFSNodeSet::Node makeNode(std::string_view name) {
  return std::make_shared<KCRemoteFileNode>("/" + std::string(name), nullptr);
}

TEST(NodeSet, IsEmptyAtFirst) {
  const auto set = KCCreateNodeByDisplayNameMutableSet();
  EXPECT_TRUE(set->empty());
  EXPECT_EQ(set->member(OFSComparisonNode("a")), nullptr);
  EXPECT_EQ(set->remove(*makeNode("a")), nullptr);
}

TEST(NodeSet, FindsAMemberByName) {
  OFSNodeSet set;
  const auto node = makeNode("a.txt");
  set.add(node);
  EXPECT_EQ(set.member(OFSComparisonNode("a.txt")), node);
  EXPECT_EQ(set.member(OFSComparisonNode("A.txt")), nullptr);
}

TEST(NodeSet, FindsAMemberByAComparisonNode) {
  OFSNodeSet set;
  const auto node = makeNode("a.txt");
  set.add(node);
  const OFSComparisonNode key("a.txt");
  EXPECT_EQ(key.path(), "");
  EXPECT_EQ(set.member(key), node);
}

TEST(NodeSet, NodesAreEqualByCanonicalFormAndCase) {
  EXPECT_TRUE(EqualNodeByDisplayName(*makeNode(kComposed), *makeNode(kDecomposed)));
  EXPECT_EQ(HashNodeByDisplayName(*makeNode(kComposed)), HashNodeByDisplayName(*makeNode(kDecomposed)));
  EXPECT_FALSE(EqualNodeByDisplayName(*makeNode("a"), *makeNode("A")));
}

TEST(NodeSet, FindsEitherUnicodeFormByTheOther) {
  OFSNodeSet composed;
  composed.add(makeNode(kComposed));
  EXPECT_NE(composed.member(OFSComparisonNode(std::string(kDecomposed))), nullptr);
  OFSNodeSet decomposed;
  decomposed.add(makeNode(kDecomposed));
  EXPECT_NE(decomposed.member(OFSComparisonNode(std::string(kComposed))), nullptr);
}

TEST(NodeSet, KeepsTheFirstOfTwoEqualNodes) {
  OFSNodeSet set;
  const auto first = makeNode(kComposed);
  set.add(first);
  set.add(makeNode(kDecomposed));
  EXPECT_EQ(set.count(), 1u);
  EXPECT_EQ(set.member(OFSComparisonNode(std::string(kDecomposed))), first);
}

TEST(NodeSet, IteratesInTheOrderOfAddition) {
  OFSNodeSet set;
  for (const char* name : {"b", "c", "a"}) set.add(makeNode(name));
  std::vector<std::string> names;
  for (const auto& node : set) names.push_back(node->displayName());
  EXPECT_THAT(names, ::testing::ElementsAre("b", "c", "a"));
}

TEST(NodeSet, RemovesTheEqualMember) {
  OFSNodeSet set;
  const auto a = makeNode("a");
  const auto b = makeNode("b");
  set.add(a);
  set.add(b);
  EXPECT_EQ(set.remove(OFSComparisonNode("a")), a);
  EXPECT_EQ(set.member(OFSComparisonNode("a")), nullptr);
  EXPECT_EQ(set.member(OFSComparisonNode("b")), b);
  EXPECT_EQ(set.count(), 1u);
}

// Every member stays reachable through growth, gaps and refills, whatever the order.
TEST(NodeSet, AgreesWithAMapUnderManyChanges) {
  OFSNodeSet set;
  std::map<std::string, OFSNodeSet::Node> expected;
  std::mt19937 random(7);
  for (int step = 0; step < 20000; ++step) {
    const std::string name = fmt::format("entry {}", random() % 700);
    if (random() % 2 == 0) {
      const auto node = makeNode(name);
      set.add(node);
      expected.emplace(name, node);
    } else {
      const auto removed = set.remove(OFSComparisonNode(name));
      const auto found = expected.find(name);
      ASSERT_EQ(removed, found == expected.end() ? nullptr : found->second);
      if (found != expected.end()) expected.erase(found);
    }
  }
  ASSERT_EQ(set.count(), expected.size());
  for (const auto& [name, node] : expected) ASSERT_EQ(set.member(OFSComparisonNode(name)), node) << name;
}

TEST(ComparisonNode, CarriesNothingButItsDisplayName) {
  const OFSComparisonNode node("a/b is no path here");
  EXPECT_EQ(node.displayName(), "a/b is no path here");
  EXPECT_EQ(node.path(), "");
  EXPECT_EQ(node.parent(), nullptr);
}

TEST(NodeAdditions, SetAttributesWithoutADictionaryChangesNothing) {
  const auto node = makeNode("a");
  node->setSize(5);
  ofs_setAttributes(*node, std::nullopt);
  EXPECT_EQ(node->size(), 5u);
}

TEST(NodeAdditions, SetAttributesTakesSizeDateAndMode) {
  const auto node = makeNode("a");
  NSFileAttributes attributes;
  attributes.fileSize = 7;
  attributes.modificationDate = NSDate::dateWithTimeIntervalSince1970(1000);
  attributes.creationDate = NSDate::dateWithTimeIntervalSince1970(500);
  attributes.posixPermissions = 0640;
  ofs_setAttributes(*node, attributes);
  EXPECT_EQ(node->size(), 7u);
  EXPECT_EQ(node->modificationDate(), attributes.modificationDate);
  EXPECT_EQ(node->permissions(), FilePermissions(0640));
  EXPECT_EQ(node->creationDate(), std::nullopt);
}

TEST(NodeAdditions, WhatTheDictionaryLacksTheNodeLacksAfterwards) {
  KCRemoteFileNode node("/a", nullptr);
  node.setSize(7);
  node.setModificationDate(NSDate::dateWithTimeIntervalSince1970(5));
  node.setPermissions(FilePermissions(0600));
  ofs_setAttributes(node, NSFileAttributes());
  EXPECT_EQ(node.size(), std::nullopt);
  EXPECT_EQ(node.modificationDate(), std::nullopt);
  EXPECT_EQ(node.permissions(), std::nullopt);
}

TEST(NodeAdditions, TouchSetsTheDateToNow) {
  ManualClock clock;
  const auto node = makeNode("a");
  ofs_touch(node.get());
  EXPECT_EQ(node->modificationDate(), clock.now());
  ofs_touch(nullptr);
}

TEST(NodeAdditions, AFolderHasNoContentsBeforeItsFirstListing) {
  EXPECT_EQ(ofs_contentsSet(*KCRemoteFolderNode::folderNodeWithPath("/", nullptr)), nullptr);
}

}  // namespace
}  // namespace ombra
