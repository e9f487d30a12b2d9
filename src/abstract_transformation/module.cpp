// The module `abstract_transformation`: the base class of all transformations, and what tools need to look into its
// matching.
//
// It is a table of names, parameters, documentation and bodies. Work is done in the other files; a body here is a line
// or two.
#include <array>
#include <chrono>
#include <memory>
#include <vector>

#include "abstract_transformation/callback.h"
#include "abstract_transformation/parsing.h"
#include "abstract_transformation/pass.h"
#include "abstract_transformation/report.h"
#include "abstract_transformation/rule_cache.h"
#include "abstract_transformation/run.h"
#include "py/class_factory.h"
#include "py/message_list.h"
#include "py/module_entry.h"
#include "py/objects.h"
#include "py/session.h"

namespace onnxgraft::py {

namespace {

constexpr const char* class_doc =
    R"(Base class of transformations: finds small subgraphs in an ONNX graph and replaces them in place.

A subclass holds (pattern, replacement) pairs as lists of strings and calls
`_replace_all_isomorphic_sub_graphs` for each of them, by convention from a method `apply(graph, debug=False)` that
returns the number of replaced occurrences. One that has to set attributes or initializers of the new nodes, or
to refuse occurrences, overrides `_on_replace_subgraph`.)";

constexpr const char* replace_doc = R"(Replaces every occurrence of `subgraph` in `graph` by `replacement`, in place.

graph: the GraphProto; only its own node list is searched, not the bodies of If, Loop and Scan.
subgraph, replacement: lists of strings, such as ["Conv:0,1i->2"] and ["#0:0,1i->100", "Relu:100->2"].
debug: writes a line to sys.stderr: how many occurrences were found, replaced and refused, in what time, and
    if there was none, the nearest miss.
extra: handed on to `_on_replace_subgraph`.

Returns the number of occurrences replaced. Raises ValueError for a list that does not follow the notation and
TypeError for an argument of a wrong type, both before anything is touched. What a callback raises goes on: the
occurrence that it was called for and those accepted before stay replaced, all others are as they were.)";

constexpr const char* callback_doc = R"(Called for every replaced occurrence; a false result takes the replacement back.

graph: the GraphProto, with all occurrences of the pass replaced.
replaced_nodes: the matched NodeProtos in pattern order; removed ones keep their content.
isomorphic_node_mapping: dict from the position in the replacement list to the node's index in graph.node.
isomorphic_links_mapping: dict from the text of every id of both lists to the tensor's name.
kwargs: what the caller of `_replace_all_isomorphic_sub_graphs` gave beyond `debug`.

This one accepts every occurrence.)";

constexpr const char* find_doc = R"(Occurrences that a pass would replace if its callback accepted all of them.

Returns a list of dicts: "nodes", the indices in graph.node in pattern order, and "links", from the id of every
pattern tensor to its name. The graph is not changed.)";

constexpr const char* nearest_miss_doc = R"(Why `subgraph` does not match: the attempt that got furthest.

Returns None if the pattern fits somewhere, else a dict: "matched" (number of pattern nodes that fitted),
"last_node" (index of the graph node matched last, or None), "pattern_node" (the one that could not be matched),
"node" (index of the node that was tried for it, or None), "reason" (an identifier such as "not_initializer"),
"input" (input position, where the reason has one), "tensor" (name, or None), "reader" (index of another node
that reads the tensor, or None) and "text" (a sentence).)";

constexpr const char* trace_doc =
    R"(Whether single nodes have a place in patterns, and if not, how near each came to it.

graph: the GraphProto; it is not changed.
pairs: sequence of (subgraph, replacement).
nodes: indices in graph.node (IndexError for one that it does not have).

Returns a list of dicts, for each pair and node one per pattern node of the node's operator, in order: "pair", "node" and
"pattern_node", "occurrence" (the indices of the first occurrence that has the node there, in pattern order, whatever
other occurrences a pass would prefer; None if there is none) and "miss" (None, or a dict as `nearest_miss` returns it:
the attempt from that node that got furthest).)";

constexpr const char* parse_doc = R"(A (pattern, replacement) pair, taken apart.

Returns two tuples. Pattern nodes are (operator, inputs, output, rest): an input is (id, whether the pattern wants an
initializer), and `rest` says that further initializers may follow. Replacement entries are (node, number of the
pattern node that it comes from or None, whether that node stays); the node of an entry that only names a number is
filled in from the pattern.
Raises ValueError for a list that does not follow the notation.)";

Ref replace_all(const Call& call) {
  const auto rule = compiled_rule(call[2], call[3]);
  const bool debug = truth(call[4]);
  const auto start = std::chrono::steady_clock::now();
  auto* run = static_cast<Run*>(call.sharing);
  Pass pass(call[0], call[1], call.keywords, rule, run != nullptr && run->graph() == call[1] ? run : nullptr);
  const std::size_t count = pass.run();
  if (debug) {
    write_debug_line(call[0], call[1], call[2], *rule, pass.counts(), std::chrono::steady_clock::now() - start);
  }
  return checked(PyLong_FromSize_t(count));
}

constexpr std::array replace_parameters{
    Parameter{"self"},
    Parameter{"graph"},
    Parameter{"subgraph"},
    Parameter{"replacement"},
    Parameter{.name = "debug", .fallback = Default::false_value},
};

