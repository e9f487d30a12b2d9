// Hints for one list of named records: see name_index.h.
//
// Every name has a rank. Ranks grow along the list and keep doing so after any removal; what is appended gets higher
// ones. So a name is found by its rank like a word in a dictionary: at once if nothing moved since the last look-up,
// and in a logarithmic number of reads after removals. Invariant: a hint is never an answer. Each position is read from
// the list before it is returned, and a list that removals and appending cannot explain is read as a whole.
#pragma once

#include <cstddef>
#include <memory_resource>
#include <optional>
#include <unordered_map>

#include "py/ref.h"

namespace onnxgraft::py {

class NameHints {
 public:
  std::optional<Py_ssize_t> find(PyObject* list, PyObject* name);
  [[nodiscard]] std::size_t size() const { return entries_.size(); }

 private:
  struct Entry {
    Py_ssize_t rank;
    Py_ssize_t seen_at;  // position at the last sighting; removals only ever move an element to the left
  };

  /// The result of a search by rank; `unsure` if removals and appending alone do not explain the list.
  struct Outcome {
    enum class Kind { found, absent, unsure } kind;
    Py_ssize_t position = 0;
  };

  /// What was appended since the last reading: its first position and its first rank.
  struct Tail {
    Py_ssize_t begin;
    Py_ssize_t first_rank;
  };

  std::optional<Py_ssize_t> find_known(PyObject* list, PyObject* name);
  Outcome search(PyObject* list, PyObject* name, Py_ssize_t rank, Py_ssize_t end) const;
  bool read_tail(PyObject* list);
  bool place_appended(PyObject* list, PyObject* name, Py_ssize_t position, const Tail& tail);
  std::optional<Py_ssize_t> rebuild(PyObject* list, PyObject* name);

  // From one buffer, so that entries lie in memory in the order of the list. Callers mostly ask in that order.
  std::pmr::monotonic_buffer_resource memory_;
  std::pmr::unordered_map<Py_hash_t, Entry> entries_{&memory_};
  Py_ssize_t next_rank_ = 0;
  Py_ssize_t shift_ = 0;  // rank minus position of the last element found: the first guess for the next
};

/// Position of the first element of that name, by reading them all.
std::optional<Py_ssize_t> walk_to_name(PyObject* list, PyObject* name);

}  // namespace onnxgraft::py
