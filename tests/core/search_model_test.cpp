// The search against the model of model_matcher.h: all small patterns on all small graphs. What these leave out
// (initializers, rests, bodies, two writers, several rounds) is compared with a slow model by the package's tests.
#include <gtest/gtest.h>

#include <deque>

#include "core/errors.h"
#include "core/nearest_miss.h"
#include "model_matcher.h"

namespace onnxgraft::core {
namespace {

/// Graphs of unary A and binary B nodes over one input; every second one has an output in the middle.
std::deque<GraphTable> small_graphs(std::size_t node_count) {
  std::vector<std::string> texts{""};
  for (std::size_t node = 0; node < node_count; ++node) {
    std::vector<std::string> longer;
    for (const std::string& text : texts) {
      for (std::size_t a = 0; a <= node; ++a) {
        const std::string output = " -> t" + std::to_string(node + 1) + "\n";
        longer.push_back(text + "A t" + std::to_string(a) + output);
        for (std::size_t b = 0; b <= node; ++b) {
          longer.push_back(text + "B t" + std::to_string(a) + ",t" + std::to_string(b) + output);
        }
      }
    }
    texts = std::move(longer);
  }
  std::deque<GraphTable> graphs;
  for (const std::string& text : texts) {
    graphs.push_back(make_graph(text + (graphs.size() % 2 == 0 ? "" : "output t" + std::to_string(node_count / 2))));
  }
  return graphs;
}

/// Patterns of `roles` nodes with `max_inputs` inputs in all; node k writes id k, other ids come from outside.
std::vector<Texts> small_patterns(std::size_t roles, std::size_t max_inputs) {
  struct Unfinished {
    Texts strings;
    std::size_t inputs;
    std::size_t next_id;
  };
  std::vector<Unfinished> open{{{}, 0, roles}};
  for (std::size_t role = 0; role < roles; ++role) {
    std::vector<Unfinished> longer;
    for (const Unfinished& start : open) {
      for (std::size_t a = 0; a <= start.next_id; ++a) {
        const std::size_t next = std::max(start.next_id, a + 1);
        const auto add = [&](const std::string& text, std::size_t inputs, std::size_t next_id) {
          if (start.inputs + inputs + (roles - role - 1) > max_inputs) return;
          longer.push_back({start.strings, start.inputs + inputs, next_id});
          longer.back().strings.push_back(text + "->" + std::to_string(role));
        };
        add("A:" + std::to_string(a), 1, next);
        for (std::size_t b = 0; b <= next; ++b) {
          add("B:" + std::to_string(a) + "," + std::to_string(b), 2, std::max(next, b + 1));
        }
      }
    }
    open = std::move(longer);
  }
  std::vector<Texts> patterns;
  for (Unfinished& done : open) patterns.push_back(std::move(done.strings));
  return patterns;
}

/// Replacements that keep each node, drop it, or let a new node write its output from all outside inputs.
std::vector<Rule> small_rules(const Texts& pattern) {
  const Rule plain = compile_rule(pattern, {});
  std::string outside;
  for (const Link& link : plain.links) {
    if (link.writer == no_node) outside += (outside.empty() ? "" : ",") + link.id;
  }
  std::vector<Texts> replacements{{}};
  for (std::size_t role = 0; role < pattern.size(); ++role) {
    const std::size_t count = replacements.size();
    for (std::size_t at = 0; at < count; ++at) {
      for (const std::string& entry : {"#" + std::to_string(role), "N:" + outside + "->" + std::to_string(role)}) {
        replacements.push_back(replacements[at]);
        replacements.back().push_back(entry);
      }
    }
  }
  std::vector<Rule> rules;
  for (const Texts& replacement : replacements) {
    try {
      rules.push_back(compile_rule(pattern, replacement));
    } catch (const NotationError&) {
      continue;  // keeps a node without what it reads
    }
  }
  return rules;
}

std::string case_text(const GraphTable& table, const Rule& rule) {
  std::string text;
  for (NodeIndex node = 0; node < table.original_count(); ++node) text += node_line(table, node) + "\n";
  const auto add = [&](const std::string& head, const std::vector<LinkUse>& inputs, LinkId output) {
    text += head;
    for (const LinkUse& use : inputs) text += rule.links[use.link].id + (use.initializer ? "i," : ",");
    text += "->" + rule.links[output].id + "\n";
  };
  for (const PatternNode& node : rule.nodes) add(node.op + (node.rest ? ":~i," : ":"), node.inputs, node.output);
  for (const ReplacementEntry& entry : rule.entries) {
    const std::string source = "#" + std::to_string(entry.source);
    add("  " + (entry.kind == EntryKind::create ? entry.op : source) + ":", entry.inputs, entry.output);
  }
  return text;
}

void compare(const GraphTable& table, const Rule& rule, std::size_t& found) {
  const auto expected = ModelMatcher(table, rule).choose();
  ASSERT_EQ(assignments(search(table, rule)), expected) << case_text(table, rule);
  ASSERT_EQ(find_nearest_miss(table, rule).has_value(), expected.empty()) << case_text(table, rule);
  found += expected.size();
}

TEST(SearchModel, AllSmallPatternsOnAllSmallGraphs) {
  struct Size {
    std::size_t roles, inputs, nodes, stride;  // every stride-th pair of rule and graph is tried
  };
  for (const Size& size : {Size{1, 2, 3, 1}, Size{2, 4, 2, 1}, Size{2, 3, 3, 1}, Size{2, 4, 3, 7}, Size{2, 4, 4, 311},
                           Size{3, 4, 3, 67}, Size{3, 4, 4, 1709}}) {
    const std::deque<GraphTable> graphs = small_graphs(size.nodes);
    std::size_t found = 0;
    std::size_t pairs = 0;
    std::size_t at = 0;
    for (const Texts& pattern : small_patterns(size.roles, size.inputs)) {
      for (const Rule& rule : small_rules(pattern)) {
        for (; at < graphs.size(); at += size.stride, ++pairs) {
          ASSERT_NO_FATAL_FAILURE(compare(graphs[at], rule, found));
        }
        at -= graphs.size();
      }
    }
    EXPECT_GT(found, pairs / 200) << "hardly anything matched: the cases prove little";
  }
}

}  // namespace
}  // namespace onnxgraft::core
