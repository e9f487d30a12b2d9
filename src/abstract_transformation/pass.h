// One pass: finds all occurrences of a rule in a graph, replaces them, asks the callback about each, takes back
// what was refused, and cleans up.
//
//   find -> splice all -> call back one by one -> restore the refused -> again with what these had kept out
//
// The graph is complete and in order before the first callback. Matching and planning are the core's, writing is
// the writer's; this file only says what happens when.
#pragma once

#include <memory>
#include <vector>

#include "abstract_transformation/callback.h"
#include "abstract_transformation/clean_up.h"
#include "abstract_transformation/one_call.h"
#include "abstract_transformation/run.h"
#include "core/candidates.h"
#include "core/graph_table.h"
#include "core/rule.h"
#include "core/search.h"
#include "py/graph_reader.h"
#include "py/graph_writer.h"

namespace onnxgraft::py {

class Pass {
 public:
  /// `transformation`, `graph` and `extra` are borrowed and must outlive the pass, and so must the run that it is part
  /// of, if there is one.
  Pass(PyObject* transformation, PyObject* graph, PyObject* extra, std::shared_ptr<const core::Rule> rule, Run* run);

  /// Runs the pass; the number of accepted occurrences. If anything raises, the occurrences accepted so far
  /// and the one whose callback raised stay, all others are taken back.
  std::size_t run();

  struct Counts {
    std::size_t found = 0;
    std::size_t replaced = 0;
    std::size_t refused = 0;
  };
  [[nodiscard]] const Counts& counts() const { return counts_; }

 private:
  std::size_t search_and_replace();
  void run_round(core::OccurrenceList& occurrences);
  void prepare_writing();
  template <class Visit>
  void for_each_removed(const core::OccurrenceList& occurrences, std::size_t index, Visit visit) const;
  /// Sees to it that the writer has the graph's own list, whatever a callback did to the graph.
  void follow_list();
  void ask(const core::OccurrenceList& occurrences, const core::SplicePlan& plan, std::vector<bool>& chosen);
  void take_back(const core::OccurrenceList& occurrences, const core::SplicePlan& plan,
                 const std::vector<core::NodeIndex>& before, const std::vector<bool>& chosen);
  void record(const core::OccurrenceList& occurrences, const std::vector<bool>& chosen);

  PyObject* graph_;
  Run* run_;  // null outside of one
  OneCall call_;
  std::shared_ptr<const core::Rule> rule_;
  std::unique_ptr<GraphReading> reading_;
  core::GraphTable& table_;  // of the reading
  GraphReader reader_;
  Ref initializers_;  // held so that callbacks, which ask the graph for it, get it without making it again
  Callback callback_;
  GraphWriter writer_;
  core::Claims claims_{0};  // of accepted occurrences
  core::RefusedSet refused_;
  core::NodeIndex first_added_ = 0;  // from here on nodes that callbacks have added since the round began
  CleanUpNames clean_up_names_;
  Counts counts_;
};

}  // namespace onnxgraft::py
