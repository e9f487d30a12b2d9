// Why a rule matched nothing: the attempt that got furthest, and where it ended.
//
// A separate, slower walk than the search. It follows the same tensors but judges nodes one by one, so that it can say
// what was wrong with the last of them. It runs only for `debug` and `explain`. Whether an assignment exists is for the
// search to decide, never for this walk. The number of attempts is limited: on hostile patterns the answer is a good
// one, but not always the furthest.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/graph_table.h"
#include "core/local_match.h"
#include "core/rule.h"

namespace onnxgraft::core {

struct NearestMiss {
  std::uint32_t matched = 0;       // pattern nodes that matched
  NodeIndex last = no_index;       // the node matched last, `no_index` if the first pattern node matched none
  std::uint32_t role = 0;          // pattern node that could not be matched
  NodeIndex candidate = no_index;  // the node that was tried for it, if there was one
  Reason reason = Reason::none;
  std::uint32_t slot = 0;       // input position, if the reason has one
  NameId tensor = no_name;      // tensor, if the reason has one
  NodeIndex reader = no_index;  // for read_elsewhere: a node that reads the tensor as well
};

/// The furthest attempt, the first in node order among equals. Empty if the pattern has an assignment.
std::optional<NearestMiss> find_nearest_miss(const GraphTable& table, const Rule& rule);

/// Judges single nodes of a graph: whether one has a place in the pattern, and if not, how near it came to one. The
/// search decides, and the walk only explains. One object serves many nodes, because candidates and indexes are made
/// once. The walk from each node is limited, so `explain` can ask about every node of a graph.
class NodeTrace {
 public:
  /// Both must outlive the object.
  NodeTrace(const GraphTable& table, const Rule& rule);
  ~NodeTrace();
  NodeTrace(const NodeTrace&) = delete;
  NodeTrace& operator=(const NodeTrace&) = delete;

  /// The first assignment in which `node` plays pattern node `role`, regardless of what other occurrences claim; empty
  /// if there is none.
  std::vector<NodeIndex> assignment(std::uint32_t role, NodeIndex node);

  /// For a node without an assignment in that role: the walk from there that got furthest, over a limited number of
  /// neighbours.
  NearestMiss miss(std::uint32_t role, NodeIndex node);

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

/// One sentence for users, with node numbers of the pattern and names of the graph.
std::string describe(const GraphTable& table, const Rule& rule, const NearestMiss& miss);

/// The identifier of a reason, for tools ("input_count"). Unlike the sentence it does not change between versions.
const char* reason_name(Reason reason);

}  // namespace onnxgraft::core
