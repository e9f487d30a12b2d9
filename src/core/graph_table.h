// A snapshot of a graph for one pass: nodes, tensors, who writes and who reads each of them.
//
// The reader (or a test) fills the table once and seals it. Matching and planning only look at it, but for the rows
// that a splice plan appends. These follow the original rows, so an index means the same node for the whole pass.
// Invariant: producers, readers and flags describe the original rows and do not change after `seal`. The table holds
// neither Python objects nor tensor data, and the links of all nodes share one array.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "core/names.h"

namespace onnxgraft::core {

using NodeIndex = std::uint32_t;
inline constexpr NodeIndex no_index = static_cast<NodeIndex>(-1);

class GraphTable {
 public:
  // Filling. Trailing empty names of inputs and outputs are dropped, since they have no meaning in ONNX.
  NodeIndex add_node(NameId op, std::span<const NameId> inputs, std::span<const NameId> outputs,
                     std::span<const NameId> implicit_inputs = {});
  /// Makes room for a graph of this many nodes and half as many new ones. The reader calls it once it knows the length
  /// of the list. Room that stays unused costs nothing, while growing step by step copies all rows and touches new
  /// pages.
  void reserve(std::size_t node_count);
  /// Adds rows for `set_node`. The reader uses the pair for nodes that it passes before it knows whether the pattern
  /// can match at all: their links are read later, or never.
  void add_empty_nodes(std::size_t count);
  /// Fills a row of `add_empty_nodes`.
  void set_node(NodeIndex node, NameId op, std::span<const NameId> inputs, std::span<const NameId> outputs,
                std::span<const NameId> implicit_inputs);
  void add_initializer(NameId name);
  void add_graph_output(NameId name);
  /// Computes producers and readers. Only new nodes may be added after it.
  void seal();

  [[nodiscard]] NodeIndex node_count() const { return static_cast<NodeIndex>(nodes_.size()); }
  [[nodiscard]] NodeIndex original_count() const { return original_count_; }
  [[nodiscard]] NameId op(NodeIndex node) const { return nodes_[node].op; }
  [[nodiscard]] std::span<const NameId> inputs(NodeIndex node) const { return part(node, 0); }
  [[nodiscard]] std::span<const NameId> outputs(NodeIndex node) const { return part(node, 1); }
  /// Names of the outer graph that nested bodies of the node read. They count as uses of a tensor, and for order and
  /// cycles, but a pattern cannot name them.
  [[nodiscard]] std::span<const NameId> implicit_inputs(NodeIndex node) const { return part(node, 2); }

  // The questions of the matcher. They are about the original nodes only.
  /// First node in list order that writes the tensor, `no_index` if none does.
  [[nodiscard]] NodeIndex producer(NameId name) const { return get(producers_, name, no_index); }
  /// Different nodes that read the tensor as an input, in list order.
  [[nodiscard]] std::span<const NodeIndex> readers(NameId name) const;
  [[nodiscard]] bool is_initializer(NameId name) const { return has(name, initializer); }
  [[nodiscard]] bool is_graph_output(NameId name) const { return has(name, graph_output); }
  [[nodiscard]] bool is_read_by_body(NameId name) const { return has(name, body_read); }

  /// All names of the graph, of every kind; grows when fresh names are made.
  Names names;
  /// Operator types.
  Names ops;
  /// Names of the initializers in list order.
  std::vector<NameId> initializers;
  /// Names of nodes (not of tensors) by index; filled when a splice needs them.
  std::vector<NameId> node_names;

 private:
  /// A row: 20 bytes, and no allocation of its own.
  struct Node {
    NameId op;
    std::array<std::uint32_t, 4> begin;  // in `links_`: inputs, outputs, implicit inputs, end
  };
  enum Flag : std::uint8_t { initializer = 1, graph_output = 2, body_read = 4 };

  /// A name that came after `seal` is after the end of the arrays: nothing writes or reads it.
  template <class T>
  static T get(const std::vector<T>& values, NameId name, T otherwise) {
    return name < values.size() ? values[name] : otherwise;
  }
  [[nodiscard]] std::span<const NameId> part(NodeIndex node, std::size_t which) const {
    const auto& begin = nodes_[node].begin;
    return std::span(links_).subspan(begin[which], begin[which + 1] - begin[which]);
  }
  [[nodiscard]] bool has(NameId name, Flag flag) const { return (get(flags_, name, std::uint8_t{0}) & flag) != 0; }
  void set(NameId name, Flag flag);

  std::vector<Node> nodes_;
  std::vector<NameId> links_;                // of all nodes, row after row
  std::vector<std::uint8_t> flags_;          // by name
  std::vector<NodeIndex> producers_;         // by name
  std::vector<std::uint32_t> reader_begin_;  // by name: where its readers begin; one more for the end
  std::vector<NodeIndex> readers_;           // of all names, one after the other
  NodeIndex original_count_ = 0;
};

}  // namespace onnxgraft::core
