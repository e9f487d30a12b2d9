// What is under way for as long as a Python object lives, such as one `apply`: the object is a capsule that owns it.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "py/ref.h"

namespace onnxgraft::py {

template <class Thing>
class UnderWay {
 public:
  /// Makes one; it goes when the object that comes back goes.
  template <class... Arguments>
  static Ref begin(Arguments&&... arguments) {
    auto thing = std::make_unique<Thing>(std::forward<Arguments>(arguments)...);
    Ref capsule = checked(PyCapsule_New(thing.get(), capsule_name, end));
    list().push_back(thing.release());
    return capsule;
  }

  /// All that are under way, oldest first.
  static const std::vector<Thing*>& all() noexcept { return list(); }

 private:
  static constexpr const char* capsule_name = "onnxgraft.under_way";

  static std::vector<Thing*>& list() noexcept {
    static std::vector<Thing*> things;
    return things;
  }

  static void end(PyObject* capsule) noexcept {
    const std::unique_ptr<Thing> thing(static_cast<Thing*>(PyCapsule_GetPointer(capsule, capsule_name)));
    std::erase(list(), thing.get());
  }
};

}  // namespace onnxgraft::py
