// What a graph node must look like by itself to play a pattern node, and the reason if it cannot.
//
// It looks at operator, number of inputs and outputs, initializers and the uses of the node's output. It does not know
// which tensors other pattern nodes are bound to. The candidates keep only the yes or no, and the nearest miss shows
// the reason. Both call this one function, so that an explanation cannot disagree with the search.
#pragma once

#include "core/graph_table.h"
#include "core/rule.h"

namespace onnxgraft::core {

/// Why a node is not part of an occurrence. A new reason needs a row in nearest_miss_text.cpp, and its name there is
/// part of the interface for tools.
enum class Reason : std::uint8_t {
  none,
  missing_operator,  // the graph has no node of the operator
  wrong_operator,
  output_count,     // a pattern node has exactly one output
  second_producer,  // an earlier node writes the same tensor
  input_count,
  input_omitted,  // an empty name where the pattern has a tensor
  not_initializer,
  rest_not_initializer,  // an input that "~i" covers is computed
  different_tensors,     // two places of one id hold different tensors
  other_position,        // the node reads the tensor, but at another input
  graph_output,          // an exclusive tensor is an output of the graph
  read_by_body,          // an exclusive tensor is read by a nested body
  read_elsewhere,        // an exclusive tensor has a reader outside the occurrence
  too_few_readers,       // fewer nodes read the tensor than the pattern has readers
  same_tensor,           // two ids would be one tensor that a removed node writes
  node_used_twice,
  no_producer,  // the tensor is a graph input or an initializer
  no_reader,
  closes_cycle,
  claimed,  // an earlier occurrence uses the node
  refused,  // the callback refused it
};

/// `Reason::none` if the node fits, or the first condition that failed.
struct LocalResult {
  Reason reason = Reason::none;
  std::uint32_t slot = 0;   // input position, if the reason has one
  NameId tensor = no_name;  // tensor, if the reason has one
};

/// Tests everything about `node` in the role `role` that does not depend on other bindings.
LocalResult match_locally(const GraphTable& table, const Rule& rule, const PatternNode& role, NodeIndex node);

}  // namespace onnxgraft::core
