// Random graphs and rules, the same for the same seed in every run. A rule's pattern is read off some nodes
// of its graph, so that most rules match somewhere, and then blurred.
#pragma once

#include <algorithm>
#include <optional>
#include <random>
#include <string>

#include "core/errors.h"
#include "graph_text.h"

namespace onnxgraft::core {

class RandomCase {
 public:
  explicit RandomCase(std::uint32_t seed) : engine_(seed) {}

  // Not the distributions of <random>: these differ between standard libraries.
  std::size_t below(std::size_t end) { return engine_() % end; }
  bool chance(double probability) { return static_cast<double>(below(1000)) < probability * 1000; }

  /// Acyclic, 2 to 12 nodes; A takes one input, B two, C two to four (some initializers or omitted), I bodies.
  std::string graph() {
    const std::size_t count = 2 + below(11);
    const std::size_t reach = 2 + below(6);
    std::vector<std::string> lines;
    Texts tensors{"x", "y"};
    const auto tensor = [&] { return tensors[tensors.size() - 1 - below(std::min(reach, tensors.size()))]; };
    for (std::size_t node = 0; node < count; ++node) {
      std::string line = std::string(1, "AAABBCI"[below(7)]) + " " + tensor();
      if (line[0] == 'B') line += "," + (chance(0.2) ? "w" : tensor());
      for (std::size_t rest = line[0] == 'C' ? 1 + below(3) : 0; rest > 0; --rest) {
        line += "," + Texts{"w", "w", "v", "", tensor()}[below(5)];
      }
      const std::string output = "t" + std::to_string(node);
      line += " -> " + output + (chance(0.04) ? ",extra" + output : "");
      if (line[0] == 'I' && chance(0.7)) line += " reads " + tensor();
      lines.push_back(line);
      if (chance(0.05)) lines.push_back("A x -> " + output);  // a second writer
      tensors.push_back(output);
      if (chance(0.08)) lines.push_back("output " + tensor());
    }
    if (chance(0.2)) std::swap(lines[below(lines.size())], lines[below(lines.size())]);
    std::string text = "init w,v\n";
    for (const std::string& line : lines) text += line + "\n";
    return text;
  }

  std::optional<Rule> rule(const GraphTable& table) {
    const Texts pattern = blurred_pattern(table);
    try {
      return compile_rule(pattern, replacement(compile_rule(pattern, {})));
    } catch (const NotationError&) {
      return std::nullopt;  // two writers, a kept node without what it reads, a cycle
    }
  }

 private:
  Texts blurred_pattern(const GraphTable& table) {
    std::vector<NodeIndex> nodes;
    for (std::size_t roles = 1 + below(4); roles > 0; --roles) {
      auto node = static_cast<NodeIndex>(below(table.original_count()));
      if (!nodes.empty() && chance(0.8)) node = neighbour(table, nodes[below(nodes.size())]);
      if (std::ranges::find(nodes, node) == nodes.end()) nodes.push_back(node);
    }
    std::size_t fresh = 500;
    Texts pattern;
    for (const NodeIndex node : nodes) {
      std::string text = std::string(table.ops.text(table.op(node))) + ":";
      const auto inputs = table.inputs(node);
      for (std::size_t slot = 0; slot < inputs.size(); ++slot) {
        if (slot != 0) text += ',';
        if (slot != 0 && text[0] == 'C' && chance(0.3)) {
          text += "~i";
          break;
        }
        text += std::to_string(chance(0.25) || inputs[slot] == no_name ? fresh++ : inputs[slot]);
        if (table.is_initializer(inputs[slot]) && chance(0.5)) text += 'i';
      }
      pattern.push_back(text + "->" + std::to_string(table.outputs(node)[0]));
    }
    return pattern;
  }

  NodeIndex neighbour(const GraphTable& table, NodeIndex node) {
    const auto inputs = table.inputs(node);
    const NodeIndex producer = inputs.empty() ? no_index : table.producer(inputs[below(inputs.size())]);
    if (producer != no_index && chance(0.5)) return producer;
    const auto readers = table.readers(chance(0.3) && !inputs.empty() ? inputs[0] : table.outputs(node)[0]);
    return readers.empty() ? node : readers[below(readers.size())];
  }

  Texts replacement(const Rule& plain) {
    Texts provided;
    for (const Link& link : plain.links) {
      if (link.writer == no_node) provided.push_back(link.id);
    }
    if (provided.empty()) provided.emplace_back("900i");
    Texts entries;
    const double keeps = static_cast<double>(below(10)) / 10;
    for (std::size_t role = 0; role < plain.nodes.size(); ++role) {
      const std::string output = plain.links[plain.nodes[role].output].id;
      const std::string number = "#" + std::to_string(role);
      if (chance(keeps)) {
        entries.push_back(number);
        if (chance(0.3)) entries.push_back(number + ":" + provided[below(provided.size())] + "->7" + output + "7");
      } else if (chance(0.8)) {
        const std::string head = chance(0.6) ? number : "N";
        entries.push_back(head + ":" + provided[below(provided.size())] + "," + provided[below(provided.size())] +
                          "->" + output);
      } else {
        continue;
      }
      provided.push_back(output);
    }
    return entries;
  }

  std::mt19937 engine_;
};

}  // namespace onnxgraft::core
