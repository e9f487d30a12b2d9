// A (pattern, replacement) pair, checked and compiled: everything about a rewrite that its lists alone decide.
//
// Ids of both lists become dense `LinkId`s. A pattern node is *kept* if the replacement names it bare ("#2") and
// *copied* if it names it with links ("#1:5->4"); both may be true. One that is not kept is *removed*. A rule is
// immutable, knows no graph and may be cached and shared between passes. Once it is compiled, nothing about its lists
// can fail later.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace onnxgraft::core {

using LinkId = std::uint32_t;
inline constexpr std::uint32_t no_node = static_cast<std::uint32_t>(-1);

/// One input of a string.
struct LinkUse {
  LinkId link;
  bool initializer;  // written with "i"
};

struct PatternNode {
  std::string op;
  std::vector<LinkUse> inputs;
  bool rest = false;  // further inputs allowed: initializers or omitted ones
  LinkId output = 0;
  bool kept = false;
  bool copied = false;
  /// No use outside the occurrence is allowed for the output. It vanishes, or it is an inner tensor that a removed node
  /// wrote and the replacement writes again, so that its meaning changes.
  bool exclusive = false;
  std::uint32_t part = 0;  // nodes that share no tensor, even through others, are in different parts

  [[nodiscard]] bool removed() const { return !kept; }
};

/// What a replacement string does: "#2", "#2:1->3" or "Relu:1->3".
enum class EntryKind { keep, copy, create };

/// One string of the replacement. The order of entries is the order of new nodes in the list.
struct ReplacementEntry {
  EntryKind kind = EntryKind::create;
  std::uint32_t source = no_node;  // pattern node of a kept or copied entry
  std::string op;                  // operator of a created entry
  std::vector<LinkUse> inputs;     // of a copy or a new node
  LinkId output = 0;
};

/// A reader of a link in the pattern.
struct LinkReader {
  std::uint32_t node;
  std::uint32_t slot;
};

/// A tensor of the lists, with everything that either of them says about it.
struct Link {
  std::string id;                   // as written
  std::uint32_t writer = no_node;   // pattern node that writes it
  std::vector<LinkReader> readers;  // pattern nodes that read it
  std::uint32_t reader_nodes = 0;   // number of different nodes among the readers, to compare with the graph's
  bool in_pattern = false;
  bool initializer = false;  // the pattern wants an initializer
  bool rewritten = false;    // a copy or a new node of the replacement writes it
};

struct Rule {
  std::vector<PatternNode> nodes;
  std::vector<ReplacementEntry> entries;
  std::vector<Link> links;
  std::uint32_t part_count = 0;
  bool removes = false;  // some pattern node does not stay
  /// An old tensor that depends, after the replacement, on another tensor of the pattern.
  struct Dependency {
    LinkId output;
    LinkId input;
  };
  /// All of them, except on initializers. The cycle check walks over them instead of the occurrence's nodes.
  std::vector<Dependency> dependencies;
  /// Those on outside inputs that did not hold before. Only with one of these can a replacement close a cycle.
  /// Most rules have none, and then no graph is walked.
  std::vector<Dependency> new_dependencies;
  /// An old tensor that depends, after the replacement, on what nested bodies of a pattern node's match read.
  struct BodyDependency {
    LinkId output;
    std::uint32_t node;
  };
  std::vector<BodyDependency> body_dependencies;
  std::vector<BodyDependency> new_body_dependencies;
};

/// Compiles a pair of lists; throws NotationError. Nothing is touched before that, so a bad pair leaves a graph as it
/// is.
Rule compile_rule(std::span<const std::string> pattern, std::span<const std::string> replacement);

}  // namespace onnxgraft::core
