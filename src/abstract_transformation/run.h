// One `apply`: several passes of one transformation over one graph, with nothing in between that edits it, so that they
// share what was read of the graph (see graph_reading.h). It is the session of the method that runs a pass.
//
// Gains two thirds of the time of classes with several pairs of which few are found. Off where the method is overridden
// and where `debug` lines go to a stream.
#pragma once

#include <memory>
#include <utility>

#include "abstract_transformation/one_call.h"
#include "py/function.h"
#include "py/graph_reading.h"

namespace onnxgraft::py {

class Run : public Sharing {
 public:
  explicit Run(PyObject* graph) : graph_(Ref::borrow(graph)), call_(graph) {}

  [[nodiscard]] PyObject* graph() const { return graph_.get(); }
  [[nodiscard]] const OneCall& call() const { return call_; }

  /// What is known of the graph; empty at first, and after somebody else's pass.
  [[nodiscard]] std::unique_ptr<GraphReading> take_reading() {
    std::unique_ptr<GraphReading> known = std::move(reading_);
    return known && !call_.was_disturbed() ? std::move(known) : std::make_unique<GraphReading>();
  }
  /// To be called only while the reading is right.
  void keep_reading(std::unique_ptr<GraphReading> reading) noexcept { reading_ = std::move(reading); }

 private:
  Ref graph_;
  OneCall call_;
  std::unique_ptr<GraphReading> reading_;
};

}  // namespace onnxgraft::py
