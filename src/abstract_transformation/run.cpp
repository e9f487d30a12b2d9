#include "abstract_transformation/run.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace onnxgraft::py {

namespace {

constexpr const char* capsule_name = "onnxgraft.run";

struct Run {
  PyObject* transformation;
  PyObject* graph;
  std::unique_ptr<GraphReading> reading;

  [[nodiscard]] bool is_of(PyObject* other_transformation, PyObject* other_graph) const {
    return transformation == other_transformation && graph == other_graph;
  }
};

/// The runs under way, whose capsules own them.
std::vector<Run*>& open_runs() {
  static std::vector<Run*> runs;
  return runs;
}

void end_run(PyObject* capsule) {
  const std::unique_ptr<Run> run(static_cast<Run*>(PyCapsule_GetPointer(capsule, capsule_name)));
  std::erase(open_runs(), run.get());
}

}  // namespace

Ref begin_run(PyObject* transformation, PyObject* graph) {
  auto run = std::make_unique<Run>(Run{transformation, graph, nullptr});
  open_runs().push_back(run.get());
  PyObject* capsule = PyCapsule_New(run.get(), capsule_name, end_run);
  if (capsule == nullptr) {
    std::erase(open_runs(), run.get());
    throw PythonError{};
  }
  [[maybe_unused]] const Run* const owned_by_capsule = run.release();
  return Ref::steal(capsule);
}

std::unique_ptr<GraphReading> take_reading(PyObject* transformation, PyObject* graph) {
  std::unique_ptr<GraphReading> reading;
  for (Run* run : open_runs()) {
    if (run->graph != graph) continue;
    std::unique_ptr<GraphReading> known = std::move(run->reading);
    if (run->transformation == transformation) reading = std::move(known);
  }
  return reading ? std::move(reading) : std::make_unique<GraphReading>();
}

void keep_reading(PyObject* transformation, PyObject* graph, std::unique_ptr<GraphReading> reading) noexcept {
  const auto found =
      std::ranges::find_if(open_runs(), [&](const Run* run) { return run->is_of(transformation, graph); });
  if (found != open_runs().end()) (*found)->reading = std::move(reading);
}

}  // namespace onnxgraft::py
