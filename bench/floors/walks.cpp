// The least that any implementation must do, through the same object interface: bare walks over the nodes of a graph.
//
// F1 reads operators. A pass that finds none of its operators cannot be faster. F2 also reads the names of inputs and
// outputs, which every pass that follows links must do. The benchmark divides by these, so they must stay plain: no
// cache and no trick that the package could not use as well.
#include <array>

#include "py/guard.h"
#include "py/objects.h"
#include "py/ref.h"

namespace onnxgraft::bench {
namespace {

using py::checked;
using py::InternedName;
using py::Ref;

const InternedName node_field("node");
const InternedName op_type_field("op_type");
const InternedName input_field("input");
const InternedName output_field("output");

PyObject* count_op_type(PyObject* /*module*/, PyObject* arguments) noexcept {
  return py::guarded([&] {
    PyObject* graph = nullptr;
    PyObject* wanted = nullptr;
    if (PyArg_ParseTuple(arguments, "OU:count_op_type", &graph, &wanted) == 0) throw py::PythonError{};
    const Ref nodes = py::iterator(py::attribute(graph, node_field).get());
    Py_ssize_t count = 0;
    while (const Ref node = py::next(nodes.get())) {
      const Ref op_type = py::attribute(node.get(), op_type_field);
      if (PyUnicode_Compare(op_type.get(), wanted) == 0) ++count;
    }
    return checked(PyLong_FromSsize_t(count));
  });
}

std::size_t length_of_names(const Ref& node, const InternedName& field) {
  const Ref names = py::attribute(node.get(), field);
  const Py_ssize_t count = py::length(names.get());
  std::size_t total = 0;
  for (Py_ssize_t index = 0; index < count; ++index) total += py::utf8(py::item(names.get(), index).get()).size();
  return total;
}

PyObject* length_of_all_names(PyObject* /*module*/, PyObject* graph) noexcept {
  return py::guarded([&] {
    const Ref nodes = py::iterator(py::attribute(graph, node_field).get());
    std::size_t total = 0;
    while (const Ref node = py::next(nodes.get())) {
      total += py::utf8(py::attribute(node.get(), op_type_field).get()).size();
      total += length_of_names(node, input_field) + length_of_names(node, output_field);
    }
    return checked(PyLong_FromSize_t(total));
  });
}

std::array methods{
    PyMethodDef{"count_op_type", count_op_type, METH_VARARGS, "Number of nodes of that operator in a graph."},
    PyMethodDef{"length_of_all_names", length_of_all_names, METH_O,
                "Bytes in the operators and in the names of inputs and outputs of all nodes of a graph."},
    PyMethodDef{nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition{
    PyModuleDef_HEAD_INIT, "floors", "Lower bounds of cost.", 0, methods.data(), nullptr, nullptr, nullptr, nullptr,
};

}  // namespace
}  // namespace onnxgraft::bench

PyMODINIT_FUNC PyInit_floors() { return PyModuleDef_Init(&onnxgraft::bench::definition); }
