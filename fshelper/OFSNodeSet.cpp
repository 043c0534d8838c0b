#include "fshelper/OFSNodeSet.h"

#include <algorithm>
#include <bit>

namespace ombra {

namespace {

constexpr size_t kFewestSlots = 8;

// Both halves of the hash in 32 bits, so that a member costs four bytes for it.
uint32_t fold(size_t hash) { return static_cast<uint32_t>(hash ^ (hash >> 32)); }

}  // namespace

bool EqualNodeByDisplayName(const KCNode& node, const KCNode& other) {
  // One node's field lock at a time: a name is copied rather than two locks nested.
  return &node == &other || node.isNamed(other.displayName());
}

size_t HashNodeByDisplayName(const KCNode& node) { return node.displayNameHash(); }

std::shared_ptr<OFSNodeSet> KCCreateNodeByDisplayNameMutableSet() { return std::make_shared<OFSNodeSet>(); }

// The slot of the member for which `equal` holds, else the empty slot where it would go.
template <typename Equal>
size_t OFSNodeSet::slotOf(size_t hash, Equal&& equal) const {
  const size_t mask = iSlots.size() - 1;
  const uint32_t folded = fold(hash);
  size_t slot = folded & mask;
  while (iSlots[slot] != kEmpty) {
    const size_t index = iSlots[slot] - 1;
    if (iHashes[index] == folded && equal(*iMembers[index])) break;
    slot = (slot + 1) & mask;
  }
  return slot;
}

OFSNodeSet::Node OFSNodeSet::member(const KCNode& node) const {
  if (iMembers.empty()) return nullptr;
  const size_t slot = slotOf(HashNodeByDisplayName(node),
                             [&node](const KCNode& member) { return EqualNodeByDisplayName(member, node); });
  return iSlots[slot] == kEmpty ? nullptr : iMembers[iSlots[slot] - 1];
}

void OFSNodeSet::reserve(size_t count) {
  iMembers.reserve(count);
  iHashes.reserve(count);
  const size_t slots = std::bit_ceil(std::max(kFewestSlots, count + count / 3 + 1));
  if (slots > iSlots.size()) rehash(slots);
}

void OFSNodeSet::rehash(size_t slots) {
  iSlots.assign(slots, kEmpty);
  for (size_t index = 0; index < iMembers.size(); ++index) {
    size_t slot = iHashes[index] & (slots - 1);
    while (iSlots[slot] != kEmpty) slot = (slot + 1) & (slots - 1);
    iSlots[slot] = static_cast<uint32_t>(index + 1);
  }
}

void OFSNodeSet::add(Node node) {
  if ((iMembers.size() + 1) * 4 > iSlots.size() * 3) rehash(std::max(kFewestSlots, iSlots.size() * 2));
  const size_t hash = HashNodeByDisplayName(*node);
  const size_t slot =
      slotOf(hash, [&node](const KCNode& member) { return EqualNodeByDisplayName(member, *node); });
  if (iSlots[slot] != kEmpty) return;
  iMembers.push_back(std::move(node));
  iHashes.push_back(fold(hash));
  iSlots[slot] = static_cast<uint32_t>(iMembers.size());
}

OFSNodeSet::Node OFSNodeSet::remove(const KCNode& node) {
  if (iMembers.empty()) return nullptr;
  const size_t slot = slotOf(HashNodeByDisplayName(node),
                             [&node](const KCNode& member) { return EqualNodeByDisplayName(member, node); });
  if (iSlots[slot] == kEmpty) return nullptr;
  const size_t index = iSlots[slot] - 1;
  Node removed = std::move(iMembers[index]);
  eraseSlot(slot);
  const size_t last = iMembers.size() - 1;
  if (index != last) {
    // The last member moves into the gap, and its slot follows it.
    size_t moved = iHashes[last] & (iSlots.size() - 1);
    while (iSlots[moved] != last + 1) moved = (moved + 1) & (iSlots.size() - 1);
    iSlots[moved] = static_cast<uint32_t>(index + 1);
    iMembers[index] = std::move(iMembers[last]);
    iHashes[index] = iHashes[last];
  }
  iMembers.pop_back();
  iHashes.pop_back();
  return removed;
}

// Empties a slot and moves later ones of its run forward, so that no probe ends too early.
void OFSNodeSet::eraseSlot(size_t slot) {
  const size_t mask = iSlots.size() - 1;
  size_t gap = slot;
  for (size_t next = (slot + 1) & mask; iSlots[next] != kEmpty; next = (next + 1) & mask) {
    const size_t home = iHashes[iSlots[next] - 1] & mask;
    // A member may fill the gap when its home does not lie behind it on the way to where it stands.
    if (((next - home) & mask) < ((next - gap) & mask)) continue;
    iSlots[gap] = iSlots[next];
    gap = next;
  }
  iSlots[gap] = kEmpty;
}

}  // namespace ombra
