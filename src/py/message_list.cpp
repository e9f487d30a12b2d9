// Reordering by the list's own `sort` with a key function, the only way in which protobuf moves messages without a
// copy.
//
// The key function ignores its argument and returns the positions one after the other, because sorting asks for the key
// of each element once, in list order. If a list asks more or less often, that is an error, and the order is put back.
#include "py/message_list.h"

#include <algorithm>
#include <ranges>
#include <string_view>
#include <utility>

#include "py/graph_fields.h"
#include "py/guard.h"
#include "py/objects.h"

namespace onnxgraft::py {

namespace {

constexpr const char* capsule_name = "onnxgraft.sort_keys";
constexpr const char* shrank = "the list shrank while it was reordered";

/// The keys, and how many of them were handed out.
struct SortKeys {
  std::vector<std::uint32_t> values;
  std::size_t next = 0;
};

PyObject* next_key(PyObject* capsule, PyObject* /*element*/) {
  return guarded([&] {
    auto* keys = static_cast<SortKeys*>(PyCapsule_GetPointer(capsule, capsule_name));
    if (keys == nullptr) throw PythonError{};
    if (keys->next == keys->values.size()) raise(PyExc_RuntimeError, "the list grew while it was reordered");
    return checked(PyLong_FromUnsignedLong(keys->values[keys->next++]));
  });
}

/// The position that each element of the sorted list came from.
std::vector<std::uint32_t> inverse(std::span<const std::uint32_t> target) {
  std::vector<std::uint32_t> source(target.size());
  for (std::uint32_t at = 0; at < target.size(); ++at) {
    if (target[at] >= source.size()) raise(PyExc_RuntimeError, shrank);
    source[target[at]] = at;
  }
  return source;
}

/// Disables the capsule when the keys go out of scope: a list may have kept the key function.
class ExpiringCapsule {
 public:
  explicit ExpiringCapsule(PyObject* capsule) : capsule_(capsule) {}
  ~ExpiringCapsule() { PyCapsule_SetName(capsule_, "onnxgraft.expired"); }
  ExpiringCapsule(const ExpiringCapsule&) = delete;
  ExpiringCapsule& operator=(const ExpiringCapsule&) = delete;

 private:
  PyObject* capsule_;
};

PyMethodDef next_key_method{"next_key", next_key, METH_O, nullptr};

/// Brings each element to its position in `target`.
void sort(PyObject* list, std::span<const std::uint32_t> target) {
  SortKeys state{{target.begin(), target.end()}};
  const Ref capsule = checked(PyCapsule_New(&state, capsule_name, nullptr));
  const ExpiringCapsule expiring(capsule.get());
  const Ref key = checked(PyCFunction_New(&next_key_method, capsule.get()));
  call_method(list, field::sort, {}, {{field::key, key.get()}});
  if (state.next != state.values.size()) raise(PyExc_RuntimeError, shrank);
}

}  // namespace

bool is_message_list(PyObject* list) {
  const std::string_view name = Py_TYPE(list)->tp_name;
  return name == "google._upb._message.RepeatedCompositeContainer" ||
         name == "google.protobuf.pyext._message.RepeatedCompositeContainer";  // until protobuf 3.20
}

void reorder(PyObject* list, std::span<const std::uint32_t> target) {
  if (std::ranges::is_sorted(target)) return;
  const std::vector<std::uint32_t> source = inverse(target);
  const auto moved = static_cast<std::size_t>(std::ranges::mismatch(target, std::views::iota(0U)).in1 - target.begin());
  const Ref element = item(list, static_cast<Py_ssize_t>(moved));
  try {
    sort(list, target);
  } catch (...) {
    // A list written in Python can raise after it was sorted. The first element that moves shows whether it was.
    clean_up_after_error([&] {
      if (item(list, target[moved]).get() == element.get()) sort(list, source);
    });
    throw;
  }
}

void delete_slice(PyObject* list, std::size_t begin, std::size_t end) {
  if (begin == end) return;
  const Ref first = checked(PyLong_FromSize_t(begin));
  const Ref last = checked(PyLong_FromSize_t(end));
  const Ref slice = checked(PySlice_New(first.get(), last.get(), nullptr));
  check(PyObject_DelItem(list, slice.get()));
}

void delete_positions(PyObject* list, const std::vector<std::size_t>& positions) {
  if (positions.empty()) return;
  const auto count = static_cast<std::size_t>(length(list));
  std::vector<std::uint32_t> target(count);
  std::uint32_t kept = 0;
  auto removed = static_cast<std::uint32_t>(count - positions.size());
  auto next = positions.begin();
  for (std::size_t at = 0; at < count; ++at) {
    const bool goes = next != positions.end() && *next == at;
    if (goes) ++next;
    target[at] = goes ? removed++ : kept++;
  }
  reorder(list, target);
  try {
    delete_slice(list, count - positions.size(), count);
  } catch (...) {
    clean_up_after_error([&] {
      if (std::cmp_equal(length(list), count)) reorder(list, inverse(target));
    });
    throw;
  }
}

}  // namespace onnxgraft::py
