// Changes of a repeated message field in bulk. Single insertions and deletions in the middle cost time in
// proportion to the list each; a reordering and one deletion at the end do any change in one go, and every
// message that stays keeps its identity.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "py/ref.h"

namespace onnxgraft::py {

/// Whether it is protobuf's own list, the C implementation's, and not something that behaves like one.
bool is_message_list(PyObject* list);

/// Sorts the list so that the element at position i comes to position `target[i]`; a permutation. If it raises, the
/// order is as it was.
void reorder(PyObject* list, std::span<const std::uint32_t> target);

/// Deletes positions [begin, end).
void delete_slice(PyObject* list, std::size_t begin, std::size_t end);

/// Deletes the given positions (ascending).
void delete_positions(PyObject* list, const std::vector<std::size_t>& positions);

}  // namespace onnxgraft::py
