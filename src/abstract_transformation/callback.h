// Calls `_on_replace_subgraph` of the transformation that runs.
#pragma once

#include <vector>

#include "core/occurrence.h"
#include "core/splice_plan.h"
#include "py/function.h"
#include "py/graph_writer.h"
#include "py/ref.h"

namespace onnxgraft::py {

/// The callback of a class that has none of its own: every occurrence is accepted.
const FunctionRow& default_callback();

class Callback {
 public:
  /// `extra` is the dict of further keyword arguments, handed on by identity. All borrowed.
  Callback(PyObject* transformation, PyObject* graph, PyObject* extra, const core::Rule& rule);

  /// True if the transformation has the default callback, which need not be called.
  [[nodiscard]] bool is_default() const { return is_default_; }

  /// True if the callback promises to leave the node list alone (see `keeps_nodes`): the transformation is, unchanged,
  /// a class of the module that its callback comes from, and the callback makes the promise.
  [[nodiscard]] bool keeps_nodes() const { return keeps_nodes_; }

  /// True if it keeps nodes and promises to leave their names, inputs and outputs alone.
  [[nodiscard]] bool keeps_links() const { return keeps_links_; }

  /// True if it keeps links too and looks only at the nodes that it is given, wherever they stand.
  [[nodiscard]] bool is_local() const { return is_local_; }

  /// What the calls of one round share, for a callback that keeps nodes; to be held until the last of them.
  [[nodiscard]] Ref begin_round() const;
  /// Does what the calls of the round have put off; to be called while what `begin_round` gave is held.
  void end_round() const;

  /// True if the callback says that it will refuse the occurrence, of which only the pattern's links are bound yet.
  /// False where it does not tell such things in advance.
  [[nodiscard]] bool foresees_refusal(const core::OccurrenceList& occurrences, std::size_t index,
                                      const core::GraphTable& table) const;

  /// What a callback gets for one occurrence. Making it raises RuntimeError if a node of the occurrence is gone.
  struct Arguments {
    Ref replaced_nodes;
    Ref node_mapping;
    Ref link_mapping;
  };
  Arguments arguments(const core::OccurrenceList& occurrences, const core::SplicePlan& plan, std::size_t index,
                      const core::GraphTable& table, GraphWriter& writer) const;

  /// True if the occurrence was accepted.
  [[nodiscard]] bool call(const Arguments& arguments) const;

 private:
  [[nodiscard]] Ref node_mapping(std::span<const core::NodeIndex> nodes, const core::SplicePlan& plan,
                                 std::size_t index, const core::GraphTable& table, GraphWriter& writer) const;

  [[nodiscard]] Ref sharing_function() const;

  PyObject* transformation_;
  PyObject* graph_;
  const core::Rule& rule_;
  Ref keyword_names_;  // tuple
  std::vector<Ref> keyword_values_;
  std::vector<Ref> link_ids_;  // `str` per link of the rule
  Ref foresees_refusal_;       // empty if it tells nothing in advance
  bool is_default_ = false;
  bool keeps_nodes_ = false;
  bool keeps_links_ = false;
  bool is_local_ = false;
};

}  // namespace onnxgraft::py
