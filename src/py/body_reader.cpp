// The walk over bodies, with one set of defined names per level.
//
// A node's inputs are looked up before its outputs are defined: a body that reads a name and defines it later reads the
// outer tensor. Recursion is as deep as bodies are nested, not as long as the graph.
#include "py/body_reader.h"

#include <algorithm>
#include <unordered_set>

#include "py/graph_fields.h"
#include "py/graph_reader.h"
#include "py/objects.h"

namespace onnxgraft::py {

namespace {

class BodyReader {
 public:
  BodyReader(core::Names& names, std::vector<core::NameId>& result) : names_(names), result_(result) {}

  void read_node(PyObject* node) {
    for_each_body(node, [&](PyObject* graph) { read_graph(graph); });
  }

 private:
  void read_graph(PyObject* graph) {
    scopes_.emplace_back();
    define(read_element_names(attribute(graph, field::input).get(), names_));
    define(read_element_names(attribute(graph, field::initializer).get(), names_));
    define(read_sparse_names(graph, names_));
    // Names of value_info define nothing, but fresh names must not equal them.
    read_element_names(attribute(graph, field::value_info).get(), names_);
    const Ref nodes = iterator(attribute(graph, field::node).get());
    while (const Ref node = next(nodes.get())) {
      names_.intern(utf8(attribute(node.get(), field::name).get()));
      use(strings(node.get(), field::input));
      read_node(node.get());
      define(strings(node.get(), field::output));
    }
    use(read_element_names(attribute(graph, field::output).get(), names_));
    scopes_.pop_back();
  }

  std::vector<core::NameId> strings(PyObject* node, const InternedName& name) {
    std::vector<core::NameId> result;
    read_strings(attribute(node, name).get(), names_, result);
    return result;
  }

  void define(const std::vector<core::NameId>& names) { scopes_.back().insert(names.begin(), names.end()); }

  /// Notes names that no level defines. Levels are few, so they are asked one by one.
  void use(const std::vector<core::NameId>& names) {
    for (const core::NameId name : names) {
      const bool own = std::ranges::any_of(scopes_, [&](const auto& scope) { return scope.contains(name); });
      if (name != core::no_name && !own) result_.push_back(name);
    }
  }

  core::Names& names_;
  std::vector<core::NameId>& result_;
  std::vector<std::unordered_set<core::NameId>> scopes_;
};

}  // namespace

void read_body_inputs(PyObject* node, core::Names& names, std::vector<core::NameId>& result) {
  BodyReader(names, result).read_node(node);
}

std::vector<core::NameId> read_sparse_names(PyObject* graph, core::Names& names) {
  std::vector<core::NameId> result;
  const Ref sparse = attribute(graph, field::sparse_initializer);
  const Py_ssize_t count = length(sparse.get());
  for (Py_ssize_t index = 0; index < count; ++index) {
    const Ref values = attribute(item(sparse.get(), index).get(), field::values);
    result.push_back(names.intern(utf8(attribute(values.get(), field::name).get())));
  }
  return result;
}

}  // namespace onnxgraft::py
