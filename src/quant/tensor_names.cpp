#include "quant/tensor_names.h"

#include <algorithm>
#include <array>

#include "quant/initializers.h"
#include "quant/names.h"
#include "quant/round.h"

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

/// Whether the test holds for any element.
template <class Test>
bool any_of(PyObject* owner, const InternedName& field, Test test) {
  const Ref elements = py::iterator(py::attribute(owner, field).get());
  while (const Ref element = py::next(elements.get())) {
    if (test(element)) return true;
  }
  return false;
}

bool has_bodies(const Ref& node) {
  const Ref op_type = py::attribute(node.get(), names::op_type);
  return std::ranges::any_of(with_bodies, [&](const InternedName& op) {
    return py::check(PyObject_RichCompareBool(op_type.get(), op.get(), Py_EQ)) != 0;
  });
}

bool any_name_in_bodies(const Ref& node, const TensorNameTest& test) {
  const TensorNameTest inner = [&](const Ref& name, Py_ssize_t /*node*/) { return test(name, no_node); };
  const auto any_in = [&](const Ref& body) {
    return any_initializer_name(body.get(), inner) || any_other_tensor_name(body.get(), inner);
  };
  return any_of(node.get(), names::attribute, [&](const Ref& attribute) {
    // An attribute that holds no graph gives an empty one.
    return any_in(py::attribute(attribute.get(), g)) || any_of(attribute.get(), graphs, any_in);
  });
}

}  // namespace

bool any_initializer_name(PyObject* graph, const TensorNameTest& test) {
  return any_of(graph, names::initializer,
                [&](const Ref& entry) { return test(py::attribute(entry.get(), names::name), no_node); });
}

bool any_other_tensor_name(PyObject* graph, const TensorNameTest& test) {
  const auto holds_for = [&](const Ref& entry) { return test(py::attribute(entry.get(), names::name), no_node); };
  if (any_of(graph, names::input, holds_for) || any_of(graph, names::output, holds_for) ||
      any_of(graph, names::value_info, holds_for)) {
    return true;
  }
  const auto holds_for_sparse = [&](const Ref& entry) { return holds_for(py::attribute(entry.get(), values)); };
  if (any_of(graph, sparse_initializer, holds_for_sparse)) return true;
  Py_ssize_t position = 0;
  return any_of(graph, names::node, [&](const Ref& node) {
    const Ref outputs = py::attribute(node.get(), names::output);
    const Py_ssize_t count = py::length(outputs.get());
    for (Py_ssize_t at = 0; at < count; ++at) {
      if (test(py::item(outputs.get(), at), position)) return true;
    }
    ++position;
    return has_bodies(node) && any_name_in_bodies(node, test);
  });
}

bool is_tensor_name(PyObject* graph, PyObject* name) {
  if (Round* round = Round::on(graph); round != nullptr && !round->may_be_tensor_name(name)) return false;
  return has_initializer(graph, name) || any_other_tensor_name(graph, [&](const Ref& other, Py_ssize_t /*node*/) {
           return py::check(PyObject_RichCompareBool(other.get(), name, Py_EQ)) != 0;
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
