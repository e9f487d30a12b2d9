// Names of the message fields and container methods that the reader and the writer use.
//
// In one place, because each becomes one interned `str` for the process, and a look-up by it costs about half of one by
// C string.
#pragma once

#include "py/objects.h"

namespace onnxgraft::py::field {

inline const InternedName attribute("attribute");
inline const InternedName domain("domain");
inline const InternedName g("g");
inline const InternedName graphs("graphs");
inline const InternedName initializer("initializer");
inline const InternedName input("input");
inline const InternedName name("name");
inline const InternedName node("node");
inline const InternedName op_type("op_type");
inline const InternedName output("output");
inline const InternedName quantization_annotation("quantization_annotation");
inline const InternedName sparse_initializer("sparse_initializer");
inline const InternedName tensor_name("tensor_name");
inline const InternedName type("type");
inline const InternedName value_info("value_info");
inline const InternedName values("values");

inline const InternedName add("add");
inline const InternedName append("append");
inline const InternedName copy_from("CopyFrom");
inline const InternedName key("key");
inline const InternedName sort("sort");

}  // namespace onnxgraft::py::field
