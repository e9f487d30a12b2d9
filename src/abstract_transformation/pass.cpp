// The order of steps in a pass and in a round, and what is undone if a step raises.
//
// Invariant: on every way out, the node list holds the accepted occurrences, the one whose callback raised, and no
// other. Must not know operators, or what callbacks compute.
#include "abstract_transformation/pass.h"

#include <algorithm>
#include <utility>

#include "core/node_order.h"
#include "py/bad_names.h"
#include "py/graph_fields.h"
#include "py/guard.h"

namespace onnxgraft::py {

Pass::Pass(PyObject* transformation, PyObject* graph, PyObject* extra, std::shared_ptr<const core::Rule> rule, Run* run)
    : graph_(graph),
      run_(run),
      call_(graph, run == nullptr ? nullptr : &run->call()),
      rule_(std::move(rule)),
      reading_(run == nullptr ? std::make_unique<GraphReading>() : run->take_reading()),
      table_(reading_->table),
      reader_(graph, *reading_),
      callback_(transformation, graph, extra, *rule_),
      writer_(graph, reader_.nodes(), table_) {}

std::size_t Pass::run() {
  const std::size_t count = with_places(graph_, [&] { return search_and_replace(); });
  if (run_ == nullptr || !callback_.keeps_nodes()) return count;
  if (writer_.has_begun()) reading_->keep_operators(writer_.order());
  run_->keep_reading(std::move(reading_));
  return count;
}

std::size_t Pass::search_and_replace() {
  if (!reader_.read_operators(*rule_)) return 0;
  reader_.read_links();
  core::Candidates candidates(table_, *rule_);
  if (!candidates.possible()) return 0;
  claims_ = core::Claims(table_.original_count());
  while (true) {
    core::Claims claims = claims_;
    core::OccurrenceList occurrences = core::Search(table_, *rule_, candidates, claims, refused_).run();
    if (occurrences.empty()) break;
    counts_.found += occurrences.size();
    const std::size_t refused_before = counts_.refused;
    run_round(occurrences);
    // Only a refusal makes room for others, and only where occurrences stand in each other's way at all.
    if (counts_.refused == refused_before || !rule_->removes) break;
  }
  if (counts_.replaced != 0) {
    clean_up(graph_, table_, writer_, clean_up_names_, callback_.changes() == Changes::contents);
  }
  return counts_.replaced;
}

template <class Visit>
void Pass::for_each_removed(const core::OccurrenceList& occurrences, std::size_t index, Visit visit) const {
  const auto nodes = occurrences.nodes(index);
  for (std::size_t role = 0; role < nodes.size(); ++role) {
    if (rule_->nodes[role].removed()) visit(nodes[role]);
  }
}

void Pass::prepare_writing() {
  if (!writer_.has_begun()) {
    reader_.read_names();
    initializers_ = attribute(graph_, field::initializer);
    writer_.begin();
  }
  // A callback may change the list; what it did shows only in the nodes' identities.
  if (!callback_.keeps_nodes()) writer_.hold_all();
}

void Pass::run_round(core::OccurrenceList& occurrences) {
  callback_.begin_round();
  prepare_writing();
  const core::SplicePlan plan(table_, *rule_, occurrences);
  first_added_ = table_.node_count();
  for (core::NodeIndex node = plan.first_new_node(); node < table_.node_count(); ++node) {
    writer_.set_source(node, plan.copied_from(node));
  }
  const std::vector<core::NodeIndex> before(writer_.order().begin(), writer_.order().end());
  if (!callback_.is_default()) {
    for (std::size_t index = 0; index < occurrences.size(); ++index)
      for_each_removed(occurrences, index, [&](core::NodeIndex node) { writer_.hold(node); });
  }
  std::vector<bool> chosen(occurrences.size(), true);
  const std::vector<core::NodeIndex> spliced = plan.arrange(before, chosen);
  if (!callback_.is_default()) chosen.assign(occurrences.size(), false);
  try {
    writer_.rearrange(spliced);
    if (!callback_.is_default()) ask(occurrences, plan, chosen);
  } catch (...) {
    clean_up_after_error([&] { take_back(occurrences, plan, before, chosen); });
    throw;
  }
  take_back(occurrences, plan, before, chosen);
  record(occurrences, chosen);
}

void Pass::follow_list() {
  if (!callback_.keeps_nodes()) writer_.follow(attribute(graph_, field::node));
}

/// Calls back once per occurrence. On an error, `chosen` holds what has to stay: the accepted ones and the one whose
/// callback raised.
void Pass::ask(const core::OccurrenceList& occurrences, const core::SplicePlan& plan, std::vector<bool>& chosen) {
  call_.keep_out_others(callback_.keeps_nodes());
  try {
    for (std::size_t index = 0; index < occurrences.size(); ++index) {
      check(PyErr_CheckSignals());
      follow_list();
      const Callback::Arguments arguments = callback_.arguments(occurrences, plan, index, table_, writer_);
      chosen[index] = true;
      chosen[index] = callback_.call(arguments);
      if (chosen[index]) for_each_removed(occurrences, index, [&](core::NodeIndex node) { writer_.release(node); });
    }
    callback_.end_round();
  } catch (...) {
    clean_up_after_error([&] { callback_.end_round(); });
    call_.keep_out_others(false);
    throw;
  }
  call_.keep_out_others(false);
}

void Pass::take_back(const core::OccurrenceList& occurrences, const core::SplicePlan& plan,
                     const std::vector<core::NodeIndex>& before, const std::vector<bool>& chosen) {
  bool all = true;
  for (const bool stays : chosen) all = all && stays;
  if (all) return;
  follow_list();
  if (!writer_.synchronize()) {
    writer_.rearrange(plan.arrange(before, chosen));
    return;
  }
  std::vector<bool> goes(table_.node_count(), false);
  for (std::size_t index = 0; index < occurrences.size(); ++index) {
    if (chosen[index]) continue;
    for (std::size_t entry = 0; entry < rule_->entries.size(); ++entry) {
      if (rule_->entries[entry].kind != core::EntryKind::keep) goes[plan.entry_node(index, entry)] = true;
    }
  }
  std::vector<bool> is_written(table_.names.size(), false);
  for (const core::NodeIndex node : writer_.order()) {
    if (node < first_added_) continue;
    for (const core::NameId name : table_.outputs(node)) is_written[name] = true;
  }
  std::vector<bool> comes_back(table_.node_count(), false);
  for (std::size_t index = 0; index < occurrences.size(); ++index) {
    if (chosen[index]) continue;
    const auto nodes = occurrences.nodes(index);
    for (std::size_t role = 0; role < nodes.size(); ++role) {
      // A tensor to which a callback of this round has given another writer needs the old one no more.
      if (!rule_->nodes[role].removed() || is_written[table_.outputs(nodes[role])[0]]) continue;
      comes_back[nodes[role]] = true;
    }
  }
  const std::vector<core::NodeIndex> list = core::put_back(writer_.order(), before, goes, comes_back);
  writer_.rearrange(core::put_in_order(table_, writer_.order(), list));
}

void Pass::record(const core::OccurrenceList& occurrences, const std::vector<bool>& chosen) {
  for (std::size_t index = 0; index < occurrences.size(); ++index) {
    const auto nodes = occurrences.nodes(index);
    if (!chosen[index]) {
      ++counts_.refused;
      refused_.add(*rule_, nodes);
      continue;
    }
    ++counts_.replaced;
    claims_.add(*rule_, nodes);
    for (std::size_t role = 0; role < nodes.size(); ++role) {
      const core::PatternNode& node = rule_->nodes[role];
      if (!node.removed()) continue;
      for (const auto names : {table_.inputs(nodes[role]), table_.implicit_inputs(nodes[role])}) {
        clean_up_names_.read_by_removed.insert(clean_up_names_.read_by_removed.end(), names.begin(), names.end());
      }
      if (node.exclusive) clean_up_names_.changed.push_back(table_.outputs(nodes[role])[0]);
    }
  }
}

}  // namespace onnxgraft::py
