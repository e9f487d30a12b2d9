#include "quant/shared_look_up.h"

#include <algorithm>
#include <array>
#include <utility>

#include "quant/host.h"
#include "quant/initializers.h"
#include "quant/names.h"
#include "quant/quantized_operators.h"

namespace onnxgraft::quant {

using py::Call;
using py::InternedName;
using py::Ref;

namespace {

const InternedName repeatable("repeatable");

thread_local SharedLookUp* innermost = nullptr;

struct Method {
  InternedName name;
  Ref (*body)(const Call&);
};

// What runs between the two look-ups, and they themselves.
const std::array methods{
    Method{InternedName("_check_current_precision"), needs_quantizing},
    Method{InternedName("_update_tesselquant"), update_quantize_node},
    Method{InternedName("_update_quant_weights_operators"), add_quantized_initializers},
    Method{InternedName("_update_weights"), draw_weights},
};

bool is_built_in(PyObject* self, const Method& method) {
  const Ref bound = py::optional_attribute(self, method.name);
  if (!bound || PyMethod_Check(bound.get()) == 0) return false;
  const py::FunctionRow* row = py::row_of(PyMethod_Function(bound.get()));
  return row != nullptr && row->body == method.body;
}

bool can_share(const Call& callback) {
  const Ref get_init = member(callback.module, names::transform_utilities, names::get_init);
  const Ref promise = py::optional_attribute(get_init.get(), repeatable);
  if (!promise || !py::truth(promise.get())) return false;
  return std::ranges::all_of(methods, [&](const Method& method) { return is_built_in(callback[0], method); });
}

}  // namespace

SharedLookUp::SharedLookUp(const Call& callback) : outer_(innermost), active_(can_share(callback)) { innermost = this; }

SharedLookUp::~SharedLookUp() { innermost = outer_; }

Ref SharedLookUp::look_up(PyObject* module, PyObject* graph, const Ref& name) {
  SharedLookUp* shared = innermost;
  const bool sharing = shared != nullptr && shared->active_;
  if (sharing && shared->found_ && shared->graph_.get() == graph && shared->name_.get() == name.get()) {
    return std::move(shared->found_);  // not kept: it holds the contents of the weight
  }
  Ref found = get_init(module, graph, py::tuple({name.get()}).get());
  if (sharing) {
    shared->graph_ = Ref::borrow(graph);
    shared->name_ = Ref::borrow(name.get());
    shared->found_ = Ref::borrow(found.get());
  }
  return found;
}

}  // namespace onnxgraft::quant
