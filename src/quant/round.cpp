#include "quant/round.h"

#include <algorithm>
#include <ranges>
#include <utility>

#include "py/message_list.h"
#include "py/under_way.h"
#include "quant/host.h"
#include "quant/initializers.h"
#include "quant/names.h"
#include "quant/tensor_names.h"

namespace onnxgraft::quant {

using py::Ref;

namespace {

/// More than one if several threads work, each on a graph of its own.
using Rounds = py::UnderWay<Round>;

NamePositions::Position position_in_list(Py_ssize_t index) { return static_cast<NamePositions::Position>(index); }

std::vector<Ref> nodes_at(PyObject* nodes, std::span<const NamePositions::Entry> entries) {
  std::vector<Ref> found;
  for (const NamePositions::Entry& entry : entries) {
    if (entry.position != NamePositions::nowhere) found.push_back(py::item(nodes, entry.position));
  }
  return found;
}

}  // namespace

Ref begin_round(PyObject* /*transformation*/, PyObject* graph) { return Rounds::begin(graph); }

void finish_round(PyObject* graph) {
  if (Round* round = Round::on(graph); round != nullptr) round->write_pending();
}

bool Round::may_put_off(PyObject* module) {
  if (!may_put_off_) {
    const Ref initializers = py::attribute(graph_.get(), names::initializer);
    may_put_off_ = py::is_message_list(initializers.get()) && look_up_is_repeatable(module);
  }
  return *may_put_off_;
}

void Round::write_pending() { pending_.write(py::attribute(graph_.get(), names::initializer).get()); }

Round* Round::on(PyObject* graph) noexcept {
  const auto found = std::ranges::find(std::views::reverse(Rounds::all()), graph, &Round::graph);
  return found == Rounds::all().rend() ? nullptr : *found;
}

void Round::read_readers(PyObject* nodes) {
  NamePositions readers;
  const Ref elements = py::iterator(nodes);
  Py_ssize_t position = 0;
  for (; const Ref node = py::next(elements.get()); ++position) {
    if (!has_op_type(node.get(), names::conv)) continue;
    const Ref inputs = py::attribute(node.get(), names::input);
    const Py_ssize_t count = py::length(inputs.get());
    for (Py_ssize_t at = 0; at < count; ++at) {
      readers.add(py::utf8(py::item(inputs.get(), at).get()), position_in_list(position));
    }
  }
  readers.sort();
  nodes_read_ = position;
  readers_ = std::move(readers);
}

void Round::read_names(PyObject* nodes) {
  NamePositions names;
  const auto add = [&](const Ref& name, Py_ssize_t node) {
    names.add(py::utf8(name.get()), node < 0 ? NamePositions::nowhere : position_in_list(node));
    return false;
  };
  any_initializer_name(graph_.get(), add);
  any_other_tensor_name(graph_.get(), add);
  names.sort();
  nodes_named_ = py::length(nodes);
  initializers_ = py::length(py::attribute(graph_.get(), names::initializer).get());
  names_ = std::move(names);
}

std::optional<std::vector<Ref>> Round::possible_readers(PyObject* nodes, PyObject* tensor) {
  if (PyUnicode_CheckExact(tensor) == 0) return std::nullopt;
  const std::string_view name = py::utf8(tensor);
  if (biases_.contains(NamePositions::hash_of(name))) return std::nullopt;
  if (nodes_read_ != py::length(nodes)) read_readers(nodes);
  return nodes_at(nodes, readers_.find(name));
}

std::vector<Ref> Round::possible_writers(PyObject* nodes, PyObject* tensor) {
  if (nodes_named_ != py::length(nodes)) read_names(nodes);
  return nodes_at(nodes, names_.find(py::utf8(tensor)));
}

bool Round::may_be_tensor_name(PyObject* name) {
  const Py_ssize_t initializers = py::length(py::attribute(graph_.get(), names::initializer).get());
  if (initializers_ != initializers) read_names(py::attribute(graph_.get(), names::node).get());
  const std::string_view text = py::utf8(name);
  return biases_.contains(NamePositions::hash_of(text)) || !names_.find(text).empty();
}

void Round::note_bias(PyObject* name, bool is_new) {
  biases_.insert(NamePositions::hash_of(py::utf8(name)));
  if (is_new) ++initializers_;
}

}  // namespace onnxgraft::quant
