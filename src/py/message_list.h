// Changes of a repeated message field in bulk.
//
// A single insertion or deletion in the middle costs time in proportion to the list. One reordering and one deletion at
// the end make any change at once, and every message that stays keeps its identity. Invariant: if a function raises,
// the list is as it was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "py/ref.h"

namespace onnxgraft::py {

/// Whether it is protobuf's own list, made in C. Lengths and bytes of other lists may be anything.
bool is_message_list(PyObject* list);

/// Moves the element at each position i to `target[i]`, which must be a permutation.
void reorder(PyObject* list, std::span<const std::uint32_t> target);

/// Deletes positions [begin, end).
void delete_slice(PyObject* list, std::size_t begin, std::size_t end);

/// Deletes the given positions (ascending). The clean-up and the end of a round use it for initializers: one by one, n
/// deletions would move the rest of the list n times.
void delete_positions(PyObject* list, const std::vector<std::size_t>& positions);

}  // namespace onnxgraft::py
