// Makes a callback's arguments and calls it, for the pass.
//
// An occurrence whose node is gone raises before its callback runs. The file must not know what a callback does with
// its arguments, nor edit the graph itself.
#include "abstract_transformation/callback.h"

#include <algorithm>
#include <string>

#include "py/objects.h"
#include "py/session.h"

namespace onnxgraft::py {

namespace {

const InternedName callback_name("_on_replace_subgraph");
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
    : transformation_(transformation), graph_(graph), extra_(extra), rule_(rule) {
  const Ref method = attribute(transformation, callback_name);
  is_default_ = PyMethod_Check(method.get()) != 0 && row_of(PyMethod_Function(method.get())) == &default_callback() &&
                !is_observed(PyMethod_Function(method.get()));
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

void Callback::begin_round() {
  if (is_default_) return;
  session_ = begin_session(attribute(transformation_, callback_name).get(), graph_);
  changes_ = std::min(changes_, session_ ? changes_of(session_.get()) : Changes::anything);
}

void Callback::end_round() {
  if (session_) finish_session(session_.get());
}

bool Callback::call(const Arguments& arguments) const {
  const Ref positional =
      tuple({graph_, arguments.replaced_nodes.get(), arguments.node_mapping.get(), arguments.link_mapping.get()});
  const Ref method = session_ ? session_.copy() : attribute(transformation_, callback_name);
  const Ref result = checked(PyObject_Call(method.get(), positional.get(), extra_));
  return truth(result.get());
}

}  // namespace onnxgraft::py
