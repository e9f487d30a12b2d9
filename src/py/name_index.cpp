// The cache of hints: which graphs it remembers, and how it is used safely.
//
// The cache is bounded in graphs and in entries, since it outlives every call. Hints in use are taken out of it, so
// that code that runs meanwhile (another thread, a record with a `name` property) never meets hints that are half
// changed.
#include "py/name_index.h"

#include <algorithm>
#include <list>
#include <memory>
#include <utility>

#include "py/name_hints.h"
#include "py/objects.h"

namespace onnxgraft::py {

namespace {

constexpr Py_ssize_t walked_length = 24;         // up to this length a walk costs little more than a hint
constexpr std::size_t kept_graphs = 4;           // a transformation works on one graph, its callbacks perhaps on others
constexpr std::size_t kept_entries = 1U << 20U;  // for all graphs but the newest

/// Addresses of the owner and of the field's name. Neither is held.
using Key = std::pair<const PyObject*, const PyObject*>;

/// The hints for the graphs that were asked for last, newest first.
class HintCache {
 public:
  void clear() noexcept { slots_.clear(); }

  /// Takes the hints out; new ones if there are none.
  std::unique_ptr<NameHints> take(const Key& key) {
    const auto found = std::ranges::find(slots_, key, &Slot::key);
    if (found == slots_.end()) return std::make_unique<NameHints>();
    std::unique_ptr<NameHints> hints = std::move(found->hints);
    slots_.erase(found);
    return hints;
  }

  /// Puts them back as the newest, and drops the oldest beyond the bounds. If code that ran meanwhile put hints for the
  /// same list, these are replaced.
  void put(const Key& key, std::unique_ptr<NameHints> hints) {
    std::erase_if(slots_, [&](const Slot& slot) { return slot.key == key; });
    slots_.push_front({key, std::move(hints)});
    std::size_t entries = 0;
    std::size_t rank = 0;
    std::erase_if(slots_, [&](const Slot& slot) {
      if (rank++ == 0) return false;
      entries += slot.hints->size();
      return rank > kept_graphs || entries > kept_entries;
    });
  }

 private:
  struct Slot {
    Key key;
    std::unique_ptr<NameHints> hints;
  };
  std::list<Slot> slots_;
};

HintCache& cache() {
  static HintCache instance;
  return instance;
}

}  // namespace

void forget_names() noexcept { cache().clear(); }

std::optional<Py_ssize_t> find_by_name(PyObject* owner, const InternedName& field, PyObject* list, PyObject* name) {
  if (PyUnicode_Check(name) == 0 || length(list) <= walked_length) return walk_to_name(list, name);
  const Key key{owner, field.get()};
  std::unique_ptr<NameHints> hints = cache().take(key);
  const std::optional<Py_ssize_t> position = hints->find(list, name);
  cache().put(key, std::move(hints));
  return position;
}

}  // namespace onnxgraft::py
