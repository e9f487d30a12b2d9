// Names that several files look up on the host's objects, interned once.
#pragma once

#include <cstdint>

#include "py/objects.h"

namespace onnxgraft::transform_utilities {

inline constexpr std::int64_t external_location = 1;  // TensorProto.EXTERNAL

namespace names {

inline const py::InternedName data_location("data_location");
inline const py::InternedName data_type("data_type");
inline const py::InternedName dims("dims");
inline const py::InternedName initializer("initializer");
inline const py::InternedName numpy_helper("numpy_helper");
inline const py::InternedName to_array("to_array");

}  // namespace names

}  // namespace onnxgraft::transform_utilities
