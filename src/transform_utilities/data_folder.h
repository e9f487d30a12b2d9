// The folder that external data is looked up in: a context variable, so that threads and tasks do not see each other's,
// and the context manager that sets it.
//
// Must not know tensors or files.
#pragma once

#include "py/objects.h"

namespace onnxgraft::transform_utilities {

/// The folder set by the innermost `external_data_folder` around the caller, else an empty text (the current
/// directory).
py::Ref current_data_folder();

/// Makes the context manager's type and puts it into the module.
void add_data_folder_type(PyObject* module);

}  // namespace onnxgraft::transform_utilities
