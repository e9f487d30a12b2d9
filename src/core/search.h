// The search for occurrences, one round of a pass.
//
// Assignments are visited in lexicographic order of their graph nodes (pattern node 0 first), and each is taken unless
// an earlier one claims a node of it. The search reads the table and writes claims and refused choices, never the
// graph. For the catalogue's patterns its cost is in proportion to the graph: candidates come from bound tensors, and
// what was claimed or refused is jumped over.
#pragma once

#include <vector>

#include "core/candidates.h"
#include "core/cycle_check.h"
#include "core/interruption.h"
#include "core/occurrence.h"
#include "core/refused_set.h"

namespace onnxgraft::core {

/// Depth first. What is forced by the tensors bound so far (a producer, the only reader) is bound at once, which cannot
/// change the order. Where there is a choice, the search branches at the lowest pattern node still open. After an
/// occurrence is taken, it returns to the first choice that the claim spoils.
///
/// Example: "Quant:0->1", "Conv:1,2i->4", "Quant:0->5" starts with each Quant as node 0, which binds tensors 0 and 1.
/// If one Conv reads tensor 1, it is bound at once. The other Quants that read tensor 0 are a choice, tried in graph
/// order.
class Search {
 public:
  Search(const GraphTable& table, const Rule& rule, Candidates& candidates, Claims& claims, RefusedSet& refused);

  /// All occurrences that the claims still allow, in order. Claims their nodes.
  OccurrenceList run();

  /// The first assignment in which `node` plays `role`; empty if there is none. It claims nothing. Only for
  /// explanations of single nodes: the same conditions as in `run`, so the two cannot disagree.
  std::vector<NodeIndex> first_with(std::uint32_t role, NodeIndex node);

 private:
  /// One choice: the candidates left for one pattern node. The stack of frames replaces recursion.
  struct Frame {
    std::uint32_t role;
    Candidates::Range range;                // if not `is_explicit`
    std::vector<NodeIndex> explicit_nodes;  // candidates found over other pattern nodes
    bool is_explicit;
    std::size_t position;
    std::size_t role_mark;          // how many pattern nodes and links were bound before this choice:
    std::size_t link_mark;          // `undo` goes back to there before the next candidate is tried
    RefusedChoices::Prefix prefix;  // the choices before this one
  };

  // search.cpp: the loop.
  bool next_assignment();
  void push_frame(std::uint32_t role);
  NodeIndex next_candidate(Frame& frame);
  std::size_t skip_unusable(Candidates::Range range, std::size_t position, const PatternNode& role);
  void undo(std::size_t role_mark, std::size_t link_mark);
  bool bind(std::uint32_t role, NodeIndex node);
  bool bind_link(LinkId link, NameId name);
  bool propagate(std::size_t from_link);
  bool propagate_link(LinkId id);
  void accept(OccurrenceList& found);
  void leave_refused();
  [[nodiscard]] std::uint32_t lowest_open_role() const;

  // search_bridge.cpp: where the candidates of a choice come from.
  Candidates::Range best_direct(std::uint32_t role, bool& found);
  bool bridge(std::uint32_t role, std::size_t budget, std::vector<NodeIndex>& result);
  bool expand(std::uint32_t start, Candidates::Range range, std::uint32_t target, std::size_t budget,
              std::vector<NodeIndex>& result);

  const GraphTable& table_;
  const Rule& rule_;
  Candidates& candidates_;
  Claims& claims_;
  RefusedSet& refused_;
  CycleCheck cycle_check_;
  Interruptible work_;

  // The bindings so far, and the order in which they were made: to step back is to undo the last ones.
  std::vector<NodeIndex> node_of_;  // per pattern node
  std::vector<NameId> name_of_;     // per link
  std::vector<std::uint32_t> bound_roles_;
  std::vector<LinkId> bound_links_;
  std::vector<bool> in_use_;  // per graph node: plays a part in the bindings, so it cannot play a second one
  std::vector<Frame> frames_;
  std::vector<std::vector<std::uint32_t>> skips_;  // per list, by position: the next one that may be unclaimed
};

}  // namespace onnxgraft::core
