// What is known of a graph, and how far the reader got.
//
// One reading serves the passes of one `apply`, which run over the same graph one after the other. From a pass that
// replaced something the next one takes over the operators alone: that saves a fifth of the time of merges. Nothing
// here checks the graph: the owner must know that it was not edited by others.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "core/graph_table.h"

namespace onnxgraft::py {

struct GraphReading {
  enum class Depth : std::uint8_t {
    nothing,
    operators,  // `ops`; the table has no rows, or lacks the first `without_row` of them
    links,      // all of the graph that matching needs, in a sealed table
  };

  Depth depth = Depth::nothing;
  core::GraphTable table;
  std::vector<core::NameId> ops;  // per node of the list
  std::size_t without_row = 0;    // nodes at the start of the list that the table lacks, at depth `operators`

  /// The list was rewritten: it holds these rows of the table now.
  void keep_operators(std::span<const core::NodeIndex> rows) {
    ops.clear();
    for (const core::NodeIndex row : rows) ops.push_back(table.op(row));
    core::GraphTable empty;
    empty.ops = std::move(table.ops);
    table = std::move(empty);
    without_row = ops.size();
    depth = Depth::operators;
  }
};

}  // namespace onnxgraft::py
