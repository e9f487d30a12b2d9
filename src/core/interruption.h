// Ends long work when the user asks for it, without the core knowing the interpreter.
//
// On a hostile pattern the search can run for a long time, and so can a splice of a very large graph. Such work counts
// its steps and now and then calls a function that looks for a pending interruption (Ctrl-C) and throws. Callers must
// therefore expect an exception from every function that takes steps, and discard what it had half made.
#pragma once

#include <cstdint>

namespace onnxgraft::core {

/// What long work calls; it ends the work by throwing. Set once, when the module is loaded, and null before that.
inline void (*interruption_check)() = nullptr;

/// Counts the steps of one piece of work. A step takes far less time than the call, so there is one call per 1,024
/// steps.
class Interruptible {
 public:
  void step() {
    if (++steps_ % steps_per_look == 0 && interruption_check != nullptr) interruption_check();
  }

 private:
  static constexpr std::uint32_t steps_per_look = 1024;
  std::uint32_t steps_ = 0;
};

}  // namespace onnxgraft::core
