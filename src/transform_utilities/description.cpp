#include "transform_utilities/description.h"

#include <limits>
#include <optional>
#include <utility>

#include "py/name_index.h"
#include "transform_utilities/element_size.h"
#include "transform_utilities/names.h"

namespace onnxgraft::transform_utilities {

using py::InternedName;
using py::Ref;

namespace {

const InternedName raw_data("raw_data");
const InternedName segment("segment");
const InternedName has_field("HasField");

/// A tuple of them, got by index: an iterator over protobuf's list ends in an IndexError, whose text is formatted.
Ref elements(PyObject* list) {
  const Py_ssize_t count = py::length(list);
  Ref made = py::checked(PyTuple_New(count));
  for (Py_ssize_t at = 0; at < count; ++at) PyTuple_SET_ITEM(made.get(), at, py::item(list, at).release());
  return made;
}

/// Bytes that the shape takes; none where `reshape` would not take it as it stands.
std::optional<std::uint64_t> byte_count(PyObject* shape, std::uint64_t size_of_one) {
  std::uint64_t count = size_of_one;
  for (Py_ssize_t axis = 0; axis < PyTuple_GET_SIZE(shape); ++axis) {
    const std::int64_t extent = py::integer_value(PyTuple_GET_ITEM(shape, axis));
    if (extent <= 0 || count > std::numeric_limits<std::uint64_t>::max() / static_cast<std::uint64_t>(extent))
      return {};
    count *= static_cast<std::uint64_t>(extent);
  }
  return count;
}

/// Whether all is as `to_array` wants it. The bytes are copied to be counted, which is what `to_array` does too, but
/// little beside the rest of its work.
bool holds(PyObject* tensor, std::uint64_t count) {
  if (py::integer_value(py::attribute(tensor, names::data_location).get()) == external_location) return false;
  if (py::truth(py::call_method(tensor, has_field, {segment.get()}).get())) return false;
  const Ref bytes = py::attribute(tensor, raw_data);
  return PyBytes_CheckExact(bytes.get()) != 0 && std::cmp_equal(PyBytes_GET_SIZE(bytes.get()), count);
}

bool reads_by_library(PyObject* module) {
  const Ref to_array = py::attribute(py::attribute(module, names::numpy_helper).get(), names::to_array);
  return py::is_written_in(to_array.get(), "onnx.numpy_helper");
}

}  // namespace

Ref description(const py::Call& call) {
  PyObject* graph = call[0];
  if (!reads_by_library(call.module)) return py::none();
  const Ref initializers = py::attribute(graph, names::initializer);
  const std::optional<Py_ssize_t> position = py::find_by_name(graph, names::initializer, initializers.get(), call[1]);
  if (!position) return py::none();
  const Ref tensor = py::item(initializers.get(), *position);
  const Ref type = py::attribute(tensor.get(), names::data_type);
  const std::uint64_t size_of_one = element_size(py::integer_value(type.get()));
  if (size_of_one == 0) return py::none();
  const Ref shape = elements(py::attribute(tensor.get(), names::dims).get());
  const std::optional<std::uint64_t> count = byte_count(shape.get(), size_of_one);
  return count && holds(tensor.get(), *count) ? py::tuple({type.get(), shape.get()}) : py::none();
}

}  // namespace onnxgraft::transform_utilities
