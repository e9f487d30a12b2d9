// Finds weights and biases of convolutions, and words what is missing.
//
// Nothing is written here. Must not know offsets: the correction is in quant_pull_up.cpp.
#include "quant/families/reading_convolutions.h"

#include <algorithm>

#include "quant/families/occurrence.h"
#include "quant/numpy/names.h"

namespace onnxgraft::quant {

using py::Ref;

namespace {

constexpr Py_ssize_t weight_input = 1;
constexpr Py_ssize_t bias_input = 2;

Ref pads_of(const Ref& node) {
  return first_value(py::attribute(node.get(), names::attribute).get(), names::pads, names::ints);
}

bool is_padded(const Ref& node) {
  const Ref values = pads_of(node);
  if (!values) return false;
  const Ref elements = py::iterator(values.get());
  while (const Ref value = py::next(elements.get())) {
    if (py::truth(value.get())) return true;
  }
  return false;
}

/// The name of the bias; empty if there is none.
Ref bias_name(const Ref& node) {
  const Ref inputs = py::attribute(node.get(), names::input);
  if (py::length(inputs.get()) <= bias_input) return {};
  Ref name = py::item(inputs.get(), bias_input);
  return py::truth(name.get()) ? std::move(name) : Ref{};
}

/// The elements of one half of a look-up's result; none unless there is something for every name.
std::optional<std::vector<Ref>> complete(const Ref& half, Py_ssize_t count) {
  if (half.get() == Py_None || py::length(half.get()) < count) return std::nullopt;
  std::vector<Ref> elements;
  for (Py_ssize_t index = 0; index < count; ++index) {
    elements.push_back(py::item(half.get(), index));
    if (elements.back().get() == Py_None) return std::nullopt;
  }
  return elements;
}

struct Found {
  std::vector<Ref> arrays;
  std::vector<Ref> records;
};

std::optional<Found> look_up(GraphView& view, const Ref& name_list) {
  const Py_ssize_t count = py::length(name_list.get());
  if (count == 0) return Found{};
  const Ref result = view.look_up(name_list.get());
  if (result.get() == Py_None) return std::nullopt;
  const auto [array_half, record_half] = py::unpack_pair(result.get());
  auto arrays = complete(array_half, count);
  auto records = complete(record_half, count);
  if (!arrays || !records) return std::nullopt;
  return Found{std::move(*arrays), std::move(*records)};
}

}  // namespace

bool any_padded(const std::vector<Ref>& convolutions) { return std::ranges::any_of(convolutions, is_padded); }

Ref padding_words(const std::vector<Ref>& convolutions, PyObject* tensor) {
  const Ref& node = *std::ranges::find_if(convolutions, is_padded);
  const Ref pads = py::checked(PySequence_List(pads_of(node).get()));
  return py::checked(PyUnicode_FromFormat("%S that reads '%S' has padding (pads = %R)", node_words(node.get()).get(),
                                          tensor, pads.get()));
}

std::optional<std::vector<ReadingConvolution>> with_tensors(GraphView& view, std::vector<Ref> convolutions) {
  const Ref weight_names = py::checked(PyList_New(0));
  const Ref bias_names = py::checked(PyList_New(0));
  std::vector<ReadingConvolution> found;
  for (Ref& node : convolutions) {
    const Ref inputs = py::attribute(node.get(), names::input);
    py::check(PyList_Append(weight_names.get(), py::item(inputs.get(), weight_input).get()));
    found.push_back({std::move(node), {}, {}, {}});
  }
  std::optional<Found> weights = look_up(view, weight_names);
  if (!weights) return std::nullopt;
  std::vector<ReadingConvolution*> with_bias;
  for (ReadingConvolution& convolution : found) {
    const Ref name = bias_name(convolution.node);
    if (!name) continue;
    if (PyObject* record = view.waiting().find(name.get()); record != nullptr) {
      convolution.bias_record = Ref::borrow(record);
      continue;
    }
    py::check(PyList_Append(bias_names.get(), name.get()));
    with_bias.push_back(&convolution);
  }
  std::optional<Found> biases = look_up(view, bias_names);
  if (!biases) return std::nullopt;
  for (std::size_t index = 0; index < found.size(); ++index) found[index].weight = std::move(weights->arrays[index]);
  for (std::size_t index = 0; index < with_bias.size(); ++index) {
    with_bias[index]->bias = std::move(biases->arrays[index]);
    with_bias[index]->bias_record = std::move(biases->records[index]);
  }
  return found;
}

Ref tensor_words(GraphView& view, PyObject* tensor) {
  for (const Ref& node : view.readers(names::conv, tensor)) {
    const Ref inputs = py::attribute(node.get(), names::input);
    const Py_ssize_t count = std::min(py::length(inputs.get()), bias_input + 1);
    for (Py_ssize_t position = weight_input; position < count; ++position) {
      const Ref name = py::item(inputs.get(), position);
      if (!py::truth(name.get()) || view.has_initializer(name.get())) continue;
      return py::checked(PyUnicode_FromFormat("the %s '%S' of %S that reads '%S' is not an initializer",
                                              position == weight_input ? "weight" : "bias", name.get(),
                                              node_words(node.get()).get(), tensor));
    }
  }
  return py::checked(
      PyUnicode_FromFormat("weights or biases of Conv nodes that read '%S' cannot be looked up", tensor));
}

}  // namespace onnxgraft::quant
