// What is known of a graph, and how far the reader got.
//
// One reading serves the passes of one `apply`, which run over the same graph one after the other: what a pass has
// found out about nodes holds for the next one, but for what it has replaced itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "core/graph_table.h"

namespace onnxgraft::py {

struct GraphReading {
  enum class Depth : std::uint8_t {
    nothing,
    operators,  // `ops`; the table has no rows, or lacks what stands in the first `without_row` of them
    rows,       // rows for all nodes, but of an older list: those of `order`
    links,      // all of the graph that matching needs, in a sealed table
  };

  Depth depth = Depth::nothing;
  core::GraphTable table;
  std::vector<core::NameId> ops;       // per node of the list
  std::size_t without_row = 0;         // nodes at the list's begin, at depth `operators`
  std::vector<core::NodeIndex> order;  // per node of the list its row, at depth `rows`
  bool has_old_names = false;          // the table's names are more than the graph's
  bool has_bodies = false;             // whose names no row tells

  /// The list was rewritten: it holds these rows of the table now. `keeps_links`: what they say of the nodes' links
  /// is still right.
  void list_is(std::span<const core::NodeIndex> rows, bool keeps_links) {
    ops.clear();
    for (const core::NodeIndex row : rows) ops.push_back(table.op(row));
    if (keeps_links && !has_bodies) {
      order.assign(rows.begin(), rows.end());
      depth = Depth::rows;
      return;
    }
    core::GraphTable empty;
    empty.ops = std::move(table.ops);
    table = std::move(empty);
    has_old_names = has_bodies = false;
    without_row = ops.size();
    depth = Depth::operators;
  }
};

}  // namespace onnxgraft::py
