#include "abstract_transformation/callback.h"

#include <string>

#include "py/objects.h"

namespace onnxgraft::py {

namespace {

const InternedName callback_name("_on_replace_subgraph");
const InternedName module_attribute("__module__");

/// True if the transformation's class is one of the callback's own module: a subclass elsewhere may override
/// whatever the callback calls.
bool is_own_class(PyObject* transformation, PyObject* function) {
  const Ref module_name = attribute(function, module_attribute);
  PyObject* module = PyDict_GetItemWithError(PyImport_GetModuleDict(), module_name.get());
  if (module == nullptr && PyErr_Occurred() != nullptr) throw PythonError{};
  return module != nullptr && defines_class_of(module, transformation);
}

const InternedName nodes_promise("keeps_nodes");
const InternedName links_promise("keeps_links");

const InternedName local_promise("is_local");
const InternedName foresees("foresees");
const InternedName foresees_refusal_name("foresees_refusal");

/// True if `function` carries the attribute with a true value.
bool promises(PyObject* function, const InternedName& promise) {
  const Ref value = optional_attribute(function, promise);
  return value && truth(value.get());
}

Ref position_of(core::NodeIndex node, const core::GraphTable& table, GraphWriter& writer) {
  const Py_ssize_t position = writer.position(node);
  if (position >= 0) return integer(position);
  const std::string op(table.ops.text(table.op(node)));
  const std::string output(table.names.text(table.outputs(node)[0]));
  raise(PyExc_RuntimeError,
        "node '%s' (%s, writes '%s') is no longer in the graph: an earlier callback removed it before its own "
        "occurrence was handled",
        std::string(table.names.text(table.node_names[node])).c_str(), op.c_str(), output.c_str());
}

void set_item(PyObject* dict, std::size_t key, const Ref& value) {
  check(PyDict_SetItem(dict, integer(static_cast<std::int64_t>(key)).get(), value.get()));
}

}  // namespace

Callback::Callback(PyObject* transformation, PyObject* graph, PyObject* extra, const core::Rule& rule)
    : transformation_(transformation), graph_(graph), rule_(rule) {
  const Ref method = attribute(transformation, callback_name);
  if (PyMethod_Check(method.get()) != 0) {
    PyObject* function = PyMethod_Function(method.get());
    is_default_ = row_of(function) == &default_callback();
    keeps_nodes_ = is_default_ || (promises(function, nodes_promise) && is_own_class(transformation, function));
    if (keeps_nodes_ && promises(function, foresees)) foresees_refusal_ = attribute(function, foresees_refusal_name);
    is_local_ = keeps_nodes_ && promises(function, local_promise);
    keeps_links_ = is_default_ || (keeps_nodes_ && promises(function, links_promise));
  }
  PyObject* key = nullptr;
  PyObject* value = nullptr;
  Py_ssize_t at = 0;
  keyword_names_ = checked(PyTuple_New(PyDict_Size(extra)));
  while (PyDict_Next(extra, &at, &key, &value) != 0) {
    PyTuple_SET_ITEM(keyword_names_.get(), static_cast<Py_ssize_t>(keyword_values_.size()), Ref::borrow(key).release());
    keyword_values_.push_back(Ref::borrow(value));
  }
  for (const core::Link& link : rule.links) link_ids_.push_back(text(link.id));
}

Ref Callback::node_mapping(std::span<const core::NodeIndex> nodes, const core::SplicePlan& plan, std::size_t index,
                           const core::GraphTable& table, GraphWriter& writer) const {
  Ref mapping = checked(PyDict_New());
  for (std::size_t entry = 0; entry < rule_.entries.size(); ++entry) {
    set_item(mapping.get(), entry, position_of(plan.entry_node(index, entry), table, writer));
  }
  // Beyond the replacement, a number stands for the pattern node, as long as the graph has it.
  for (std::size_t role = rule_.entries.size(); role < nodes.size(); ++role) {
    if (rule_.nodes[role].kept) set_item(mapping.get(), role, position_of(nodes[role], table, writer));
  }
  return mapping;
}

bool Callback::foresees_refusal(const core::OccurrenceList& occurrences, std::size_t index,
                                const core::GraphTable& table) const {
  // Whoever wants the reasons gets them from the callback.
  if (!foresees_refusal_ || !keyword_values_.empty()) return false;
  const Ref links = checked(PyDict_New());
  const auto names = occurrences.links(index);
  for (std::size_t link = 0; link < link_ids_.size(); ++link) {
    if (names[link] == core::no_name) continue;
    check(PyDict_SetItem(links.get(), link_ids_[link].get(), text(table.names.text(names[link])).get()));
  }
  try {
    return truth(py::call(foresees_refusal_.get(), {transformation_, graph_, links.get()}).get());
  } catch (const PythonError&) {
    // What is wrong with the occurrence, the callback itself will say when its turn comes.
    if (PyErr_ExceptionMatches(PyExc_Exception) == 0 || PyErr_ExceptionMatches(PyExc_MemoryError) != 0) throw;
    PyErr_Clear();
    return false;
  }
}

Callback::Arguments Callback::arguments(const core::OccurrenceList& occurrences, const core::SplicePlan& plan,
                                        std::size_t index, const core::GraphTable& table, GraphWriter& writer) const {
  Arguments result;
  const auto nodes = occurrences.nodes(index);
  const auto names = occurrences.links(index);
  result.node_mapping = node_mapping(nodes, plan, index, table, writer);
  result.replaced_nodes = checked(PyList_New(static_cast<Py_ssize_t>(nodes.size())));
  for (std::size_t role = 0; role < nodes.size(); ++role) {
    PyList_SET_ITEM(result.replaced_nodes.get(), static_cast<Py_ssize_t>(role), writer.object(nodes[role]).release());
  }
  result.link_mapping = checked(PyDict_New());
  for (std::size_t link = 0; link < names.size(); ++link) {
    check(PyDict_SetItem(result.link_mapping.get(), link_ids_[link].get(), text(table.names.text(names[link])).get()));
  }
  return result;
}

/// The class is asked: the instance may have a function in front that hands the promise on, and no more.
Ref Callback::sharing_function() const {
  if (!keeps_nodes_ || is_default_) return {};
  return attribute(reinterpret_cast<PyObject*>(Py_TYPE(transformation_)), callback_name);
}

Ref Callback::begin_round() const {
  static const InternedName begin_sharing("begin_sharing");
  const Ref function = sharing_function();
  if (!function) return {};
  const Ref begin = optional_attribute(function.get(), begin_sharing);
  return begin ? py::call(begin.get(), {transformation_, graph_}) : Ref{};
}

void Callback::end_round() const {
  static const InternedName end_sharing("end_sharing");
  const Ref function = sharing_function();
  if (!function) return;
  const Ref end = optional_attribute(function.get(), end_sharing);
  if (end) py::call(end.get(), {graph_});
}

bool Callback::call(const Arguments& arguments) const {
  std::vector<PyObject*> stack{transformation_, graph_, arguments.replaced_nodes.get(), arguments.node_mapping.get(),
                               arguments.link_mapping.get()};
  const std::size_t positional = stack.size();
  for (const Ref& value : keyword_values_) stack.push_back(value.get());
  const Ref result =
      checked(PyObject_VectorcallMethod(callback_name.get(), stack.data(), positional, keyword_names_.get()));
  return truth(result.get());
}

}  // namespace onnxgraft::py
