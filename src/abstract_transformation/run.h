// One `apply`: several passes of one transformation over one graph, with nothing in between that edits it. They share
// what was read of the graph (see graph_reading.h).
//
// Whoever runs the passes says where a run begins and ends; only our own classes do, and only where the built-in
// method runs each pass.
#pragma once

#include <memory>

#include "py/graph_reading.h"
#include "py/ref.h"

namespace onnxgraft::py {

/// Begins a run; it ends when the object that comes back goes away. Both arguments must outlive it.
Ref begin_run(PyObject* transformation, PyObject* graph);

/// What is known of the graph: empty outside of a run. A pass of another transformation on the graph of a run makes
/// the run forget what it knew.
std::unique_ptr<GraphReading> take_reading(PyObject* transformation, PyObject* graph);

/// Keeps what a pass leaves for the next one of its run. To be called only while the reading is right.
void keep_reading(PyObject* transformation, PyObject* graph, std::unique_ptr<GraphReading> reading) noexcept;

}  // namespace onnxgraft::py
