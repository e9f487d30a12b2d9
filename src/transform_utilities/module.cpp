// The extension module `transform_utilities`: look-up of initializers.
//
// A table of what the module holds; the names `np`, `helper` and `numpy_helper` are module attributes that a host may
// replace.
#include <array>

#include "py/class_factory.h"
#include "py/module_entry.h"
#include "py/objects.h"
#include "transform_utilities/data_folder.h"
#include "transform_utilities/initializer_lookup.h"

namespace onnxgraft::transform_utilities {

namespace {

using py::Parameter;
using py::Ref;

constexpr std::array parameters{
    Parameter{"graph", "GraphProto"},
    Parameter{"names", "Sequence[str]"},
};

constexpr const char* get_init_documentation =
    "Contents and records of the named initializers.\n\n"
    "Args:\n"
    "    graph: The onnx.GraphProto that holds them.\n"
    "    names: Names of initializers, any iterable of str; a name may occur twice.\n\n"
    "Returns:\n"
    "    (arrays, records), two lists in the order of names. An array has the element type and the shape of its\n"
    "    tensor, as onnx.numpy_helper.to_array gives it; data in a file (whole-byte element types) comes as a\n"
    "    read-only numpy.memmap, of which nothing is read before it is used. A record is the TensorProto of the\n"
    "    graph itself, not a copy.\n\n"
    "Raises:\n"
    "    TypeError: names is a single str.\n"
    "    ValueError: a name is not an initializer of the graph, or what the graph states of a data file cannot be\n"
    "        (outside its folder, a link, offset or length beyond the file or different from the shape's).\n"
    "    FileNotFoundError: the file is missing; external_data_folder() says where files are looked up.\n\n"
    "A call takes time in proportion to the number of names, not to the size of the graph, and the answer is right\n"
    "whatever was done to the graph in between. The first of several initializers of one name counts; among more than\n"
    "24 initializers whose names all differed at the last call, a later one may be found if the first was renamed to\n"
    "that name since, or came while at least as many others before the later one went.";

constexpr py::FunctionRow get_init_row{
    .name = "get_init",
    .parameters = parameters,
    .body = get_init,
    .result_annotation = "Tuple[List[ndarray], List[TensorProto]]",
    .doc = get_init_documentation,
};

void import_as(PyObject* module, const char* source, const char* name) {
  py::check(PyObject_SetAttrString(module, name, py::checked(PyImport_ImportModule(source)).get()));
}

void fill(PyObject* module) {
  import_as(module, "numpy", "np");
  import_as(module, "onnx.helper", "helper");
  import_as(module, "onnx.numpy_helper", "numpy_helper");
  const Ref function_type = py::make_function_type(module);
  py::add_function(module, function_type.get(), get_init_row);
  add_data_folder_type(module);
}

bool initialised = false;

int execute(PyObject* module) { return py::initialise_once(module, initialised, fill); }

std::array slots{
    PyModuleDef_Slot{Py_mod_exec, reinterpret_cast<void*>(execute)},
#ifdef Py_mod_multiple_interpreters
    PyModuleDef_Slot{Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
#endif
    PyModuleDef_Slot{0, nullptr},
};

PyModuleDef definition{
    PyModuleDef_HEAD_INIT,
    "transform_utilities",
    "Look-up of initializers: get_init(graph, names), external_data_folder(path).",
    0,
    nullptr,
    slots.data(),
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace

}  // namespace onnxgraft::transform_utilities

PyMODINIT_FUNC PyInit_transform_utilities() { return PyModuleDef_Init(&onnxgraft::transform_utilities::definition); }
