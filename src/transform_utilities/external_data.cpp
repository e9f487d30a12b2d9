// Makes an array from a tensor.
//
// Data in a file are mapped and not read. The shape has to agree with the length of the data before anything is mapped.
// Which file may be read is decided in external_file.cpp.
#include "transform_utilities/external_data.h"

#include <array>
#include <bit>
#include <limits>
#include <string>
#include <utility>

#include "transform_utilities/data_folder.h"
#include "transform_utilities/external_file.h"

namespace onnxgraft::transform_utilities {

using py::InternedName;
using py::Ref;

namespace {

constexpr std::int64_t external_location = 1;  // TensorProto.EXTERNAL

const InternedName copy_from("CopyFrom");
const InternedName data_location("data_location");
const InternedName data_type("data_type");
const InternedName dims("dims");
const InternedName external_data("external_data");
const InternedName name("name");
const InternedName key_field("key");
const InternedName value_field("value");

const InternedName helper("helper");
const InternedName np("np");
const InternedName numpy_helper("numpy_helper");
const InternedName to_array("to_array");

/// Bytes per element by the code of the element type; 0 where NumPy has no such type, elements share a byte, or
/// they have no fixed size.
std::uint64_t element_size(std::int64_t type) {
  constexpr std::array<std::uint64_t, 17> sizes{0, 4, 1, 1, 2, 2, 4, 8, 0, 1, 2, 8, 4, 8, 8, 16, 0};
  return std::in_range<std::size_t>(type) && std::cmp_less(type, sizes.size()) ? sizes[static_cast<std::size_t>(type)]
                                                                               : 0;
}

Ref global(PyObject* module, const InternedName& global_name) { return py::attribute(module, global_name); }

/// For messages, which show what is not UTF-8 in it as unreadable.
std::string shown_name(PyObject* tensor) {
  const Ref value = py::attribute(tensor, name);
  return std::string(PyBytes_Check(value.get()) != 0 ? PyBytes_AS_STRING(value.get()) : py::utf8(value.get()));
}

ExternalLocation read_location(PyObject* tensor) {
  ExternalLocation where{shown_name(tensor), {}, {}, {}};
  const auto string_field = [&](PyObject* record, const InternedName& field) {
    const Ref value = py::attribute(record, field);
    if (PyBytes_Check(value.get()) == 0) return std::string(py::utf8(value.get()));
    py::raise(PyExc_ValueError, "tensor '%s': external data: %U %R is not UTF-8", where.tensor.c_str(), field.get(),
              value.get());
  };
  const Ref entries = py::iterator(py::attribute(tensor, external_data).get());
  while (const Ref entry = py::next(entries.get())) {
    const std::string key = string_field(entry.get(), key_field);
    std::string value = string_field(entry.get(), value_field);
    if (key == "location") {
      where.location = std::move(value);
    } else if (key == "offset") {
      where.offset = std::move(value);
    } else if (key == "length") {
      where.length = std::move(value);
    }
  }
  return where;
}

/// Bytes that elements of that size in that shape take; refused if negative or beyond any file.
std::uint64_t byte_count(const ExternalLocation& where, PyObject* shape, std::uint64_t size_of_one) {
  std::uint64_t count = size_of_one;
  bool empty = false;
  for (Py_ssize_t axis = 0; axis < PyTuple_GET_SIZE(shape); ++axis) {
    const std::int64_t extent = py::integer_value(PyTuple_GET_ITEM(shape, axis));
    if (extent < 0)
      py::raise(PyExc_ValueError, "tensor '%s': dims %R must not be negative", where.tensor.c_str(), shape);
    const auto factor = static_cast<std::uint64_t>(extent);
    empty = empty || factor == 0;
    if (factor != 0 && count > std::numeric_limits<std::uint64_t>::max() / factor) {
      py::raise(PyExc_ValueError, "tensor '%s': dims %R are too large for any file", where.tensor.c_str(), shape);
    }
    if (factor != 0) count *= factor;
  }
  return empty ? 0 : count;
}

void test_length(const ExternalLocation& where, const FileRange& range, std::uint64_t needed, PyObject* shape,
                 PyObject* dtype) {
  // Without a length the data may be followed by other data.
  if (where.length ? range.length == needed : range.length >= needed) return;
  py::raise(PyExc_ValueError, "tensor '%s': external data '%s': %s of %llu bytes, but dims %R of %S take %llu bytes",
            where.tensor.c_str(), range.path.c_str(), where.length ? "a length" : "a rest", range.length, shape, dtype,
            needed);
}

std::filesystem::path native_path(PyObject* path) {
  const Ref bytes = py::checked(PyUnicode_EncodeFSDefault(path));
  return {std::string(PyBytes_AS_STRING(bytes.get()), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get())))};
}

Ref path_text(const std::filesystem::path& path) {
  const std::string& native = path.native();
  return py::checked(PyUnicode_DecodeFSDefaultAndSize(native.data(), static_cast<Py_ssize_t>(native.size())));
}

/// `numpy.memmap(path, dtype, "r", offset, shape)`.
Ref map_range(PyObject* numpy, const FileRange& range, PyObject* dtype, PyObject* shape) {
  static const InternedName memmap("memmap");
  const Ref path = path_text(range.path);
  const Ref mode = py::text("r");
  const Ref offset = py::checked(PyLong_FromUnsignedLongLong(range.offset));
  return py::call_method(numpy, memmap, {path.get(), dtype, mode.get(), offset.get(), shape});
}

Ref read_external(PyObject* module, PyObject* tensor) {
  static const InternedName dtype_of("tensor_dtype_to_np_dtype");
  static const InternedName zeros("zeros");
  const ExternalLocation where = read_location(tensor);
  const Ref folder = current_data_folder();
  const FileRange range = checked_range(where, native_path(folder.get()));
  const Ref type = py::attribute(tensor, data_type);
  const std::uint64_t size_of_one = element_size(py::integer_value(type.get()));
  if (size_of_one == 0 || std::endian::native != std::endian::little) {
    // Older versions of onnx leave what they have read in the tensor: they get a copy.
    const Ref copy = py::call(reinterpret_cast<PyObject*>(Py_TYPE(tensor)), {});
    py::call_method(copy.get(), copy_from, {tensor});
    return py::call_method(global(module, numpy_helper).get(), to_array, {copy.get(), folder.get()});
  }
  const Ref dtype = py::call_method(global(module, helper).get(), dtype_of, {type.get()});
  const Ref shape = py::checked(PySequence_Tuple(py::attribute(tensor, dims).get()));
  const std::uint64_t needed = byte_count(where, shape.get(), size_of_one);
  test_length(where, range, needed, shape.get(), dtype.get());
  const Ref numpy = global(module, np);
  // A memory map cannot be empty.
  if (needed == 0) return py::call_method(numpy.get(), zeros, {shape.get(), dtype.get()});
  return map_range(numpy.get(), range, dtype.get(), shape.get());
}

}  // namespace

Ref contents(PyObject* module, PyObject* tensor) {
  const Ref location = py::attribute(tensor, data_location);
  if (py::integer_value(location.get()) == external_location) return read_external(module, tensor);
  return py::call_method(global(module, numpy_helper).get(), to_array, {tensor});
}

}  // namespace onnxgraft::transform_utilities
