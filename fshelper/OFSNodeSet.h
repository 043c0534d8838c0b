// The children of a folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "remote/KCNode.h"

namespace ombra {

// Two nodes are equal when their display names are canonically equal; case matters.
bool EqualNodeByDisplayName(const KCNode& node, const KCNode& other);
// Equal for nodes that are equal.
size_t HashNodeByDisplayName(const KCNode& node);

// A set of nodes, no two of them with canonically equal display names. Iterates in the order in which its
// members were added, as long as none was removed. Not synchronised: guarded by the folder's object lock. A
// member's display name must not change while it is in the set.
//
// Open addressing over a dense array: about 28 bytes per member, and a look-up seldom sees a second one.
class OFSNodeSet {
 public:
  using Node = std::shared_ptr<KCRemoteFileNode>;

  // The member equal to `node`, or null. Look-ups by a name ask with an OFSComparisonNode.
  Node member(const KCNode& node) const;
  // Adds `node` unless an equal member is there, which then stays.
  void add(Node node);
  // Removes the member equal to `node`, if any, and answers it.
  Node remove(const KCNode& node);

  size_t count() const { return iMembers.size(); }
  bool empty() const { return iMembers.empty(); }
  void reserve(size_t count);
  auto begin() const { return iMembers.begin(); }
  auto end() const { return iMembers.end(); }

 private:
  static constexpr uint32_t kEmpty = 0;

  template <typename Equal>
  size_t slotOf(size_t hash, Equal&& equal) const;
  void rehash(size_t slots);
  void eraseSlot(size_t slot);

  std::vector<Node> iMembers;
  std::vector<uint32_t> iHashes;  // of the member with the same index, folded
  // Member index plus one, or kEmpty; a power of two of them, at most 3/4 in use.
  std::vector<uint32_t> iSlots;
};

std::shared_ptr<OFSNodeSet> KCCreateNodeByDisplayNameMutableSet();

}  // namespace ombra
