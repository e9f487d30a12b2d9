#include "py/name_hints.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <ranges>
#include <vector>

#include "py/objects.h"

namespace onnxgraft::py {

namespace {

constexpr Py_ssize_t unplaced = -1;

Ref name_at(PyObject* list, Py_ssize_t position) {
  static const InternedName name("name");
  return attribute(item(list, position).get(), name);
}

bool equal(const Ref& own_name, PyObject* name) {
  return check(PyObject_RichCompareBool(own_name.get(), name, Py_EQ)) != 0;
}

Py_hash_t hash_of(PyObject* name) {
  const Py_hash_t hash = PyObject_Hash(name);
  if (hash == -1) throw PythonError{};
  return hash;
}

}  // namespace

std::optional<Py_ssize_t> walk_to_name(PyObject* list, PyObject* name) {
  const Py_ssize_t count = length(list);
  for (Py_ssize_t position = 0; position < count; ++position) {
    if (equal(name_at(list, position), name)) return position;
  }
  return std::nullopt;
}

std::optional<Py_ssize_t> NameHints::find(PyObject* list, PyObject* name) {
  if (entries_.empty()) return rebuild(list, name);
  const Py_hash_t hash = hash_of(name);
  for (const bool tail_read : {false, true}) {
    if (tail_read) read_tail(list);
    const auto entry = entries_.find(hash);
    if (entry == entries_.end()) continue;
    if (entry->second.repeated) return walk_to_name(list, name);
    const Py_ssize_t seen_at = entry->second.seen_at;
    const std::optional<Py_ssize_t> position = search_and_note(list, name, entry->second);
    // What moved to the right had something inserted in front of it, perhaps of an equal name.
    if (position && *position > seen_at) break;
    if (position) return position;
  }
  return rebuild(list, name);
}

std::optional<Py_ssize_t> NameHints::search_and_note(PyObject* list, PyObject* name, Entry& entry) {
  const std::optional<Py_ssize_t> position = search(list, name, entry.rank, length(list));
  if (position) {
    entry.seen_at = *position;
    shift_ = entry.rank - *position;
  }
  return position;
}

/// Looks for a name in front of `end` by its rank. The first guess is where the last look-up was right; each
/// element read bounds the distance, since ranks differ by at least one per element.
std::optional<Py_ssize_t> NameHints::search(PyObject* list, PyObject* name, Py_ssize_t rank, Py_ssize_t end) const {
  Py_ssize_t first = 0;
  Py_ssize_t last = end - 1;
  Py_ssize_t guess = rank - shift_;
  for (bool halve = false; first <= last; halve = !halve) {
    const Py_ssize_t position = std::clamp(guess, first, last);
    const Ref found = name_at(list, position);
    if (equal(found, name)) return position;
    const auto entry = entries_.find(hash_of(found.get()));
    // An element without a rank was appended since.
    const Py_ssize_t found_rank = entry == entries_.end() ? std::numeric_limits<Py_ssize_t>::max() : entry->second.rank;
    if (found_rank < rank) {
      first = position + 1;
      last = std::min(last, position + (rank - found_rank));
      guess = halve ? std::midpoint(first, last) : last;
    } else {
      last = position - 1;
      if (entry != entries_.end()) first = std::max(first, position - (found_rank - rank));
      guess = halve || entry == entries_.end() ? std::midpoint(first, last) : first;
    }
  }
  return std::nullopt;
}

/// Gives ranks to what was appended: everything behind the last element that did not move to the right.
void NameHints::read_tail(PyObject* list) {
  std::vector<Py_hash_t> appended;
  Py_ssize_t position = length(list);
  while (position-- > 0) {
    const Ref name = name_at(list, position);
    const Py_hash_t hash = hash_of(name.get());
    const auto [place, is_new] = entries_.try_emplace(hash, Entry{0, unplaced});
    Entry& entry = place->second;
    if (position <= entry.seen_at) {
      entry.seen_at = position;
      break;
    }
    if (!is_new) {
      // Appended again, or a second element of that name.
      const bool twice = entry.seen_at == unplaced || search(list, name.get(), entry.rank, position);
      entry.repeated = entry.repeated || twice;
    }
    entry.seen_at = unplaced;
    appended.push_back(hash);
  }
  for (const Py_hash_t hash : std::views::reverse(appended)) {
    Entry& entry = entries_[hash];
    entry.rank = next_rank_++;
    entry.seen_at = ++position;
  }
}

std::optional<Py_ssize_t> NameHints::rebuild(PyObject* list, PyObject* name) {
  entries_.clear();
  shift_ = 0;
  next_rank_ = length(list);
  entries_.reserve(static_cast<std::size_t>(next_rank_));
  std::optional<Py_ssize_t> found;
  for (Py_ssize_t position = 0; position < next_rank_; ++position) {
    const Ref own_name = name_at(list, position);
    if (!found && equal(own_name, name)) found = position;
    const auto [entry, is_new] = entries_.try_emplace(hash_of(own_name.get()), Entry{position, position});
    if (!is_new) entry->second.repeated = true;
  }
  return found;
}

}  // namespace onnxgraft::py
