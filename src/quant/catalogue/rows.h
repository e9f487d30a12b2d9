// Building blocks of the catalogue's rows: doc strings, parameter lists and the methods that classes share.
//
// A row is a constant that lives as long as the process. Must not know single transformations.
#pragma once

#include <algorithm>
#include <array>
#include <memory>
#include <span>

#include "py/class_factory.h"
#include "quant/graph_view/graph_view.h"
#include "quant/passes.h"

namespace onnxgraft::quant::rows {

using py::Call;
using py::Changes;
using py::ClassRow;
using py::Default;
using py::FunctionRow;
using py::Parameter;
using py::PatternList;

/// A text as a template argument.
template <std::size_t size>
struct Text {
  // NOLINTNEXTLINE(modernize-avoid-c-arrays): only an array parameter takes a literal
  explicit(false) constexpr Text(const char (&literal)[size]) { std::copy_n(literal, size, characters.begin()); }
  std::array<char, size> characters{};
};

/// Length of an argument without its terminating zero, and concatenation: for `doc` alone.
template <std::size_t... sizes>
constexpr auto joined(const Text<sizes>&... parts) {
  std::array<char, (sizes + ...) - sizeof...(sizes) + 1> all{};
  auto at = all.begin();
  ((at = std::copy_n(parts.characters.begin(), sizes - 1, at)), ...);
  return all;
}

template <Text subject>
inline constexpr auto block_doc = joined(Text("\n        Transformation prepared for "), subject, Text("\n    "));

/// Doc string of a class: a block with the indentation of a class body.
template <Text subject>
inline constexpr const char* doc = block_doc<subject>.data();

/// `get_simple_name(self)`: the name by which a host selects the class.
template <Text name>
py::Ref simple_name(const py::Call& /*call*/) {
  static const py::InternedName interned(name.characters.data());
  return py::Ref::borrow(interned.get());
}

using Body = py::Ref (*)(const py::Call&);

inline constexpr const char* graph_annotation = "GraphProto";
inline constexpr const char* pairs_annotation = "List[Tuple[List[str], List[str]]]";

inline constexpr std::array self_alone{Parameter{"self"}};
inline constexpr std::array apply_parameters{
    Parameter{"self"},
    Parameter{"graph", graph_annotation},
    Parameter{"debug", nullptr, Default::false_value},
};

template <py::ArgumentType links_type>
inline constexpr std::array callback_parameters{
    Parameter{"self"},
    Parameter{"graph", graph_annotation},
    Parameter{"replaced_nodes", "[NodeProto]"},
    Parameter{"isomorphic_node_mapping", "[int]"},
    Parameter{"isomorphic_links_mapping", "dict", Default::required, nullptr, links_type},
};

constexpr FunctionRow apply_row(Body body, const char* result = "int") {
  return {"apply", apply_parameters, body, result};
}

template <Text name>
inline constexpr FunctionRow name_row{"get_simple_name", self_alone, simple_name<name>};

template <const auto& passes>
inline constexpr FunctionRow pairs_row{"_get_subgraphs_to_replace", self_alone, listed_pairs<passes>, pairs_annotation};

inline std::unique_ptr<py::Sharing> round_view(PyObject* module, PyObject* graph) {
  return std::make_unique<GraphView>(module, graph, GraphView::Lasts::round);
}

using ViewBody = py::Ref (*)(const Call&, GraphView&);

/// What a callback promises is proved on random graphs by tests/python.
template <ViewBody body, Changes changes, py::ArgumentType links_type = py::ArgumentType::dict>
inline constexpr FunctionRow callback_row{
    .name = "_on_replace_subgraph",
    .parameters = callback_parameters<links_type>,
    .body = with_view<body>,
    .result_annotation = "bool",
    .collects_keywords = true,
    .changes = changes,
    .share = round_view,
};

/// The same of one that calls the callback that its class inherits.
template <ViewBody body, Changes changes>
inline constexpr FunctionRow extending_callback_row = [] {
  FunctionRow row = callback_row<body, changes>;
  row.calls_inherited = true;
  return row;
}();

// Pairs by the names that most classes give their lists.
inline const std::array one_pair{pass("subgraph", "subgraph_replacement")};
inline const std::array two_pairs{
    pass("subgraph1", "subgraph_replacement1"),
    pass("subgraph2", "subgraph_replacement2"),
};
using Strings = std::span<const char* const>;
constexpr std::array<PatternList, 2> one_pair_of(Strings pattern, Strings replacement) {
  return {PatternList{"subgraph", pattern}, PatternList{"subgraph_replacement", replacement}};
}

/// Methods of a class of the pull-up family that adds nothing to it but its pairs.
template <Text name, const auto& passes>
inline constexpr std::array pull_up_methods{name_row<name>, pairs_row<passes>};

inline constexpr std::array framework_base{"AbstractTransformation"};
inline constexpr std::array pull_up_base{"AbstractPullUpTesselQuantTransformation"};

}  // namespace onnxgraft::quant::rows
