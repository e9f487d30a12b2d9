// Graphs, rules and occurrences in a few lines of text, for the tests of the core and the fuzzer.
//
//   Relu a -> b              a node; lists with commas, an omitted name is empty ("a,,c")
//   act: Relu a -> b         a node with a name
//   If c -> d reads e,f      a node whose nested bodies read e and f
//   init w,v                 initializers
//   output y                 outputs of the graph
// A line ends at a line break or at ';'. Nothing is checked: a test that writes a wrong line gets a wrong graph.
#pragma once

#include <algorithm>
#include <array>
#include <iterator>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include "core/candidates.h"
#include "core/graph_table.h"
#include "core/rule.h"
#include "core/search.h"

namespace onnxgraft::core {

using Texts = std::vector<std::string>;
using Assignment = std::vector<NodeIndex>;

/// A list with commas. "a,,c" has three names; the second is empty, which means omitted.
inline std::vector<NameId> intern_list(Names& names, const std::string& text) {
  std::vector<NameId> ids;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    ids.push_back(names.intern(text.substr(begin, end - begin)));
    begin = end + 1;
  }
  return ids;
}

inline void add_line(GraphTable& table, const std::string& line) {
  std::istringstream words(line);
  std::string word;
  if (!(words >> word)) return;
  if (word == "init" || word == "output") {
    std::string list;
    words >> list;
    for (const NameId name : intern_list(table.names, list)) {
      word == "init" ? table.add_initializer(name) : table.add_graph_output(name);
    }
    return;
  }
  NameId node_name = no_name;
  if (word.back() == ':') {
    node_name = table.names.intern(word.substr(0, word.size() - 1));
    words >> word;
  }
  const NameId op = table.ops.intern(word);
  std::array<std::vector<NameId>, 3> lists;  // inputs, outputs, names read by bodies
  std::size_t list = 0;
  while (words >> word) {
    if (word == "->" || word == "reads") {
      list = word == "->" ? 1 : 2;
    } else {
      lists[list] = intern_list(table.names, word);
    }
  }
  table.add_node(op, lists[0], lists[1], lists[2]);
  table.node_names.push_back(node_name);
}

inline GraphTable make_graph(std::string text) {
  for (char& c : text) c = c == ';' ? '\n' : c;
  GraphTable table;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) add_line(table, line);
  table.seal();
  return table;
}

/// The node as a line of the language above, to compare a whole list as text.
inline std::string node_line(const GraphTable& table, NodeIndex node) {
  const auto list = [&](std::span<const NameId> names) {
    std::string text;
    for (const NameId name : names) text += (text.empty() ? "" : ",") + std::string(table.names.text(name));
    return text;
  };
  const std::string name(table.names.text(table.node_names[node]));
  const std::string read = list(table.implicit_inputs(node));
  return (name.empty() ? "" : name + ": ") + std::string(table.ops.text(table.op(node))) + " " +
         list(table.inputs(node)) + " -> " + list(table.outputs(node)) + (read.empty() ? "" : " reads " + read);
}

/// A pattern or replacement list, written with blanks between its strings.
inline Texts words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

inline Rule make_rule(const std::string& pattern, const std::string& replacement) {
  return compile_rule(words(pattern), words(replacement));
}

/// The pattern itself as a graph: tensor 7 is "t7", and what the pattern requires as an initializer is one. The pattern
/// must match there unless its own conditions exclude that.
inline GraphTable graph_of(const Rule& rule) {
  GraphTable table;
  const auto name = [&](LinkId link) { return table.names.intern("t" + rule.links[link].id); };
  for (const PatternNode& node : rule.nodes) {
    std::vector<NameId> inputs(node.inputs.size());
    std::ranges::transform(node.inputs, inputs.begin(), [&](const LinkUse& use) { return name(use.link); });
    const std::vector<NameId> outputs{name(node.output)};
    table.add_node(table.ops.intern(node.op), inputs, outputs);
    table.node_names.push_back(no_name);
  }
  for (LinkId link = 0; link < rule.links.size(); ++link) {
    if (rule.links[link].initializer) table.add_initializer(name(link));
  }
  table.seal();
  return table;
}

inline std::vector<NodeIndex> all_nodes(const GraphTable& table) {
  std::vector<NodeIndex> nodes(table.original_count());
  std::iota(nodes.begin(), nodes.end(), NodeIndex{0});
  return nodes;
}

/// One round, with what earlier rounds claimed and refused.
inline OccurrenceList search(const GraphTable& table, const Rule& rule, Claims& claims, RefusedSet& refused) {
  Candidates candidates(table, rule);
  return Search(table, rule, candidates, claims, refused).run();
}

inline OccurrenceList search(const GraphTable& table, const Rule& rule) {
  Claims claims(table.original_count());
  RefusedSet refused;
  return search(table, rule, claims, refused);
}

inline std::vector<Assignment> assignments(const OccurrenceList& found) {
  std::vector<Assignment> result;
  result.reserve(found.size());
  for (std::size_t index = 0; index < found.size(); ++index) {
    result.emplace_back(found.nodes(index).begin(), found.nodes(index).end());
  }
  return result;
}

}  // namespace onnxgraft::core
