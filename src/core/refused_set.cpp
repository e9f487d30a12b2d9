// A hash set of short sequences of node indices, all of one length, in two flat arrays.
//
// Keys are only added, so slots never have to be freed. The table is at most half full, which keeps probing short even
// where neighbouring nodes make similar keys.
#include "core/refused_set.h"

#include <algorithm>

namespace onnxgraft::core {

namespace {

/// FNV-1a over whole numbers, with its high bits mixed into the low ones that choose a slot.
std::size_t hash_of(std::span<const NodeIndex> key) {
  std::uint64_t hash = 0xcbf29ce484222325U;
  for (const NodeIndex node : key) hash = (hash ^ node) * 0x100000001b3U;
  return static_cast<std::size_t>(hash ^ (hash >> 32U));
}

}  // namespace

std::vector<NodeIndex> RefusedSet::key_of(const Rule& rule, std::span<const NodeIndex> nodes) {
  std::vector<NodeIndex> key;
  for (std::size_t role = 0; role < nodes.size(); ++role) {
    if (rule.nodes[role].part == 0) key.push_back(nodes[role]);
  }
  return key;
}

/// The slot of the key, or the free one where it belongs.
std::size_t RefusedSet::slot_of(std::span<const NodeIndex> key) const {
  const std::size_t mask = slots_.size() - 1;
  std::size_t slot = hash_of(key) & mask;
  while (slots_[slot] != 0 && !std::ranges::equal(key_at(slots_[slot] - 1), key)) slot = (slot + 1) & mask;
  return slot;
}

void RefusedSet::add(const Rule& rule, std::span<const NodeIndex> nodes) {
  const std::vector<NodeIndex> key = key_of(rule, nodes);
  stride_ = key.size();
  if (slots_.size() < 2 * (count_ + 1)) grow();
  const std::size_t slot = slot_of(key);
  if (slots_[slot] != 0) return;
  keys_.insert(keys_.end(), key.begin(), key.end());
  slots_[slot] = static_cast<std::uint32_t>(++count_);
}

bool RefusedSet::contains(const Rule& rule, std::span<const NodeIndex> nodes) const {
  return count_ != 0 && slots_[slot_of(key_of(rule, nodes))] != 0;
}

/// Nothing is allocated before the first refusal, which most passes never have.
void RefusedSet::grow() {
  constexpr std::size_t smallest = 64;
  slots_.assign(std::max(smallest, slots_.size() * 2), 0);
  for (std::size_t number = 0; number < count_; ++number) {
    slots_[slot_of(key_at(number))] = static_cast<std::uint32_t>(number + 1);
  }
}

}  // namespace onnxgraft::core
