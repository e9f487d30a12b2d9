// Assignments that a callback has refused: they are not tried again in the same pass.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "core/graph_table.h"
#include "core/refused_choices.h"
#include "core/rule.h"

namespace onnxgraft::core {

/// What identifies an assignment are the nodes of node 0's part; parts that share no tensor with it make no new one.
/// All of one set are of one rule, and the searches that it is given to are of one `Candidates`.
class RefusedSet {
 public:
  void add(const Rule& rule, std::span<const NodeIndex> nodes);
  [[nodiscard]] bool contains(const Rule& rule, std::span<const NodeIndex> nodes) const;

  /// What searches found out about them.
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
  std::vector<NodeIndex> keys_;       // one behind the other
  std::vector<std::uint32_t> slots_;  // open addressing: number of a key plus one, 0 where free
};

}  // namespace onnxgraft::core
