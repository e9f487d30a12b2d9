// New initializers of one round that wait to be put into the graph, all in one go.
//
// Taking one initializer out of the middle of protobuf's list moves all that stand behind it; for many, that is most of
// the time. While they wait, the list stands as it was: positions in it stay right, and whoever looks a name up asks
// here first.
#pragma once

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

#include "py/objects.h"

namespace onnxgraft::quant {

class PendingInitializers {
 public:
  /// `record` is to be appended; if `old_record` is given, it stands at `old_position` and is to go.
  void add(PyObject* name, const py::Ref& record, PyObject* old_record = nullptr, Py_ssize_t old_position = -1);

  [[nodiscard]] bool empty() const noexcept { return records_.empty(); }
  /// The record that waits under the name, null if there is none.
  [[nodiscard]] PyObject* find(PyObject* name) const;

  /// Appends what waits to the list, in the order of the `add`s, then takes the old records out. After an error,
  /// another call goes on where this one stopped.
  void write(PyObject* initializers);

 private:
  struct Old {
    py::Ref record;
    Py_ssize_t position;
  };
  void take_out_old(PyObject* initializers);

  std::vector<py::Ref> records_;
  std::size_t appended_ = 0;
  std::vector<Old> old_;
  std::unordered_map<std::string, PyObject*> by_name_;  // borrowed from `records_`
};

}  // namespace onnxgraft::quant
