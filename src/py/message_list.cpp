#include "py/message_list.h"

#include <algorithm>
#include <ranges>
#include <string_view>

#include "py/graph_fields.h"
#include "py/guard.h"
#include "py/objects.h"

namespace onnxgraft::py {

namespace {

constexpr const char* capsule_name = "onnxgraft.ranks";

/// Hands out the ranks one after the other, whatever element it is asked for: sorting asks for the key of
/// each element once, in list order.
struct Ranks {
  std::vector<std::size_t> values;
  std::size_t next = 0;
};

PyObject* next_rank(PyObject* capsule, PyObject* /*element*/) {
  return guarded([&] {
    auto* ranks = static_cast<Ranks*>(PyCapsule_GetPointer(capsule, capsule_name));
    if (ranks == nullptr) throw PythonError{};
    if (ranks->next == ranks->values.size()) raise(PyExc_RuntimeError, "the list grew while it was reordered");
    return checked(PyLong_FromSize_t(ranks->values[ranks->next++]));
  });
}

/// Makes the capsule useless when the ranks go out of scope, should a list have kept the key function.
class ExpiringCapsule {
 public:
  explicit ExpiringCapsule(PyObject* capsule) : capsule_(capsule) {}
  ~ExpiringCapsule() { PyCapsule_SetName(capsule_, "onnxgraft.expired"); }
  ExpiringCapsule(const ExpiringCapsule&) = delete;
  ExpiringCapsule& operator=(const ExpiringCapsule&) = delete;

 private:
  PyObject* capsule_;
};

PyMethodDef next_rank_method{"next_rank", next_rank, METH_O, nullptr};

}  // namespace

bool is_message_list(PyObject* list) {
  return std::string_view(Py_TYPE(list)->tp_name) == "google._upb._message.RepeatedCompositeContainer";
}

void reorder(PyObject* list, std::vector<std::size_t> ranks) {
  if (std::ranges::is_sorted(ranks)) return;
  Ranks state{std::move(ranks)};
  const Ref capsule = checked(PyCapsule_New(&state, capsule_name, nullptr));
  const ExpiringCapsule expiring(capsule.get());
  const Ref key = checked(PyCFunction_New(&next_rank_method, capsule.get()));
  call_method(list, field::sort, {}, {{field::key, key.get()}});
}

void delete_slice(PyObject* list, std::size_t begin, std::size_t end) {
  if (begin == end) return;
  const Ref first = checked(PyLong_FromSize_t(begin));
  const Ref last = checked(PyLong_FromSize_t(end));
  const Ref slice = checked(PySlice_New(first.get(), last.get(), nullptr));
  check(PyObject_DelItem(list, slice.get()));
}

void delete_positions(PyObject* list, const std::vector<std::size_t>& positions) {
  constexpr std::size_t few = 8;
  std::vector<std::pair<std::size_t, std::size_t>> runs;
  for (const std::size_t position : positions) {
    if (runs.empty() || runs.back().second != position) runs.emplace_back(position, position);
    ++runs.back().second;
  }
  if (runs.size() <= few) {
    for (const auto& [begin, end] : std::views::reverse(runs)) delete_slice(list, begin, end);
    return;
  }
  const auto count = static_cast<std::size_t>(length(list));
  std::vector<std::size_t> ranks(count);
  std::size_t kept = 0;
  std::size_t removed = count - positions.size();
  auto next = positions.begin();
  for (std::size_t at = 0; at < count; ++at) {
    const bool goes = next != positions.end() && *next == at;
    if (goes) ++next;
    ranks[at] = goes ? removed++ : kept++;
  }
  reorder(list, std::move(ranks));
  delete_slice(list, count - positions.size(), count);
}

}  // namespace onnxgraft::py
