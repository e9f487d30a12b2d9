// `get_init` itself: finds records by name and reads their contents.
//
// A name that is missing raises before its array is made. Must not know how contents are stored.
#include "transform_utilities/initializer_lookup.h"

#include "py/name_index.h"
#include "transform_utilities/external_data.h"

namespace onnxgraft::transform_utilities {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

const InternedName graph_name("name");
const InternedName initializer("initializer");

void refuse_single_text(PyObject* names) {
  if (PyUnicode_Check(names) == 0 && PyBytes_Check(names) == 0) return;
  py::raise(PyExc_TypeError,
            "get_init(): names must be a sequence of initializer names, not one %.200s: pass (%R,) to look up one name",
            Py_TYPE(names)->tp_name, names);
}

Ref find_record(PyObject* graph, PyObject* initializers, PyObject* name) {
  const std::optional<Py_ssize_t> position = py::find_by_name(graph, initializer, initializers, name);
  if (position) return py::item(initializers, *position);
  const Ref of_graph = py::attribute(graph, graph_name);
  py::raise(
      PyExc_ValueError,
      "get_init(): %R is not an initializer of graph %R (%zd initializers): each name must be in graph.initializer",
      name, of_graph.get(), py::length(initializers));
}

}  // namespace

Ref get_init(const Call& call) {
  PyObject* graph = call[0];
  refuse_single_text(call[1]);
  const Ref initializers = py::attribute(graph, initializer);
  Ref arrays = py::checked(PyList_New(0));
  Ref records = py::checked(PyList_New(0));
  const Ref wanted = py::iterator(call[1]);
  while (const Ref name = py::next(wanted.get())) {
    const Ref record = find_record(graph, initializers.get(), name.get());
    py::check(PyList_Append(arrays.get(), contents(call.module, record.get()).get()));
    py::check(PyList_Append(records.get(), record.get()));
  }
  return py::tuple({arrays.get(), records.get()});
}

}  // namespace onnxgraft::transform_utilities
