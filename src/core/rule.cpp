// The compiler of a pair: parses every string, numbers the links, and checks the strings against each other.
//
// The checks come in the order in which a user would read the lists, and each names the string and the column. Strings
// are parsed again where a check needs a column: compiled rules are cached, so this costs nothing that a user feels.
// After the checks it derives what the matcher asks for most: exclusive outputs, parts, dependencies.
#include "core/rule.h"

#include <numeric>
#include <string_view>
#include <unordered_map>

#include "core/errors.h"
#include "core/notation.h"
#include "core/rule_dependencies.h"

namespace onnxgraft::core {

namespace {

using List = StringPlace::List;

class Compiler {
 public:
  Rule run(std::span<const std::string> pattern, std::span<const std::string> replacement) {
    if (pattern.empty()) throw NotationError("the pattern is empty: it needs at least one node");
    for (std::size_t index = 0; index < pattern.size(); ++index) {
      add_pattern_node({List::pattern, index, pattern[index]});
    }
    check_pattern_initializers(pattern);
    // Links that come from here on are new ones of the replacement.
    for (Link& link : rule_.links) link.in_pattern = true;
    for (std::size_t index = 0; index < replacement.size(); ++index) {
      add_entry({List::replacement, index, replacement[index]});
    }
    check_replacement_inputs(replacement);
    check_own_cycle(replacement);
    mark_exclusive();
    number_parts();
    find_dependencies(rule_);
    return std::move(rule_);
  }

 private:
  /// Ids are compared as text. Links are numbered at their first use, so the numbers follow the lists.
  LinkId link(std::string_view id) {
    const auto [at, added] = ids_.try_emplace(std::string(id), static_cast<LinkId>(rule_.links.size()));
    if (added) {
      rule_.links.emplace_back();
      rule_.links.back().id = id;
    }
    return at->second;
  }

  void add_pattern_node(const StringPlace& place) {
    const ParsedString parsed = parse_string(place);
    const auto number = static_cast<std::uint32_t>(rule_.nodes.size());
    PatternNode node;
    node.op = parsed.op;
    node.rest = parsed.rest;
    for (const ParsedInput& input : parsed.inputs) {
      const LinkId id = link(input.id);
      Link& read = rule_.links[id];
      // A node that reads the tensor twice counts once, as in the graph's own readers.
      if (read.readers.empty() || read.readers.back().node != number) ++read.reader_nodes;
      read.readers.push_back({number, static_cast<std::uint32_t>(node.inputs.size())});
      read.initializer = read.initializer || input.initializer;
      node.inputs.push_back({id, input.initializer});
    }
    node.output = link(parsed.output);
    Link& written = rule_.links[node.output];
    if (written.writer != no_node) {
      fail_at(place, parsed.output_column,
              "tensor " + written.id + " is already written by string " + std::to_string(written.writer) +
                  ": a tensor has one writer");
    }
    written.writer = number;
    rule_.nodes.push_back(std::move(node));
  }

  /// Only after all pattern strings are read: the writer may come after the string that asks for an initializer.
  void check_pattern_initializers(std::span<const std::string> pattern) const {
    for (std::size_t index = 0; index < pattern.size(); ++index) {
      const StringPlace place{List::pattern, index, pattern[index]};
      for (const ParsedInput& input : parse_string(place).inputs) {
        const Link& read = rule_.links[ids_.at(std::string(input.id))];
        if (input.initializer && read.writer != no_node) fail_initializer_written(place, input, read.writer);
      }
    }
  }

  [[noreturn]] static void fail_initializer_written(const StringPlace& place, const ParsedInput& input,
                                                    std::size_t writer) {
    fail_at(place, input.column,
            "'" + std::string(input.id) + "i' asks for an initializer, but string " + std::to_string(writer) +
                " writes tensor " + std::string(input.id) + ": remove the 'i'");
  }

  void add_entry(const StringPlace& place) {
    const ParsedString parsed = parse_string(place);
    ReplacementEntry entry;
    if (parsed.source) {
      if (*parsed.source >= rule_.nodes.size()) {
        fail_at(place, parsed.source_column,
                "there is no such pattern node: the pattern has nodes 0 to " + std::to_string(rule_.nodes.size() - 1));
      }
      entry.source = static_cast<std::uint32_t>(*parsed.source);
      entry.kind = parsed.bare ? EntryKind::keep : EntryKind::copy;
    }
    if (entry.kind == EntryKind::keep) {
      keep(place, entry);
    } else {
      connect(place, parsed, entry);
    }
    rule_.entries.push_back(std::move(entry));
  }

  /// A bare "#k": the node writes what it wrote, so no other string of the replacement may write that.
  void keep(const StringPlace& place, ReplacementEntry& entry) {
    PatternNode& node = rule_.nodes[entry.source];
    entry.output = node.output;
    claim_output(place, parse_string(place).source_column, entry.output);
    node.kept = true;
  }

