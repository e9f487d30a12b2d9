// The search for occurrences, one round of a pass.
//
// Assignments are visited in lexicographic order of their graph nodes (pattern node 0 first). What is forced
// by the tensors bound so far (a producer; the only reader) is bound at once, which cannot change that
// order; only where there is a choice does the search branch, at the lowest pattern node still open. Each
// visited assignment is taken unless an earlier one has claimed a node of it; the search then returns to the
// first choice that the claim has spoilt.
#pragma once

#include <vector>

#include "core/candidates.h"
#include "core/cycle_check.h"
#include "core/interruption.h"
#include "core/occurrence.h"
#include "core/refused_set.h"

namespace onnxgraft::core {

class Search {
 public:
  Search(const GraphTable& table, const Rule& rule, Candidates& candidates, Claims& claims, RefusedSet& refused);

  /// All occurrences that the claims still allow, in order; claims their nodes.
  OccurrenceList run();

  /// The first assignment in which `node` plays `role`; empty if there is none. It claims nothing.
  std::vector<NodeIndex> first_with(std::uint32_t role, NodeIndex node);

 private:
  /// One choice: the candidates left for one pattern node.
  struct Frame {
    std::uint32_t role;
    Candidates::Range range;                // where `explicit_nodes` is empty
    std::vector<NodeIndex> explicit_nodes;  // candidates found over other pattern nodes
    bool is_explicit;
    std::size_t position;
    std::size_t role_mark;  // what was bound before this choice
    std::size_t link_mark;
    RefusedChoices::Prefix prefix;  // the choices before this one
  };

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

  std::vector<NodeIndex> node_of_;  // per pattern node
  std::vector<NameId> name_of_;     // per link
  std::vector<std::uint32_t> bound_roles_;
  std::vector<LinkId> bound_links_;
  std::vector<bool> in_use_;  // per graph node
  std::vector<Frame> frames_;
  std::vector<std::vector<std::uint32_t>> skips_;  // per list: next position worth a look
};

}  // namespace onnxgraft::core
