// A snapshot of a graph for one pass: nodes, tensors, who writes and who reads what.
//
// Filled once by the reader (or a test), then sealed; matching and planning only look at it. Nodes that a
// splice adds get indices behind the original ones, so that an index names the same node for the whole pass.
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
  // Filling. Trailing empty names of inputs and outputs are dropped: ONNX gives them no meaning.
  NodeIndex add_node(NameId op, std::span<const NameId> inputs, std::span<const NameId> outputs,
                     std::span<const NameId> implicit_inputs = {});
  /// Makes room for a graph of this many nodes, and for what a pass may add: room that stays unused costs nothing.
  void reserve(std::size_t node_count);
  /// Adds rows that `set_node` will fill.
  void add_empty_nodes(std::size_t count);
  /// Fills a row that is empty.
  void set_node(NodeIndex node, NameId op, std::span<const NameId> inputs, std::span<const NameId> outputs,
                std::span<const NameId> implicit_inputs);
  void add_initializer(NameId name);
  void add_graph_output(NameId name);
  /// Computes producers and readers; no graph content is added behind it.
  void seal();
  /// The table of the same graph with another list: the rows `order` of this one, in that order. Initializers and
  /// outputs are still to be added. Ids of names and operators stay, and with them names that the graph has no more.
  [[nodiscard]] GraphTable relisted(std::span<const NodeIndex> order) &&;

  [[nodiscard]] NodeIndex node_count() const { return static_cast<NodeIndex>(nodes_.size()); }
  [[nodiscard]] NodeIndex original_count() const { return original_count_; }
  [[nodiscard]] NameId op(NodeIndex node) const { return nodes_[node].op; }
  [[nodiscard]] std::span<const NameId> inputs(NodeIndex node) const { return part(node, 0); }
  [[nodiscard]] std::span<const NameId> outputs(NodeIndex node) const { return part(node, 1); }
  /// Names of the outer graph that nested bodies of the node read.
  [[nodiscard]] std::span<const NameId> implicit_inputs(NodeIndex node) const { return part(node, 2); }

  // Original nodes only.
  /// First node in list order that writes the tensor, `no_index` if none does.
  [[nodiscard]] NodeIndex producer(NameId name) const { return get(producers_, name, no_index); }
  /// Different nodes that read the tensor as an input, in list order.
  [[nodiscard]] std::span<const NodeIndex> readers(NameId name) const;
  [[nodiscard]] bool is_initializer(NameId name) const { return has(name, initializer); }
  [[nodiscard]] bool is_graph_output(NameId name) const { return has(name, graph_output); }
  [[nodiscard]] bool is_read_by_body(NameId name) const { return has(name, body_read); }

  /// Declares all names free but those of the rows, the initializers, the nodes, and `others`.
  void vacate_all_but(std::span<const NameId> others);

  /// All names of the graph, of every kind; grows when fresh names are made.
  Names names;
  /// Operator types.
  Names ops;
  /// Names of the initializers in list order.
  std::vector<NameId> initializers;
  /// Names of nodes (not of tensors) by index; filled when a splice needs them.
  std::vector<NameId> node_names;
  /// By name: true where the graph has it no more, so that it is free. Names behind the end are in use.
  std::vector<bool> vacant;

 private:
  struct Node {
    NameId op;
    std::array<std::uint32_t, 4> begin;  // inputs, outputs, implicit inputs, end
  };
  enum Flag : std::uint8_t { initializer = 1, graph_output = 2, body_read = 4 };

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
  std::vector<NameId> links_;
  std::vector<std::uint8_t> flags_;
  std::vector<NodeIndex> producers_;
  std::vector<std::uint32_t> reader_begin_;
  std::vector<NodeIndex> readers_;
  NodeIndex original_count_ = 0;
};

}  // namespace onnxgraft::core
