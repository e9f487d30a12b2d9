// The search loop: choose, bind what follows, step back.
//
// Three jumps keep it from repeating work. After an occurrence is taken, `accept` cuts the stack to the first choice
// whose node is gone. `skip_unusable` passes runs of claimed candidates in one step. `leave_refused` drops all choices
// that lead to a refused assignment only. None of them changes which assignments are found or their order.
#include "core/search.h"

#include <algorithm>

namespace onnxgraft::core {

Search::Search(const GraphTable& table, const Rule& rule, Candidates& candidates, Claims& claims, RefusedSet& refused)
    : table_(table),
      rule_(rule),
      candidates_(candidates),
      claims_(claims),
      refused_(refused),
      cycle_check_(table, rule),
      node_of_(rule.nodes.size(), no_index),
      name_of_(rule.links.size(), no_name),
      in_use_(table.original_count(), false) {}

OccurrenceList Search::run() {
  OccurrenceList found(rule_);
  if (!candidates_.possible()) return found;
  push_frame(0);
  while (next_assignment()) accept(found);
  return found;
}

std::vector<NodeIndex> Search::first_with(std::uint32_t role, NodeIndex node) {
  if (!candidates_.possible() || !candidates_.contains(role, node)) return {};
  // One frame with one candidate: propagation then runs from this node, in all directions of the pattern.
  frames_.push_back({.role = role,
                     .range = {},
                     .explicit_nodes = {node},
                     .is_explicit = true,
                     .position = 0,
                     .role_mark = 0,
                     .link_mark = 0});
  std::vector<NodeIndex> found;
  if (next_assignment()) found = node_of_;
  frames_.clear();
  undo(0, 0);
  return found;
}

/// Goes on to the next complete assignment and leaves it bound; false after the last one.
bool Search::next_assignment() {
  while (!frames_.empty()) {
    work_.step();
    Frame& frame = frames_.back();
    undo(frame.role_mark, frame.link_mark);
    const NodeIndex node = next_candidate(frame);
    if (node == no_index) {
      frames_.pop_back();
      continue;
    }
    // A dead end needs no clearing here: the next turn undoes what this one bound.
    const std::size_t new_links = bound_links_.size();
    if (!bind(frame.role, node) || !propagate(new_links)) continue;
    // The refusals come before the cycles: a look-up costs less than a walk over the graph.
    const std::uint32_t open = lowest_open_role();
    if (open != no_node) {
      push_frame(open);
    } else if (refused_.contains(rule_, node_of_)) {
      leave_refused();
    } else if (!cycle_check_.needed() || !cycle_check_.closes_cycle(node_of_, name_of_)) {
      return true;
    }
  }
  return false;
}

/// Branching at the lowest open pattern node is what makes the order of the assignments lexicographic.
std::uint32_t Search::lowest_open_role() const {
  if (bound_roles_.size() == node_of_.size()) return no_node;
  return static_cast<std::uint32_t>(std::ranges::find(node_of_, no_index) - node_of_.begin());
}

/// Takes the assignment that is bound. Choices up to the first one with a node that it removed stay as they are: the
/// next assignment differs from this one there at the earliest.
void Search::accept(OccurrenceList& found) {
  found.add(node_of_, name_of_);
  claims_.add(rule_, node_of_);
  for (std::size_t frame = 0; frame < frames_.size(); ++frame) {
    const std::size_t end = frame + 1 < frames_.size() ? frames_[frame + 1].role_mark : bound_roles_.size();
    for (std::size_t at = frames_[frame].role_mark; at < end; ++at) {
      const std::uint32_t role = bound_roles_[at];
      if (claims_.usable(node_of_[role], rule_.nodes[role])) continue;
      frames_.resize(frame + 1);
      return;
    }
  }
}

/// Called for a complete assignment that was refused earlier. Choices in other parts are dropped, because another match
/// of these is still the same refused assignment. The last choice in the part of node 0 is noted, so that later rounds
/// jump over it.
void Search::leave_refused() {
  while (!frames_.empty() && rule_.nodes[frames_.back().role].part != 0) frames_.pop_back();
  if (frames_.empty() || frames_.back().is_explicit) return;
  RefusedChoices::Prefix prefix = RefusedChoices::none;
  for (std::size_t frame = 0; frame + 1 < frames_.size(); ++frame) {
    prefix = refused_.choices.add_after(prefix, node_of_[frames_[frame].role]);
  }
  Frame& last = frames_.back();
  last.prefix = prefix;
  refused_.choices.refuse(prefix, last.range.list, last.position - 1);
}

/// Opens the choice for `role`. Candidates come from a bound tensor if there is one. If that has many readers, or there
/// is none in a part that is already begun, a way over pattern nodes in between may give fewer (`bridge`). All
/// candidates of the role are the last resort, for the first node of a part.
void Search::push_frame(std::uint32_t role) {
  RefusedChoices::Prefix prefix = RefusedChoices::none;
  if (!frames_.empty()) prefix = refused_.choices.after(frames_.back().prefix, node_of_[frames_.back().role]);
  Frame frame{role, {}, {}, false, 0, bound_roles_.size(), bound_links_.size(), prefix};
  constexpr std::size_t few = 8;  // trying that many costs less than looking for a better way
  bool direct = false;
  frame.range = best_direct(role, direct);
  const bool connected = std::ranges::any_of(
      bound_roles_, [&](std::uint32_t bound) { return rule_.nodes[bound].part == rule_.nodes[role].part; });
  if (connected && (!direct || frame.range.size() > few)) {
    const std::size_t budget = direct ? frame.range.size() : static_cast<std::size_t>(-1);
    frame.is_explicit = bridge(role, budget, frame.explicit_nodes);
  }
  if (!direct && !frame.is_explicit) frame.range = candidates_.all(role);
  frame.position = frame.is_explicit ? 0 : frame.range.begin;
  frames_.push_back(std::move(frame));
}

/// The next candidate of the choice that is neither claimed nor refused; `no_index` after the last one.
NodeIndex Search::next_candidate(Frame& frame) {
  const PatternNode& role = rule_.nodes[frame.role];
  if (!frame.is_explicit) {
    // A jump over claimed candidates may end at a refused one, and the other way round.
    while (true) {
      frame.position = skip_unusable(frame.range, frame.position, role);
      const std::size_t open = refused_.choices.skip(frame.prefix, frame.range.list, frame.position);
      if (open == frame.position || frame.position >= frame.range.end) break;
      frame.position = open;
    }
    if (frame.position >= frame.range.end) return no_index;
    return candidates_.at(frame.range.list, frame.position++);
  }
  while (frame.position < frame.explicit_nodes.size()) {
    const NodeIndex node = frame.explicit_nodes[frame.position++];
    if (claims_.usable(node, role)) return node;
  }
  return no_index;
}

/// The first position from `position` on whose node is not claimed against `role`. Claims only grow in a round, so
/// positions that were passed once are jumped over from then on. Without it, n branches of one tensor that each
/// takes a sibling would look at n * n claimed siblings.
std::size_t Search::skip_unusable(Candidates::Range range, std::size_t position, const PatternNode& role) {
  if (range.list >= skips_.size()) skips_.resize(range.list + 1);
  auto& skip = skips_[range.list];
  const auto next_of = [&](std::size_t at) { return at < skip.size() && skip[at] != 0 ? skip[at] : at; };
  std::size_t at = position;
  while (at < range.end) {
    const std::size_t jump = next_of(at);
    if (jump != at) {
      at = jump;
      continue;
    }
    if (claims_.usable(candidates_.at(range.list, at), role)) break;
    ++at;
  }
  at = std::min(at, range.end);
  if (at > position + 1) {
    if (skip.empty()) skip.assign(candidates_.list_size(range.list), 0);
    // From now on every position passed leads to the end of the run.
    for (std::size_t passed = position; passed < at;) {
      const std::size_t next = std::max(next_of(passed), passed + 1);
      skip[passed] = static_cast<std::uint32_t>(at);
      passed = next;
    }
  }
  return at;
}

/// Takes back what was bound after the two marks, last first.
void Search::undo(std::size_t role_mark, std::size_t link_mark) {
  while (bound_roles_.size() > role_mark) {
    in_use_[node_of_[bound_roles_.back()]] = false;
    node_of_[bound_roles_.back()] = no_index;
    bound_roles_.pop_back();
  }
  while (bound_links_.size() > link_mark) {
    name_of_[bound_links_.back()] = no_name;
    bound_links_.pop_back();
  }
}

/// Binds a node and its tensors; false if something clashes. What was bound up to there stays for `undo`.
bool Search::bind(std::uint32_t role, NodeIndex node) {
  const PatternNode& pattern = rule_.nodes[role];
  if (in_use_[node] || !claims_.usable(node, pattern)) return false;
  node_of_[role] = node;
  in_use_[node] = true;
  bound_roles_.push_back(role);
  for (std::size_t slot = 0; slot < pattern.inputs.size(); ++slot) {
    if (!bind_link(pattern.inputs[slot].link, table_.inputs(node)[slot])) return false;
  }
  return bind_link(pattern.output, table_.outputs(node)[0]);
}

/// Binds a tensor to a link, or checks it against the one that is bound.
bool Search::bind_link(LinkId link, NameId name) {
  if (name_of_[link] != no_name) return name_of_[link] == name;
  const auto written_by_removed = [&](LinkId id) {
    const std::uint32_t writer = rule_.links[id].writer;
    return writer != no_node && rule_.nodes[writer].removed();
  };
  // Two ids may be bound to one tensor, unless a removed node writes it: the other id would dangle.
  for (const LinkId other : bound_links_) {
    if (name_of_[other] == name && (written_by_removed(link) || written_by_removed(other))) return false;
  }
  name_of_[link] = name;
  bound_links_.push_back(link);
  return true;
}

/// Binds everything that the links bound since `from_link` force; false if some of it is impossible. Links that are
/// bound on the way join the queue, so one call follows the tensors through the whole part.
bool Search::propagate(std::size_t from_link) {
  for (std::size_t at = from_link; at < bound_links_.size(); ++at) {
    if (!propagate_link(bound_links_[at])) return false;
  }
  return true;
}

/// The writer of a bound tensor is forced, and so is the reader if only one candidate reads it. Several readers are a
/// choice for later, none is a dead end.
bool Search::propagate_link(LinkId id) {
  const Link& link = rule_.links[id];
  const NameId name = name_of_[id];
  if (link.writer != no_node && node_of_[link.writer] == no_index) {
    const NodeIndex producer = table_.producer(name);
    if (producer == no_index || !candidates_.contains(link.writer, producer)) return false;
    if (!bind(link.writer, producer)) return false;
  }
  return std::ranges::all_of(link.readers, [&](const LinkReader& reader) {
    if (node_of_[reader.node] != no_index) return true;
    const Candidates::Range range = candidates_.readers(reader.node, reader.slot, name);
    if (range.size() != 1) return range.size() > 1;
    return bind(reader.node, candidates_.at(range.list, range.begin));
  });
}

}  // namespace onnxgraft::core
