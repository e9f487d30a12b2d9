// The list of calls at work, one for the process.
//
// It is read and written only while the interpreter's lock is held, and compares addresses: it must not touch the
// graphs.
#include "abstract_transformation/one_call.h"

namespace onnxgraft::py {

std::list<OneCall::Entry>& OneCall::entries() {
  static std::list<Entry> all;
  return all;
}

OneCall::OneCall(PyObject* graph, const OneCall* within) {
  const std::thread::id thread = std::this_thread::get_id();
  for (const Entry& other : entries()) {
    if (other.graph != graph || (other.thread == thread && !other.alone)) continue;
    raise(PyExc_RuntimeError, "a graph is rewritten by one call at a time, and another one is at work on this graph");
  }
  for (auto other = entries().begin(); other != entries().end(); ++other) {
    if (other->graph == graph && (within == nullptr || other != within->entry_)) other->disturbed = true;
  }
  entry_ = entries().insert(entries().end(), Entry{graph, thread});
}

OneCall::~OneCall() { entries().erase(entry_); }

}  // namespace onnxgraft::py
