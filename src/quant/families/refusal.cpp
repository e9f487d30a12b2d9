#include "quant/families/refusal.h"

#include <array>
#include <cstdio>

#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::InternedName;
using py::Ref;

PyObject* wanted_reasons(const py::Call& call) {
  static const InternedName refusal_reasons("refusal_reasons");
  if (call.keywords == nullptr) return nullptr;
  PyObject* reasons = PyDict_GetItemWithError(call.keywords, refusal_reasons.get());
  if (reasons == nullptr && PyErr_Occurred() != nullptr) throw py::PythonError{};
  return reasons != nullptr && PyList_Check(reasons) != 0 ? reasons : nullptr;
}

Ref node_words(PyObject* node) {
  const Ref op_type = py::attribute(node, names::op_type);
  const Ref name = py::attribute(node, names::name);
  if (py::truth(name.get())) return py::checked(PyUnicode_FromFormat("%S node '%S'", op_type.get(), name.get()));
  const Ref outputs = py::attribute(node, names::output);
  return py::checked(PyUnicode_FromFormat("the %S node that writes '%S'", op_type.get(),
                                          py::length(outputs.get()) == 0 ? Py_None : py::item(outputs.get(), 0).get()));
}

Ref number_words(PyObject* number) {
  const double value = PyFloat_AsDouble(number);
  if (value == -1.0 && PyErr_Occurred() != nullptr) throw py::PythonError{};
  std::array<char, 32> buffer{};
  const int size = std::snprintf(buffer.data(), buffer.size(), "%.6g", value);
  return py::text({buffer.data(), static_cast<std::size_t>(size)});
}

}  // namespace onnxgraft::quant
