// Choices of the search that lead to refused assignments alone, so that later rounds of a pass jump over them.
//
// Without it, each round would visit what all rounds before were refused: with n candidates that are refused two by
// two, n rounds of n * n visits. A choice is told by the choices before it, its list of candidates and its position
// there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "core/graph_table.h"

namespace onnxgraft::core {

class RefusedChoices {
 public:
  /// The choices before one; `unknown` where nothing was refused after them.
  using Prefix = std::uint32_t;
  static constexpr Prefix none = 0;
  static constexpr Prefix unknown = static_cast<Prefix>(-1);

  [[nodiscard]] Prefix after(Prefix prefix, NodeIndex node) const;
  /// The same prefix, known from now on.
  Prefix add_after(Prefix prefix, NodeIndex node);

  void refuse(Prefix prefix, std::size_t list, std::size_t position);
  /// The first position from this one on that was not refused.
  std::size_t skip(Prefix prefix, std::size_t list, std::size_t position);

 private:
  struct Run {
    std::size_t list = 0;
    std::vector<std::uint32_t> next;  // by position: one that is farther on; 0 where it was not refused
  };
  static std::uint64_t key(Prefix prefix, NodeIndex node) { return (std::uint64_t{prefix} << 32U) | node; }

  std::unordered_map<std::uint64_t, Prefix> prefixes_;
  std::vector<Run> runs_ = std::vector<Run>(1);
};

}  // namespace onnxgraft::core
