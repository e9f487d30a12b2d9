// Sizes of tensor elements.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace onnxgraft::transform_utilities {

/// Bytes per element by the code of the element type; 0 where NumPy has no such type, elements share a byte, or
/// they have no fixed size.
constexpr std::uint64_t element_size(std::int64_t type) {
  constexpr std::array<std::uint64_t, 17> sizes{0, 4, 1, 1, 2, 2, 4, 8, 0, 1, 2, 8, 4, 8, 8, 16, 0};
  const bool listed = std::in_range<std::size_t>(type) && static_cast<std::size_t>(type) < sizes.size();
  return listed ? sizes[static_cast<std::size_t>(type)] : 0;
}

}  // namespace onnxgraft::transform_utilities
