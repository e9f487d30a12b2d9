// Calls `_on_replace_subgraph` of the transformation that runs.
//
// Invariant: inside a round, calls go through the callback's session if its promise is believed, otherwise through the
// attribute of the instance. Nothing here decides what a refusal means: that is the pass.
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

  /// What the callbacks of all rounds so far change of the graph, at most.
  [[nodiscard]] Changes changes() const { return changes_; }
  [[nodiscard]] bool keeps_nodes() const { return changes_ != Changes::anything; }

  /// Begins a session of the callback, if it has any; until `end_round`, nothing else may edit the node list.
  void begin_round();
  /// Does what the calls of the round have put off.
  void end_round();

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

  PyObject* transformation_;
  PyObject* graph_;
  PyObject* extra_;
  const core::Rule& rule_;
  std::vector<Ref> link_ids_;  // `str` per link of the rule
  bool is_default_ = false;
  Changes changes_ = Changes::contents;
  Ref session_;  // called in the callback's place; empty outside of a round, and where nothing is promised
};

}  // namespace onnxgraft::py
