// Why a rule matched nothing: the attempt that got furthest, and where it ended.
//
// A separate, slower walk than the search: it goes the same ways over the tensors, but judges nodes one by one
// so that it can say what was wrong with the last of them. Run only when somebody asks.
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
  std::uint32_t matched = 0;       // pattern nodes that fitted
  NodeIndex last = no_index;       // the node matched last, `no_index` if not even node 0 found one
  std::uint32_t role = 0;          // pattern node that could not be matched
  NodeIndex candidate = no_index;  // the node that was tried for it, if there was one
  Reason reason = Reason::none;
  std::uint32_t slot = 0;       // input position, where the reason has one
  NameId tensor = no_name;      // tensor, where the reason has one
  NodeIndex reader = no_index;  // for read_elsewhere: a node that reads the tensor as well
};

/// The furthest attempt, the first in node order among equals. Empty if some assignment fits the pattern.
std::optional<NearestMiss> find_nearest_miss(const GraphTable& table, const Rule& rule);

/// Judges single nodes of a graph: whether one has a place in the pattern, else how near it came to it. The search
/// itself decides; the walk only tells why. One object serves many nodes, each at a bounded cost beyond the search's.
class NodeTrace {
 public:
  /// Both must outlive the object.
  NodeTrace(const GraphTable& table, const Rule& rule);
  ~NodeTrace();
  NodeTrace(const NodeTrace&) = delete;
  NodeTrace& operator=(const NodeTrace&) = delete;

  /// The first assignment in which `node` plays pattern node `role`, whatever other occurrences claim; empty if there
  /// is none.
  std::vector<NodeIndex> assignment(std::uint32_t role, NodeIndex node);

  /// For a node without an assignment in that role: the walk from there that got furthest. It has seen a limited number
  /// of neighbours only.
  NearestMiss miss(std::uint32_t role, NodeIndex node);

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

/// One sentence, with node numbers of the pattern and names of the graph.
std::string describe(const GraphTable& table, const Rule& rule, const NearestMiss& miss);

/// Stable identifier of a reason, for tools ("input_count").
const char* reason_name(Reason reason);

}  // namespace onnxgraft::core
