// A graph is rewritten by one call at a time.
//
// A pass and an `apply` note the graph that they work on. Another thread that comes to it is refused, and so is any
// call that comes while a callback is at work that promised to leave the nodes alone (from a function that replaces one
// of NumPy's, or from another greenlet). A callback without promise may run further passes over its graph.
#pragma once

#include <list>
#include <thread>

#include "py/ref.h"

namespace onnxgraft::py {

class OneCall {
 public:
  /// RuntimeError if somebody else is at work on the graph. `within`: the call that this one is part of, or null.
  explicit OneCall(PyObject* graph, const OneCall* within = nullptr);
  ~OneCall();
  OneCall(const OneCall&) = delete;
  OneCall& operator=(const OneCall&) = delete;

  /// Whether further calls from the same thread are refused too.
  void keep_out_others(bool all) { entry_->alone = all; }
  /// True if another call was at work on the graph, other than as a part of this one.
  [[nodiscard]] bool was_disturbed() const { return entry_->disturbed; }

 private:
  struct Entry {
    PyObject* graph;  // borrowed
    std::thread::id thread;
    bool alone = false;
    bool disturbed = false;
  };
  // Not on the stack: greenlets of one thread exchange their stacks.
  static std::list<Entry>& entries();

  std::list<Entry>::iterator entry_;
};

}  // namespace onnxgraft::py
