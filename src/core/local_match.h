// What a graph node has to look like by itself to play a pattern node, and why it does not.
#pragma once

#include "core/graph_table.h"
#include "core/rule.h"

namespace onnxgraft::core {

/// Why a node is not part of an occurrence.
enum class Reason : std::uint8_t {
  none,
  missing_operator,  // the graph has no node of the operator
  wrong_operator,
  output_count,     // a pattern node has exactly one output
  second_producer,  // an earlier node writes the same tensor
  input_count,
  input_omitted,  // an empty name where the pattern wants a tensor
  not_initializer,
  rest_not_initializer,  // an input that "~i" covers is computed
  different_tensors,     // two places of one id hold different tensors
  other_position,        // the node reads the tensor, but at another input
  graph_output,          // an exclusive tensor is an output of the graph
  read_by_body,          // an exclusive tensor is read by a nested body
  read_elsewhere,        // an exclusive tensor has a reader outside the occurrence
  too_few_readers,       // fewer nodes read the tensor than the pattern has readers
  same_tensor,           // two ids stand for one tensor that a removed node writes
  node_used_twice,
  no_producer,  // the tensor is a graph input or an initializer
  no_reader,
  closes_cycle,
  claimed,  // an earlier occurrence has the node
  refused,  // the callback said no
};

struct LocalResult {
  Reason reason = Reason::none;
  std::uint32_t slot = 0;   // input position, where there is one
  NameId tensor = no_name;  // tensor concerned, where there is one
};

/// Tests everything about `node` in the role `role` that needs no other node's binding.
LocalResult match_locally(const GraphTable& table, const Rule& rule, const PatternNode& role, NodeIndex node);

}  // namespace onnxgraft::core
