// Names that callbacks look up on the host's objects, interned once.
//
// Graph fields, module-level names and array methods are listed here, so that no text is in two files. Ids of links are
// in the callback's file.
#pragma once

#include "py/objects.h"

namespace onnxgraft::quant::names {

using py::InternedName;

// Fields of graphs, nodes, tensors and attributes.
inline const InternedName attribute("attribute");
inline const InternedName data_type("data_type");
inline const InternedName f("f");
inline const InternedName i("i");
inline const InternedName initializer("initializer");
inline const InternedName input("input");
inline const InternedName ints("ints");
inline const InternedName name("name");
inline const InternedName node("node");
inline const InternedName op_type("op_type");
inline const InternedName output("output");
inline const InternedName type("type");
inline const InternedName value_info("value_info");

// Operators.
inline const InternedName conv("Conv");
inline const InternedName tessel_dequant("TesselDequant");
inline const InternedName tessel_quant("TesselQuant");

// Node attributes.
inline const InternedName group("group");
inline const InternedName offset("offset");
inline const InternedName pads("pads");
inline const InternedName scale("scale");
inline const InternedName trans_b("transB");

// Names of the module.
inline const InternedName attribute_proto("AttributeProto");
inline const InternedName helper("helper");
inline const InternedName np("np");
inline const InternedName numpy_helper("numpy_helper");
inline const InternedName tensor_proto("TensorProto");
inline const InternedName transform_utilities("transform_utilities");

// What a quantized operator's tensors are called by the base's methods; `scale` is one of them.
inline const InternedName bias("bias");
inline const InternedName weight("weight");

// Functions, methods and constants of those.
inline const InternedName append("append");
inline const InternedName astype("astype");
inline const InternedName dtype("dtype");
inline const InternedName extend("extend");
inline const InternedName float32("float32");
inline const InternedName from_array("from_array");
inline const InternedName get_init("get_init");
inline const InternedName int32("int32");
inline const InternedName int64("int64");
inline const InternedName int8("int8");
inline const InternedName make_attribute("make_attribute");
inline const InternedName make_tensor("make_tensor");
inline const InternedName rand("rand");
inline const InternedName randint("randint");
inline const InternedName random("random");
inline const InternedName ravel("ravel");
inline const InternedName remove("remove");
inline const InternedName shape("shape");
inline const InternedName size("size");
inline const InternedName uint32("uint32");
inline const InternedName uint64("uint64");
inline const InternedName view("view");

// Methods of the transformations.
inline const InternedName get_subgraphs_to_replace("_get_subgraphs_to_replace");
inline const InternedName replace_all("_replace_all_isomorphic_sub_graphs");

// Keywords.
inline const InternedName conv_bias_updated("conv_bias_updated");
inline const InternedName debug("debug");

}  // namespace onnxgraft::quant::names
