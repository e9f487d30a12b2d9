#include "quant/families/methods.h"

#include "py/session.h"
#include "quant/families/callbacks.h"

namespace onnxgraft::quant {

using py::Call;
using py::Ref;

Ref call_own(const Call& call, const py::InternedName& method, std::initializer_list<PyObject*> arguments,
             std::initializer_list<py::Keyword> keywords) {
  const Ref named = py::checked(PyDict_New());
  for (const py::Keyword& keyword : keywords) {
    py::check(PyDict_SetItem(named.get(), keyword.name.get(), keyword.value));
  }
  return py::call_sharing(py::attribute(call[callback::self], method).get(), arguments, named.get(), call.sharing);
}

Ref inherited_callback(const Call& call, PyObject* links) {
  const Ref method = py::inherited_method(call.owner, call[callback::self], "_on_replace_subgraph");
  return py::call_sharing(method.get(),
                          {call[callback::graph], call[callback::replaced_nodes], call[callback::node_mapping], links},
                          call.keywords, call.sharing);
}

}  // namespace onnxgraft::quant
