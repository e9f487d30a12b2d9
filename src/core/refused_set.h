// Assignments that a callback has refused: they are not tried again in the same pass.
//
// The pass adds each refused occurrence after its round, and the search of the next round asks for each assignment that
// it completes. A flat table of indices serves both: a tree of vectors grew faster than the graph when every
// occurrence is refused. All assignments of one set are of one rule, and the searches that share it must use one
// `Candidates` object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "core/graph_table.h"
#include "core/refused_choices.h"
#include "core/rule.h"

namespace onnxgraft::core {

/// The nodes of the part of pattern node 0 identify an assignment. One that differs in other parts only counts as the
/// same: the parts share no tensor, and to try all pairs of their matches would take the product of both.
class RefusedSet {
 public:
  /// Adding an assignment twice is harmless.
  void add(const Rule& rule, std::span<const NodeIndex> nodes);
  [[nodiscard]] bool contains(const Rule& rule, std::span<const NodeIndex> nodes) const;

  /// What the searches learned about refused choices, kept from round to round.
  RefusedChoices choices;

 private:
  static std::vector<NodeIndex> key_of(const Rule& rule, std::span<const NodeIndex> nodes);
  [[nodiscard]] std::size_t slot_of(std::span<const NodeIndex> key) const;
  [[nodiscard]] std::span<const NodeIndex> key_at(std::size_t number) const {
    return std::span(keys_).subspan(number * stride_, stride_);
  }
  void grow();

  std::size_t stride_ = 0;
  std::size_t count_ = 0;
  std::vector<NodeIndex> keys_;       // `stride_` nodes per key, one key after the other
  std::vector<std::uint32_t> slots_;  // open addressing: number of a key plus one, 0 if free
};

}  // namespace onnxgraft::core
