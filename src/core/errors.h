// What the core reports to its caller; the interpreter's side turns these into Python exceptions.
#pragma once

#include <stdexcept>

namespace onnxgraft::core {

/// A pattern or replacement list that does not follow the notation (a ValueError in Python).
class NotationError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

}  // namespace onnxgraft::core
