// What the core reports to its caller.
//
// The core throws NotationError for lists that break the rules, and lets pass what others throw in it: std::bad_alloc
// and whatever the interruption check throws. It does not know Python. The layer above turns NotationError into a
// ValueError, so its text must make sense to a user without further context.
#pragma once

#include <stdexcept>

namespace onnxgraft::core {

/// A pattern or replacement list that does not follow the notation (a ValueError in Python).
class NotationError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

}  // namespace onnxgraft::core
