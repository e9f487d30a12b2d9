// The table of names: one hash, one probe sequence, one copy of each text.
//
// The size of the table matters more than the quality of the hash: a large graph has a million names, and each slot
// that is not in the cache costs a wait for memory. So slots hold eight bytes, and the table is rebuilt at three
// quarters.
#include "core/names.h"

#include <algorithm>
#include <bit>
#include <functional>

namespace onnxgraft::core {

Names::Names() : slots_(64, Slot{0, no_name}) { texts_.push_back({}); }

/// The low 32 bits are enough: they choose the slot and rule out other names.
std::uint32_t Names::hash_of(std::string_view text) {
  return static_cast<std::uint32_t>(std::hash<std::string_view>{}(text));
}

/// The slot that holds the text, or the free one where it belongs. There always is a free one.
std::size_t Names::slot_of(std::string_view text, std::uint32_t hash) const {
  const std::size_t mask = slots_.size() - 1;
  std::size_t slot = hash & mask;
  while (slots_[slot].id != no_name) {
    if (slots_[slot].hash == hash && texts_[slots_[slot].id] == text) break;
    slot = (slot + 1) & mask;
  }
  return slot;
}

NameId Names::intern(const Hashed& name) {
  const auto [text, hash] = name;
  if (text.empty()) return no_name;
  std::size_t slot = slot_of(text, hash);
  if (slots_[slot].id != no_name) return slots_[slot].id;
  // Only a new name can make the table too full, so known names skip this.
  if (texts_.size() * 4 >= slots_.size() * 3) {
    grow(slots_.size() * 2);
    slot = slot_of(text, hash);
  }
  const auto id = static_cast<NameId>(texts_.size());
  texts_.push_back(store(text));
  slots_[slot] = {hash, id};
  return id;
}

std::optional<NameId> Names::find(std::string_view text) const {
  const NameId id = slots_[slot_of(text, hash_of(text))].id;
  if (id == no_name) return std::nullopt;
  return id;
}

/// A block is filled only as far as it was reserved. A text longer than a block gets one of its own.
std::string_view Names::store(std::string_view text) {
  if (blocks_.empty() || blocks_.back().capacity() - blocks_.back().size() < text.size()) {
    blocks_.emplace_back().reserve(std::max(block_size, text.size()));
  }
  std::vector<char>& block = blocks_.back();
  const auto begin = block.insert(block.end(), text.begin(), text.end());
  return {&*begin, text.size()};
}

void Names::reserve(std::size_t count) {
  const std::size_t slot_count = std::bit_ceil(count + (count / 3));
  if (slot_count > slots_.size()) grow(slot_count);
}

/// Texts are neither hashed nor compared again: all names differ, and their hashes are in the slots.
void Names::grow(std::size_t slot_count) {
  std::vector<Slot> larger(slot_count, Slot{0, no_name});
  const std::size_t mask = larger.size() - 1;
  for (const Slot& old : slots_) {
    if (old.id == no_name) continue;
    std::size_t slot = old.hash & mask;
    while (larger[slot].id != no_name) slot = (slot + 1) & mask;
    larger[slot] = old;
  }
  slots_ = std::move(larger);
}

}  // namespace onnxgraft::core