  /// A copy or a new node: binds its links, old and new.
  void connect(const StringPlace& place, const ParsedString& parsed, ReplacementEntry& entry) {
    entry.op = parsed.op;
    if (entry.kind == EntryKind::copy) rule_.nodes[entry.source].copied = true;
    for (const ParsedInput& input : parsed.inputs) {
      const LinkId id = link(input.id);
      const Link& read = rule_.links[id];
      if (input.initializer && read.in_pattern && !read.initializer) {
        fail_at(place, input.column,
                "'" + read.id + "i' asks for an initializer, but tensor " + read.id + " is in the pattern without 'i'");
      }
      entry.inputs.push_back({id, input.initializer});
    }
    entry.output = link(parsed.output);
    const Link& written = rule_.links[entry.output];
    if (written.in_pattern && written.writer == no_node) {
      fail_at(place, parsed.output_column,
              "tensor " + written.id + " comes from outside the pattern: a replacement cannot write it");
    }
    claim_output(place, parsed.output_column, entry.output);
    rule_.links[entry.output].rewritten = true;
  }

  /// Notes that replacement string `place` writes `output`; an error if another one does.
  void claim_output(const StringPlace& place, std::size_t column, LinkId output) {
    if (output >= written_by_.size()) written_by_.resize(rule_.links.size(), nothing);
    if (written_by_[output] != nothing) {
      fail_at(place, column,
              "tensor " + rule_.links[output].id + " is already written by replacement string " +
                  std::to_string(written_by_[output]) + ": a tensor has one writer");
    }
    written_by_[output] = place.index;
  }

  /// Every input of the replacement must have a source. Only after all its strings are read, since a string may use
  /// what a later one writes, and "9i" at one place makes 9 an initializer at all places.
  void check_replacement_inputs(std::span<const std::string> replacement) {
    written_by_.resize(rule_.links.size(), nothing);
    std::vector<bool> new_initializer(rule_.links.size(), false);
    for (const ReplacementEntry& entry : rule_.entries) {
      for (const LinkUse& use : entry.inputs) {
        if (use.initializer && !rule_.links[use.link].in_pattern) new_initializer[use.link] = true;
      }
    }
    for (std::size_t index = 0; index < rule_.entries.size(); ++index) {
      const StringPlace place{List::replacement, index, replacement[index]};
      const ReplacementEntry& entry = rule_.entries[index];
      if (entry.kind == EntryKind::keep) {
        // A kept node reads what it read, so a node that wrote its input must stay or be replaced by another writer.
        for (const LinkUse& use : rule_.nodes[entry.source].inputs) check_provided(place, 0, use.link, false);
        continue;
      }
      const ParsedString parsed = parse_string(place);
      for (std::size_t slot = 0; slot < entry.inputs.size(); ++slot) {
        const LinkUse& use = entry.inputs[slot];
        if (use.initializer && written_by_[use.link] != nothing) {
          fail_initializer_written(place, parsed.inputs[slot], written_by_[use.link]);
        }
        check_provided(place, parsed.inputs[slot].column, use.link, new_initializer[use.link]);
      }
    }
  }

  void check_provided(const StringPlace& place, std::size_t column, LinkId id, bool new_initializer) const {
    const Link& read = rule_.links[id];
    const bool outside = read.in_pattern && read.writer == no_node;
    if (outside || new_initializer || written_by_[id] != nothing) return;
    fail_at(place, column,
            "nothing provides tensor " + read.id +
                ": an input of a replacement must be an outside input of the pattern, an initializer (\"" + read.id +
                "i\"), or the output of a node that the replacement keeps, copies or adds");
  }

  void check_own_cycle(std::span<const std::string> replacement) const {
    const std::size_t index = find_own_cycle(rule_);
    if (index == rule_.entries.size()) return;
    fail_at({List::replacement, index, replacement[index]}, 0,
            "tensor " + rule_.links[rule_.entries[index].output].id +
                " would depend on itself: the nodes of a replacement must not form a cycle");
  }

  /// Which outputs may have no use outside the occurrence: see `PatternNode::exclusive`.
  void mark_exclusive() {
    for (PatternNode& node : rule_.nodes) {
      const Link& output = rule_.links[node.output];
      rule_.removes = rule_.removes || node.removed();
      // An output of the whole pattern that is written again (no reader within) keeps its meaning and its users.
      const bool vanishes = written_by_[node.output] == nothing;
      node.exclusive = vanishes || (node.removed() && output.rewritten && !output.readers.empty());
    }
  }

  /// Parts by union-find over the links; numbered by their first node, so that node 0 is in part 0. A refused
  /// assignment is identified by its nodes in part 0.
  void number_parts() {
    std::vector<std::uint32_t> parent(rule_.nodes.size());
    std::iota(parent.begin(), parent.end(), 0U);
    const auto find = [&](std::uint32_t node) {
      while (parent[node] != node) node = parent[node] = parent[parent[node]];
      return node;
    };
    for (const Link& link : rule_.links) {
      std::uint32_t first = link.writer;
      for (const LinkReader& reader : link.readers) {
        if (first == no_node) first = reader.node;
        parent[find(reader.node)] = find(first);
      }
    }
    std::vector<std::uint32_t> number(rule_.nodes.size(), no_node);
    for (std::uint32_t node = 0; node < rule_.nodes.size(); ++node) {
      std::uint32_t& part = number[find(node)];
      if (part == no_node) part = rule_.part_count++;
      rule_.nodes[node].part = part;
    }
  }

  static constexpr std::size_t nothing = static_cast<std::size_t>(-1);
  Rule rule_;
  std::unordered_map<std::string, LinkId> ids_;
  std::vector<std::size_t> written_by_;  // by link: index of the replacement string that writes it
};

}  // namespace

Rule compile_rule(std::span<const std::string> pattern, std::span<const std::string> replacement) {
  return Compiler().run(pattern, replacement);
}

}  // namespace onnxgraft::core
