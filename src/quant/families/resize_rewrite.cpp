// Callback of `replace_resize_quant`: the biases first, as everywhere in the pull-up family, then the attributes of the
// new `Resize`.
//
// The new node works on quantized values and so is always of mode "nearest". A refusal of the family is handed on
// before any attribute is set.
#include "quant/families/callbacks.h"
#include "quant/families/occurrence.h"
#include "quant/numpy/host.h"
#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

const InternedName coordinate_transformation_mode("coordinate_transformation_mode");
const InternedName half_pixel("half_pixel");
const InternedName mode("mode");
const InternedName nearest("nearest");
const InternedName nearest_mode("nearest_mode");
const InternedName round_prefer_floor("round_prefer_floor");
const InternedName quantized_link("8");
const InternedName family_link("99");
constexpr std::int64_t resize_position = 1;

/// The family looks the quantized tensor up as "99", which these patterns call "8".
Ref links_of_family(PyObject* links) {
  Ref copy = py::checked(PyDict_Copy(links));
  if (PyObject* quantized = PyDict_GetItemWithError(links, quantized_link.get()); quantized != nullptr) {
    if (PyDict_SetDefault(copy.get(), family_link.get(), quantized) == nullptr) throw py::PythonError{};
  } else if (PyErr_Occurred() != nullptr) {
    throw py::PythonError{};
  }
  return copy;
}

Ref kept_or_made(const Call& call, const Ref& attributes, const InternedName& name, const InternedName& value) {
  Ref kept = first_attribute(attributes.get(), name);
  return kept ? std::move(kept) : make_attribute(call.module, name, value.get());
}

}  // namespace

Ref give_resize_attributes(const Call& call, GraphView& view) {
  const Ref links = links_of_family(call[callback::links]);
  if (!py::truth(inherited_callback(call, links.get()).get())) return py::boolean(false);
  const Ref old = attributes_of(call[callback::replaced_nodes], 0);
  const Ref coordinates = kept_or_made(call, old, coordinate_transformation_mode, half_pixel);
  const Ref new_mode = make_attribute(call.module, mode, nearest.get());
  const Ref rounding = kept_or_made(call, old, nearest_mode, round_prefer_floor);
  const Ref node = view.mapped_node(call[callback::node_mapping], resize_position);
  extend(py::attribute(node.get(), names::attribute).get(),
         py::tuple({coordinates.get(), new_mode.get(), rounding.get()}).get());
  return py::boolean(true);
}

}  // namespace onnxgraft::quant
