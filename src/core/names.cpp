#include "core/names.h"

#include <algorithm>
#include <functional>

namespace onnxgraft::core {

Names::Names() : slots_(64, no_name), hashes_(1, 0), texts_(1) {}

std::size_t Names::slot_of(std::string_view text, std::size_t hash) const {
  const std::size_t mask = slots_.size() - 1;
  std::size_t slot = hash & mask;
  while (slots_[slot] != no_name) {
    const NameId id = slots_[slot];
    if (hashes_[id] == hash && texts_[id] == text) break;
    slot = (slot + 1) & mask;
  }
  return slot;
}

NameId Names::intern(std::string_view text) {
  if (text.empty()) return no_name;
  const std::size_t hash = std::hash<std::string_view>{}(text);
  std::size_t slot = slot_of(text, hash);
  if (slots_[slot] != no_name) return slots_[slot];
  if (texts_.size() * 2 >= slots_.size()) {
    grow();
    slot = slot_of(text, hash);
  }
  const auto id = static_cast<NameId>(texts_.size());
  hashes_.push_back(hash);
  texts_.push_back(store(text));
  slots_[slot] = id;
  return id;
}

std::optional<NameId> Names::find(std::string_view text) const {
  if (text.empty()) return no_name;
  const NameId id = slots_[slot_of(text, std::hash<std::string_view>{}(text))];
  if (id == no_name) return std::nullopt;
  return id;
}

std::string_view Names::store(std::string_view text) {
  if (text.size() > block_left_) {
    const std::size_t size = std::max(block_size, text.size());
    blocks_.emplace_back(size);
    block_at_ = blocks_.back().data();
    block_left_ = size;
  }
  std::ranges::copy(text, block_at_);
  const std::string_view stored(block_at_, text.size());
  block_at_ += text.size();
  block_left_ -= text.size();
  return stored;
}

void Names::grow() {
  std::vector<NameId> larger(slots_.size() * 2, no_name);
  const std::size_t mask = larger.size() - 1;
  for (NameId id = 1; id < texts_.size(); ++id) {
    std::size_t slot = hashes_[id] & mask;
    while (larger[slot] != no_name) slot = (slot + 1) & mask;
    larger[slot] = id;
  }
  slots_ = std::move(larger);
}

}  // namespace onnxgraft::core
