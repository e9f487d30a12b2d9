#include "quant/tensor_names.h"

#include <algorithm>
#include <array>

#include "quant/initializers.h"
#include "quant/names.h"

namespace onnxgraft::quant {

using py::InternedName;
using py::Ref;

namespace {

const InternedName g("g");
const InternedName graphs("graphs");
const InternedName sparse_initializer("sparse_initializer");
const InternedName values("values");

/// Operators with bodies; looking at every node's attributes for one would cost more than all the rest.
const std::array with_bodies{InternedName("If"), InternedName("Loop"), InternedName("Scan"),
                             InternedName("SequenceMap")};

bool equal(const Ref& left, PyObject* right) {
  return py::check(PyObject_RichCompareBool(left.get(), right, Py_EQ)) != 0;
}

/// Whether the test holds for any element.
template <class Test>
bool any_of(PyObject* container, Test test) {
  const Ref elements = py::iterator(container);
  while (const Ref element = py::next(elements.get())) {
    if (test(element)) return true;
  }
  return false;
}

template <class Test>
bool any_of(PyObject* owner, const InternedName& field, Test test) {
  return any_of(py::attribute(owner, field).get(), test);
}

bool defined_in_bodies(const Ref& node, PyObject* name) {
  const Ref op_type = py::attribute(node.get(), names::op_type);
  const bool has_bodies =
      std::ranges::any_of(with_bodies, [&](const InternedName& op) { return equal(op_type, op.get()); });
  if (!has_bodies) return false;
  return any_of(node.get(), names::attribute, [&](const Ref& attribute) {
    // An attribute that holds no graph gives an empty one.
    return is_tensor_name(py::attribute(attribute.get(), g).get(), name) ||
           any_of(attribute.get(), graphs, [&](const Ref& body) { return is_tensor_name(body.get(), name); });
  });
}

}  // namespace

bool is_tensor_name(PyObject* graph, PyObject* name) {
  if (has_initializer(graph, name)) return true;
  const auto is_named = [&](const Ref& entry) { return equal(py::attribute(entry.get(), names::name), name); };
  if (any_of(graph, names::input, is_named) || any_of(graph, names::output, is_named) ||
      any_of(graph, names::value_info, is_named)) {
    return true;
  }
  const auto is_sparse = [&](const Ref& entry) { return is_named(py::attribute(entry.get(), values)); };
  if (any_of(graph, sparse_initializer, is_sparse)) return true;
  return any_of(graph, names::node, [&](const Ref& node) {
    const Ref outputs = py::attribute(node.get(), names::output);
    return py::check(PySequence_Contains(outputs.get(), name)) != 0 || defined_in_bodies(node, name);
  });
}

Ref fresh_tensor_name(PyObject* graph, PyObject* wanted) {
  Ref name = Ref::borrow(wanted);
  for (std::int64_t number = 1; is_tensor_name(graph, name.get()); ++number) {
    name = py::checked(PyUnicode_FromFormat("%U_%lld", wanted, static_cast<long long>(number)));
  }
  return name;
}

}  // namespace onnxgraft::quant
