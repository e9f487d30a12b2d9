#include "quant/name_positions.h"

#include <algorithm>
#include <functional>

namespace onnxgraft::quant {

NamePositions::Hash NamePositions::hash_of(std::string_view name) {
  return static_cast<Hash>(std::hash<std::string_view>{}(name));
}

void NamePositions::sort() {
  std::ranges::sort(entries_);
  const auto rest = std::ranges::unique(entries_);
  entries_.erase(rest.begin(), rest.end());
  entries_.shrink_to_fit();
}

std::span<const NamePositions::Entry> NamePositions::find(std::string_view name) const {
  return std::ranges::equal_range(entries_, hash_of(name), {}, &Entry::hash);
}

}  // namespace onnxgraft::quant