constexpr std::array callback_parameters{
    Parameter{"self"},
    Parameter{"graph", "GraphProto"},
    Parameter{"replaced_nodes", "[NodeProto]"},
    Parameter{"isomorphic_node_mapping", "[int]"},
    Parameter{"isomorphic_links_mapping", "dict"},
};

constexpr std::array pair_parameters{
    Parameter{"graph"},
    Parameter{"subgraph"},
    Parameter{"replacement"},
};

constexpr std::array trace_parameters{
    Parameter{"graph"},
    Parameter{"pairs"},
    Parameter{"nodes"},
};

constexpr std::array parse_parameters{
    Parameter{"subgraph"},
    Parameter{"replacement"},
};

const std::array base_methods{
    FunctionRow{
        .name = "_replace_all_isomorphic_sub_graphs",
        .parameters = replace_parameters,
        .body = replace_all,
        .result_annotation = "int",
        .collects_keywords = true,
        // What its calls change otherwise, the run knows.
        .changes = Changes::contents,
        .share = [](PyObject*, PyObject* graph) -> std::unique_ptr<Sharing> { return std::make_unique<Run>(graph); },
        .doc = replace_doc,
    },
    FunctionRow{
        .name = "_on_replace_subgraph",
        .parameters = callback_parameters,
        .body = [](const Call&) { return boolean(true); },
        .result_annotation = "bool",
        .collects_keywords = true,
        .changes = Changes::contents,
        .doc = callback_doc,
    },
};

constexpr std::array fast_parameters{Parameter{"container"}};

const ClassRow base_class{
    .name = "AbstractTransformation",
    .bases = {},
    .doc = class_doc,
    .methods = base_methods,
};

const FunctionRow find_row{
    .name = "find_occurrences",
    .parameters = pair_parameters,
    .body = [](const Call& call) { return find_occurrences(call[0], *compiled_rule(call[1], call[2])); },
    .doc = find_doc,
};

const FunctionRow nearest_miss_row{
    .name = "nearest_miss",
    .parameters = pair_parameters,
    .body = [](const Call& call) { return nearest_miss(call[0], *compiled_rule(call[1], call[2])); },
    .doc = nearest_miss_doc,
};

Ref trace_of_pairs(const Call& call) {
  std::vector<std::shared_ptr<const core::Rule>> rules;
  const Ref pairs = iterator(call[1]);
  while (const Ref pair = next(pairs.get())) {
    const auto [pattern, replacement] = unpack_pair(pair.get());
    rules.push_back(compiled_rule(pattern.get(), replacement.get()));
  }
  return trace_nodes(call[0], rules, call[2]);
}

const FunctionRow trace_row{
    .name = "trace_nodes",
    .parameters = trace_parameters,
    .body = trace_of_pairs,
    .doc = trace_doc,
};

const FunctionRow parse_row{
    .name = "parse",
    .parameters = parse_parameters,
    .body = [](const Call& call) { return parsed(*compiled_rule(call[0], call[1])); },
    .doc = parse_doc,
};

/// For the tests: a container that is not recognised costs time, and nothing else shows it.
const FunctionRow is_fast_row{
    .name = "_is_fast",
    .parameters = fast_parameters,
    .body = [](const Call& call) { return boolean(is_message_list(call[0])); },
    .doc = "Whether the container is known as protobuf's own list of messages, which is read and written as a whole.",
};

constexpr const char* observed_doc = R"(A method that calls `watch` around a method of a transformation.

Put it on the instance in the method's place: vars(transformation)[name] = observed(original, watch). A call of it
calls watch(original, ...) with the arguments of the call. Where the method promises to leave nodes alone, it is still
believed, so watch must not edit the graph. It has to call the `original` that it is given, which may differ from call
to call.)";

constexpr std::array observed_parameters{
    Parameter{"original"},
    Parameter{"watch"},
};

const FunctionRow observed_row{
    .name = "observed",
    .parameters = observed_parameters,
    .body = [](const Call& call) { return observed(call[0], call[1]); },
    .doc = observed_doc,
};

void fill(PyObject* module) {
  const Ref function_type = make_function_type(module);
  add_class(module, function_type.get(), base_class);
  add_function(module, function_type.get(), find_row);
  add_function(module, function_type.get(), nearest_miss_row);
  add_function(module, function_type.get(), trace_row);
  add_function(module, function_type.get(), parse_row);
  add_function(module, function_type.get(), is_fast_row);
  add_function(module, function_type.get(), observed_row);
}

int execute(PyObject* module) {
  static bool done = false;
  return initialise_once(module, done, fill);
}

std::array slots{
    PyModuleDef_Slot{Py_mod_exec, reinterpret_cast<void*>(execute)},
#ifdef Py_mod_multiple_interpreters
    PyModuleDef_Slot{Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
#endif
    PyModuleDef_Slot{0, nullptr},
};

constexpr const char* module_doc = "The base class of all transformations, with its matcher.";

PyModuleDef definition{
    PyModuleDef_HEAD_INIT, "abstract_transformation", module_doc, 0, nullptr, slots.data(), nullptr, nullptr, nullptr,
};

}  // namespace

const FunctionRow& default_callback() { return base_methods[1]; }

}  // namespace onnxgraft::py

PyMODINIT_FUNC PyInit_abstract_transformation() { return PyModuleDef_Init(&onnxgraft::py::definition); }
