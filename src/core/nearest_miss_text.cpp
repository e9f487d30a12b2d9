// The sentences of nearest_miss.h, as a table from reason to name and sentence.
//
// Sentences go to users (`debug`, `explain`) and may change. Names go to tools and may not. A reason without a row
// would read as "it matches", so a new reason needs one. The command line words its own sentences with names of nodes
// instead of numbers. It takes the same data, not these texts.
#include <array>
#include <string>

#include "core/nearest_miss.h"

namespace onnxgraft::core {

namespace {

struct ReasonText {
  Reason reason;
  const char* name;
  const char* sentence;  // {node}: the node tried, {tensor}, {slot}, {op} or {an op}: the expected operator, {reader}
};

constexpr std::array reason_texts{
    ReasonText{Reason::none, "none", "it matches"},
    ReasonText{Reason::missing_operator, "missing_operator", "the graph has no {op} node"},
    ReasonText{Reason::wrong_operator, "wrong_operator", "{node} is not {an op}"},
    ReasonText{Reason::output_count, "output_count", "{node} does not have exactly one output"},
    ReasonText{Reason::second_producer, "second_producer", "an earlier node also writes {tensor}"},
    ReasonText{Reason::input_count, "input_count", "the number of inputs of {node} differs from the pattern"},
    ReasonText{Reason::input_omitted, "input_omitted", "input {slot} of {node} is omitted"},
    ReasonText{Reason::not_initializer, "not_initializer",
               "input {slot} of {node}, {tensor}, is not an initializer of the graph"},
    ReasonText{Reason::rest_not_initializer, "rest_not_initializer",
               "input {slot} of {node}, {tensor}, is computed: all inputs from this one on must be initializers"},
    ReasonText{Reason::different_tensors, "different_tensors",
               "{node} has a tensor other than {tensor} at input {slot}"},
    ReasonText{Reason::other_position, "other_position", "{node} reads {tensor}, but not at input {slot}"},
    ReasonText{Reason::graph_output, "graph_output", "{tensor} is an output of the graph"},
    ReasonText{Reason::read_by_body, "read_by_body", "{tensor} is read inside a nested graph"},
    ReasonText{Reason::read_elsewhere, "read_elsewhere", "{tensor} is also read by {reader}"},
    ReasonText{Reason::too_few_readers, "too_few_readers", "too few nodes read {tensor}"},
    ReasonText{Reason::same_tensor, "same_tensor",
               "two ids of the pattern would both be {tensor}, and the replacement removes the node that writes it"},
    ReasonText{Reason::node_used_twice, "node_used_twice", "{node} already matches another node of the pattern"},
    ReasonText{Reason::no_producer, "no_producer", "no node writes {tensor}"},
    ReasonText{Reason::no_reader, "no_reader", "no node reads {tensor}"},
    ReasonText{Reason::closes_cycle, "closes_cycle", "the replacement would close a cycle"},
    ReasonText{Reason::claimed, "claimed", "an earlier occurrence uses {node}"},
    ReasonText{Reason::refused, "refused", "the transformation refused it"},
};

/// A search by value, so that the table need not follow the order of the enumeration.
const ReasonText& text_of(Reason reason) {
  for (const ReasonText& text : reason_texts) {
    if (text.reason == reason) return text;
  }
  return reason_texts.front();
}

std::string quoted(std::string_view text) { return "'" + std::string(text) + "'"; }

/// Number and output: many exporters leave nodes without a name, and the output is always there.
std::string node_text(const GraphTable& table, NodeIndex node) {
  if (node == no_index) return "a node";
  std::string text = std::string(table.ops.text(table.op(node))) + " node " + std::to_string(node);
  const auto outputs = table.outputs(node);
  if (!outputs.empty()) text += " (writes " + quoted(table.names.text(outputs[0])) + ")";
  return text;
}

std::string with_article(const std::string& op) {
  const bool vowel = std::string_view("AEIOU").find(op.front()) != std::string_view::npos;
  return (vowel ? "an " : "a ") + op;
}

/// Continues after the text that it put in: a tensor name that contains the placeholder must not make it loop forever.
void replace_all(std::string& text, std::string_view from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

}  // namespace

const char* reason_name(Reason reason) { return text_of(reason).name; }

std::string describe(const GraphTable& table, const Rule& rule, const NearestMiss& miss) {
  const std::string& op = rule.nodes[miss.role].op;
  std::string sentence = text_of(miss.reason).sentence;
  replace_all(sentence, "{node}", node_text(table, miss.candidate));
  replace_all(sentence, "{tensor}", quoted(table.names.text(miss.tensor)));
  replace_all(sentence, "{slot}", std::to_string(miss.slot));
  replace_all(sentence, "{op}", op);
  replace_all(sentence, "{an op}", with_article(op));
  replace_all(sentence, "{reader}", node_text(table, miss.reader));
  if (miss.reason == Reason::missing_operator) return sentence;
  std::string text =
      std::to_string(miss.matched) + " of " + std::to_string(rule.nodes.size()) + " pattern nodes matched";
  if (miss.last != no_index) text += ", the last one " + node_text(table, miss.last);
  return text + "; pattern node " + std::to_string(miss.role) + " (" + op + "): " + sentence;
}

}  // namespace onnxgraft::core
