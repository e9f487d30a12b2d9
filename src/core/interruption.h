// Long work looks up now and then, so that somebody who waits for it can end it.
#pragma once

#include <cstdint>

namespace onnxgraft::core {

/// What long work calls now and then; it ends the work by throwing. Set once, when the module is loaded; null until
/// then.
inline void (*interruption_check)() = nullptr;

/// Counts the steps of one piece of work, each of which takes far less time than a look.
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
