// The conditions on a single node, cheapest first.
//
// The order of the checks decides which reason a user reads when several fail: operator, inputs, outputs, uses. The
// number of readers is compared here, long before the search knows who they are: a tensor with too many or too few of
// them rules the node out at once.
#include "core/local_match.h"

namespace onnxgraft::core {

namespace {

LocalResult check_inputs(const GraphTable& table, const Rule& rule, const PatternNode& role, NodeIndex node) {
  const auto inputs = table.inputs(node);
  const std::size_t named = role.inputs.size();
  if (role.rest ? inputs.size() < named : inputs.size() != named) return {Reason::input_count};
  for (std::uint32_t slot = 0; slot < inputs.size(); ++slot) {
    const NameId name = inputs[slot];
    if (slot >= named) {  // covered by "~i"
      if (name != no_name && !table.is_initializer(name)) return {Reason::rest_not_initializer, slot, name};
      continue;
    }
    if (name == no_name) return {Reason::input_omitted, slot};
    const LinkUse& use = role.inputs[slot];
    if (rule.links[use.link].initializer && !table.is_initializer(name)) {
      return {Reason::not_initializer, slot, name};
    }
    // One id at two inputs ("Mul:1,1->2") is one tensor.
    for (std::uint32_t earlier = 0; earlier < slot; ++earlier) {
      if (role.inputs[earlier].link == use.link && inputs[earlier] != name) {
        return {Reason::different_tensors, slot, name};
      }
    }
  }
  return {};
}

LocalResult check_output(const GraphTable& table, const Rule& rule, const PatternNode& role, NodeIndex node) {
  const auto outputs = table.outputs(node);
  if (outputs.size() != 1) return {Reason::output_count};
  const NameId name = outputs[0];
  // Of several writers of a name the first counts. The others do not match, since readers do not read what they write.
  if (table.producer(name) != node) return {Reason::second_producer, 0, name};
  const Link& link = rule.links[role.output];
  if (role.exclusive) {  // no use outside the occurrence is allowed: it would dangle or change its meaning
    if (table.is_graph_output(name)) return {Reason::graph_output, 0, name};
    if (table.is_read_by_body(name)) return {Reason::read_by_body, 0, name};
    const std::size_t readers = table.readers(name).size();
    if (readers > link.reader_nodes) return {Reason::read_elsewhere, 0, name};
  }
  if (table.readers(name).size() < link.reader_nodes) return {Reason::too_few_readers, 0, name};
  return {};
}

}  // namespace

LocalResult match_locally(const GraphTable& table, const Rule& rule, const PatternNode& role, NodeIndex node) {
  if (table.ops.text(table.op(node)) != role.op) return {Reason::wrong_operator};
  const LocalResult result = check_inputs(table, rule, role, node);
  return result.reason == Reason::none ? check_output(table, rule, role, node) : result;
}

}  // namespace onnxgraft::core
