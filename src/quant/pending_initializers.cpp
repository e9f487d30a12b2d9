#include "quant/pending_initializers.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "py/message_list.h"
#include "quant/host.h"

namespace onnxgraft::quant {

using py::Ref;

void PendingInitializers::add(PyObject* name, const Ref& record, PyObject* old_record, Py_ssize_t old_position) {
  records_.push_back(Ref::borrow(record.get()));
  if (old_record != nullptr) old_.push_back({Ref::borrow(old_record), old_position});
  by_name_[std::string(py::utf8(name))] = record.get();
}

PyObject* PendingInitializers::find(PyObject* name) const {
  if (by_name_.empty() || PyUnicode_Check(name) == 0) return nullptr;
  const auto found = by_name_.find(std::string(py::utf8(name)));
  return found == by_name_.end() ? nullptr : found->second;
}

void PendingInitializers::write(PyObject* initializers) {
  by_name_.clear();
  for (; appended_ < records_.size(); ++appended_) {
    extend(initializers, py::tuple({records_[appended_].get()}).get());
  }
  records_.clear();
  appended_ = 0;
  take_out_old(initializers);
  old_.clear();
}

void PendingInitializers::take_out_old(PyObject* initializers) {
  const auto stands_there = [&](const Old& old) {
    return py::item(initializers, old.position).get() == old.record.get();
  };
  std::vector<std::size_t> positions;
  if (std::ranges::all_of(old_, stands_there)) {
    for (const Old& old : old_) positions.push_back(static_cast<std::size_t>(old.position));
    std::ranges::sort(positions);
  } else {
    std::unordered_set<PyObject*> going;
    for (const Old& old : old_) going.insert(old.record.get());
    const Py_ssize_t count = py::length(initializers);
    for (Py_ssize_t at = 0; at < count; ++at) {
      if (going.contains(py::item(initializers, at).get())) positions.push_back(static_cast<std::size_t>(at));
    }
  }
  py::delete_positions(initializers, positions);
}

}  // namespace onnxgraft::quant
