// Callback of `simplify_shape_v2`: the computed `sizes` of a `Resize` become a constant.
//   sizes = [-1, channels, height, width], -1 for the size that the input has
//
// Without a stated shape of two dimensions or more it refuses.
#include "py/name_index.h"
#include "quant/families/callbacks.h"
#include "quant/families/occurrence.h"
#include "quant/numpy/host.h"
#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

const InternedName data_link("1");
const InternedName height_link("8");
const InternedName width_link("9");
const InternedName sizes_link("101");
const InternedName tensor_type("tensor_type");
const InternedName dim("dim");
const InternedName dim_value("dim_value");
const InternedName item("item");
const InternedName array("array");

/// The dimensions that `value_info` states for a tensor, as a list: 0 for a symbolic one, empty if it has no
/// entry.
Ref known_shape(PyObject* graph, const Ref& tensor) {
  Ref extents = py::checked(PyList_New(0));
  const Ref entries = py::attribute(graph, names::value_info);
  const std::optional<Py_ssize_t> position = py::find_by_name(graph, names::value_info, entries.get(), tensor.get());
  if (!position) return extents;
  const Ref entry = py::item(entries.get(), *position);
  const Ref type = py::attribute(py::attribute(entry.get(), names::type).get(), tensor_type);
  const Ref dims = py::iterator(py::attribute(py::attribute(type.get(), names::shape).get(), dim).get());
  while (const Ref extent = py::next(dims.get())) {
    py::check(PyList_Append(extents.get(), py::attribute(extent.get(), dim_value).get()));
  }
  return extents;
}

Ref int64_array(PyObject* module, std::initializer_list<PyObject*> values) {
  const Ref list = py::checked(PySequence_List(py::tuple(values).get()));
  const Ref np = global(module, names::np);
  const Ref dtype = py::attribute(np.get(), names::int64);
  return py::call_method(np.get(), array, {list.get()}, {{names::dtype, dtype.get()}});
}

}  // namespace

Ref make_constant_sizes(const Call& call, GraphView& view) {
  PyObject* graph = call[callback::graph];
  PyObject* links = call[callback::links];
  const Ref shape = known_shape(graph, subscript(links, data_link));
  if (py::length(shape.get()) < 2) {
    return refused(call, [&] {
      return py::checked(PyUnicode_FromFormat("value_info gives no shape of two or more dimensions for '%S'",
                                              subscript(links, data_link).get()));
    });
  }
  const Ref height_name = subscript(links, height_link);
  const Ref width_name = subscript(links, width_link);
  const Ref found = view.look_up(py::tuple({height_name.get(), width_name.get()}).get());
  const auto [arrays, records] = py::unpack_pair(found.get());
  const auto [height, width] = py::unpack_pair(arrays.get());
  const Ref sizes =
      int64_array(call.module, {py::integer(-1).get(), py::item(shape.get(), 1).get(),
                                py::call_method(height.get(), item).get(), py::call_method(width.get(), item).get()});
  const Ref record = from_array(call.module, sizes.get(), subscript(links, sizes_link).get());
  view.add({record.get()});
  return py::boolean(true);
}

}  // namespace onnxgraft::quant
