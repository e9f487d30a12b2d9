// Appends and deletes the initializers of a round.
//
// After an error, another call of `write` continues where this one stopped. Must not know why a record changes.
#include "quant/graph_view/waiting_initializers.h"

#include <unordered_set>

#include "py/message_list.h"
#include "quant/numpy/host.h"

namespace onnxgraft::quant {

using py::Ref;

void WaitingInitializers::add(PyObject* name, PyObject* record, PyObject* old_record) {
  records_.push_back(Ref::borrow(record));
  if (old_record != nullptr) old_.push_back(Ref::borrow(old_record));
  by_name_[std::string(py::utf8(name))] = record;
}

PyObject* WaitingInitializers::find(PyObject* name) const {
  if (by_name_.empty() || PyUnicode_Check(name) == 0) return nullptr;
  const auto found = by_name_.find(std::string(py::utf8(name)));
  return found == by_name_.end() ? nullptr : found->second;
}

void WaitingInitializers::write(PyObject* initializers) {
  by_name_.clear();
  for (; appended_ < records_.size(); ++appended_) {
    extend(initializers, py::tuple({records_[appended_].get()}).get());
  }
  records_.clear();
  appended_ = 0;
  std::unordered_set<PyObject*> going;
  for (const Ref& record : old_) going.insert(record.get());
  std::vector<std::size_t> positions;
  const Py_ssize_t count = py::length(initializers);
  for (Py_ssize_t at = 0; !going.empty() && at < count; ++at) {
    if (going.contains(py::item(initializers, at).get())) positions.push_back(static_cast<std::size_t>(at));
  }
  py::delete_positions(initializers, positions);
  old_.clear();
}

}  // namespace onnxgraft::quant
