// Choices of the search that lead to refused assignments only, so that later rounds of a pass jump over them.
//
// Without it every round would visit all assignments that earlier rounds refused: with n candidates that are refused in
// pairs, n rounds of n * n visits each. A choice is identified by the choices before it, its list of candidates and its
// position there, so it holds for one `Candidates` object. Invariant: a jump never passes an assignment that was not
// refused. The owner is RefusedSet, which is what decides; this only saves visits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "core/graph_table.h"

namespace onnxgraft::core {

class RefusedChoices {
 public:
  /// The choices before one, as a number; `unknown` if nothing was refused after them.
  using Prefix = std::uint32_t;
  static constexpr Prefix none = 0;
  static constexpr Prefix unknown = static_cast<Prefix>(-1);

  [[nodiscard]] Prefix after(Prefix prefix, NodeIndex node) const;
  /// The same prefix, which gets a number if it has none.
  Prefix add_after(Prefix prefix, NodeIndex node);

  /// Notes that the choice at `position` leads to nothing but refused assignments.
  void refuse(Prefix prefix, std::size_t list, std::size_t position);
  /// The first position from this one on that was not refused. The search calls it before each choice.
  std::size_t skip(Prefix prefix, std::size_t list, std::size_t position);

 private:
  /// What was refused after one prefix. One list is enough: the choices before it fix which list follows.
  struct Run {
    std::size_t list = 0;
    std::vector<std::uint32_t> next;  // by position: one that is farther on; 0 if it was not refused
  };
  static std::uint64_t key(Prefix prefix, NodeIndex node) { return (std::uint64_t{prefix} << 32U) | node; }

  std::unordered_map<std::uint64_t, Prefix> prefixes_;
  std::vector<Run> runs_ = std::vector<Run>(1);
};

}  // namespace onnxgraft::core
