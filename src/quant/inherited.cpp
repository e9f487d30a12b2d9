#include "quant/inherited.h"

#include "quant/callbacks.h"
#include "quant/host.h"
#include "quant/names.h"

namespace onnxgraft::quant {

using py::Ref;

Ref inherited_callback(const py::Call& call, const py::InternedName& class_name, PyObject* links) {
  const Ref own_class = global(call.module, class_name);
  const Ref parent = py::call(reinterpret_cast<PyObject*>(&PySuper_Type), {own_class.get(), call[callback::self]});
  const Ref method = py::attribute(parent.get(), names::on_replace_subgraph);
  const Ref arguments =
      py::tuple({call[callback::graph], call[callback::replaced_nodes], call[callback::node_mapping], links});
  return py::checked(PyObject_Call(method.get(), arguments.get(), call.keywords));
}

}  // namespace onnxgraft::quant
