#include "abstract_transformation/run.h"

#include <algorithm>
#include <utility>

#include "py/under_way.h"

namespace onnxgraft::py {

namespace {

struct Run {
  PyObject* transformation;
  PyObject* graph;
  std::unique_ptr<GraphReading> reading;

  [[nodiscard]] bool is_of(PyObject* other_transformation, PyObject* other_graph) const {
    return transformation == other_transformation && graph == other_graph;
  }
};

using Runs = UnderWay<Run>;

}  // namespace

Ref begin_run(PyObject* transformation, PyObject* graph) { return Runs::begin(Run{transformation, graph, nullptr}); }

std::unique_ptr<GraphReading> take_reading(PyObject* transformation, PyObject* graph) {
  std::unique_ptr<GraphReading> reading;
  for (Run* run : Runs::all()) {
    if (run->graph != graph) continue;
    std::unique_ptr<GraphReading> known = std::move(run->reading);
    if (run->transformation == transformation) reading = std::move(known);
  }
  return reading ? std::move(reading) : std::make_unique<GraphReading>();
}

void keep_reading(PyObject* transformation, PyObject* graph, std::unique_ptr<GraphReading> reading) noexcept {
  const auto found =
      std::ranges::find_if(Runs::all(), [&](const Run* run) { return run->is_of(transformation, graph); });
  if (found != Runs::all().end()) (*found)->reading = std::move(reading);
}

}  // namespace onnxgraft::py
