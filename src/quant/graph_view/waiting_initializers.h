// New initializers of one round that wait to be put into the graph, all at once. Meanwhile the list stays as it was,
// and look-ups ask here first.
//
// It makes rounds with 10,000 corrected biases linear; single deletions move the rest of the list each time.
#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include "py/objects.h"

namespace onnxgraft::quant {

class WaitingInitializers {
 public:
  /// `record` is to be appended; `old_record`, if it is given, stands in the list and is to go.
  void add(PyObject* name, PyObject* record, PyObject* old_record = nullptr);

  [[nodiscard]] bool empty() const noexcept { return records_.empty() && old_.empty(); }
  /// The record that waits under the name, null if there is none.
  [[nodiscard]] PyObject* find(PyObject* name) const;

  /// Appends what waits to the list, in the order of the `add`s, then takes the old records out. After an error,
  /// another call goes on where this one stopped.
  void write(PyObject* initializers);

 private:
  std::vector<py::Ref> records_;
  std::size_t appended_ = 0;
  std::vector<py::Ref> old_;
  std::unordered_map<std::string, PyObject*> by_name_;  // borrowed from `records_`
};

}  // namespace onnxgraft::quant
