// Looking names up by rank, with as few reads of the list as possible.
//
// A read costs a call into protobuf, so reads are what is saved: a look-up between edits takes one, where a walk takes
// half the list. Rewrites replace initializers one by one (append the new, delete the old), and that is the case to be
// fast in. Any other edit falls back to a reading of the whole list, which is right after everything.
#include "py/name_hints.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <ranges>
#include <utility>
#include <vector>

#include "py/objects.h"

namespace onnxgraft::py {

namespace {

// New names that are read as a tail, next to an eighth of the list. Beyond that a rebuild costs less.
constexpr Py_ssize_t longest_tail = 64;
// How far below the highest rank the last old element may be: that many of the last ones may have been removed.
constexpr Py_ssize_t rank_slack = 8;

/// Empty after the end. The list may become shorter while it is read, since reading a `name` may run any code.
Ref name_at(PyObject* list, Py_ssize_t position) {
  static const InternedName name("name");
  const Ref element = Ref::steal(PySequence_GetItem(list, position));
  if (element) return attribute(element.get(), name);
  if (PyErr_ExceptionMatches(PyExc_IndexError) == 0) throw PythonError{};
  PyErr_Clear();
  return {};
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
  for (Py_ssize_t position = 0;; ++position) {
    const Ref own_name = name_at(list, position);
    if (!own_name) return std::nullopt;
    if (equal(own_name, name)) return position;
  }
}

/// Three attempts, each more expensive than the one before: by the known ranks, after reading what was appended, and
/// after reading everything.
std::optional<Py_ssize_t> NameHints::find(PyObject* list, PyObject* name) {
  if (entries_.empty()) return rebuild(list, name);
  std::optional<Py_ssize_t> position = find_known(list, name);
  if (!position && read_tail(list)) position = find_known(list, name);
  return position ? position : rebuild(list, name);
}

std::optional<Py_ssize_t> NameHints::find_known(PyObject* list, PyObject* name) {
  const auto place = entries_.find(hash_of(name));
  if (place == entries_.end()) return std::nullopt;
  Entry& entry = place->second;
  const auto [kind, position] = search(list, name, entry.rank, length(list));
  if (kind != Outcome::Kind::found) return std::nullopt;
  entry.seen_at = position;
  shift_ = entry.rank - position;
  return position;
}

/// Searches for a name before `end` by its rank. The first guess assumes that the list did not change since the last
/// look-up. Each element that is read bounds the distance, since ranks differ by at least one per element; every second
/// guess halves the rest, so that the number of reads is logarithmic. An element that moved to the right had something
/// inserted before it, perhaps of the wanted name.
NameHints::Outcome NameHints::search(PyObject* list, PyObject* name, Py_ssize_t rank, Py_ssize_t end) const {
  Py_ssize_t first = 0;
  Py_ssize_t last = end - 1;
  Py_ssize_t guess = rank - shift_;
  for (bool halve = false; first <= last; halve = !halve) {
    const Py_ssize_t position = std::clamp(guess, first, last);
    const Ref found = name_at(list, position);
    if (!found) return {Outcome::Kind::unsure};
    const auto place = entries_.find(hash_of(found.get()));
    // An element without a rank was appended since, or inserted.
    if (place == entries_.end()) return {Outcome::Kind::unsure};
    const Entry& entry = place->second;
    const bool moved_right = position > entry.seen_at;
    if (equal(found, name) && !moved_right) return {Outcome::Kind::found, position};
    if (moved_right) return {Outcome::Kind::unsure};
    if (entry.rank < rank) {
      first = position + 1;
      last = std::min(last, position + (rank - entry.rank));
      guess = halve ? std::midpoint(first, last) : last;
    } else {
      last = position - 1;
      first = std::max(first, position - (entry.rank - rank));
      guess = halve ? std::midpoint(first, last) : first;
    }
  }
  return {Outcome::Kind::absent};
}

/// Assigns ranks to what was appended: everything after the last element that did not move to the right. False if
/// something may have been inserted, or if so much is new that a rebuild costs less.
bool NameHints::read_tail(PyObject* list) {
  std::vector<Ref> names;  // from the end
  const Py_ssize_t count = length(list);
  const Py_ssize_t limit = longest_tail + (count / 8);
  Tail tail{count, next_rank_};
  for (; tail.begin > 0; --tail.begin) {
    const Py_ssize_t position = tail.begin - 1;
    Ref name = name_at(list, position);
    if (!name || std::ssize(names) > limit) return false;
    const auto known = entries_.find(hash_of(name.get()));
    // The last of the old elements has nearly the last of the ranks; an old rank alone, near the end, was moved.
    const Py_ssize_t slack = rank_slack + std::ssize(names);
    if (known != entries_.end() && position <= known->second.seen_at && known->second.rank + slack >= next_rank_) {
      known->second.seen_at = position;
      break;
    }
    names.push_back(std::move(name));
  }
  Py_ssize_t position = tail.begin;
  for (const Ref& name : std::views::reverse(names)) {
    if (!place_appended(list, name.get(), position++, tail)) return false;
  }
  return true;
}

/// A name that is already known was removed and appended again; false if the list has it twice.
bool NameHints::place_appended(PyObject* list, PyObject* name, Py_ssize_t position, const Tail& tail) {
  const auto [place, is_new] = entries_.try_emplace(hash_of(name), Entry{next_rank_, position});
  if (!is_new) {
    const Py_ssize_t rank = place->second.rank;
    if (rank >= tail.first_rank || search(list, name, rank, tail.begin).kind != Outcome::Kind::absent) return false;
    place->second = Entry{next_rank_, position};
  }
  ++next_rank_;
  return true;
}

/// Reads the whole list, and finds the name on the way.
std::optional<Py_ssize_t> NameHints::rebuild(PyObject* list, PyObject* name) {
  entries_ = std::pmr::unordered_map<Py_hash_t, Entry>(&memory_);
  memory_.release();
  shift_ = 0;
  entries_.reserve(static_cast<std::size_t>(length(list)));
  std::optional<Py_ssize_t> found;
  bool repeated = false;
  for (next_rank_ = 0; const Ref own_name = name_at(list, next_rank_); ++next_rank_) {
    if (!found && equal(own_name, name)) found = next_rank_;
    const bool is_new = entries_.try_emplace(hash_of(own_name.get()), Entry{next_rank_, next_rank_}).second;
    repeated = repeated || !is_new;
  }
  // A hint cannot know which of several equal names comes first. While there are any, the list is read each time.
  if (repeated) entries_.clear();
  return found;
}

}  // namespace onnxgraft::py
