// The bare walk: reads op_type of every node through the object interface and does nothing else.
// A pass that finds none of its operators cannot be faster than this.
#include <array>

#include "py/guard.h"
#include "py/ref.h"

namespace onnxgraft::bench {
namespace {

using py::checked;
using py::Ref;

PyObject* count_op_type(PyObject* /*module*/, PyObject* arguments) noexcept {
  return py::guarded([&] {
    PyObject* graph = nullptr;
    PyObject* wanted = nullptr;
    if (PyArg_ParseTuple(arguments, "OU:count_op_type", &graph, &wanted) == 0) throw py::PythonError{};
    const Ref op_type = checked(PyUnicode_InternFromString("op_type"));
    const Ref nodes = checked(PyObject_GetAttrString(graph, "node"));
    const Ref iterator = checked(PyObject_GetIter(nodes.get()));
    Py_ssize_t count = 0;
    while (const Ref node = Ref::steal(PyIter_Next(iterator.get()))) {
      const Ref name = checked(PyObject_GetAttr(node.get(), op_type.get()));
      if (PyUnicode_Compare(name.get(), wanted) == 0) ++count;
    }
    if (PyErr_Occurred() != nullptr) throw py::PythonError{};
    return checked(PyLong_FromSsize_t(count));
  });
}

std::array methods{
    PyMethodDef{"count_op_type", count_op_type, METH_VARARGS, "Number of nodes of that operator in a graph."},
    PyMethodDef{nullptr, nullptr, 0, nullptr},
};

PyModuleDef definition{
    PyModuleDef_HEAD_INIT, "floors", "Lower bounds of cost.", 0, methods.data(), nullptr, nullptr, nullptr, nullptr,
};

}  // namespace
}  // namespace onnxgraft::bench

PyMODINIT_FUNC PyInit_floors() { return PyModuleDef_Init(&onnxgraft::bench::definition); }
