// Converts a compiled rule to tuples for `parse`.
//
// The order is that of the lists. Nothing is interpreted here: what the notation means is decided in the core.
#include "abstract_transformation/parsing.h"

#include "py/objects.h"

namespace onnxgraft::py {

namespace {

/// A tuple of what `convert` makes of each element.
template <typename Elements, typename Convert>
Ref tuple_of(const Elements& elements, Convert convert) {
  Ref result = checked(PyTuple_New(static_cast<Py_ssize_t>(elements.size())));
  Py_ssize_t place = 0;
  for (const auto& element : elements) PyTuple_SET_ITEM(result.get(), place++, convert(element).release());
  return result;
}

Ref node(const core::Rule& rule, const std::string& op, const std::vector<core::LinkUse>& uses, core::LinkId output,
         bool rest) {
  const Ref inputs = tuple_of(uses, [&](const core::LinkUse& use) {
    return tuple({text(rule.links[use.link].id).get(), boolean(use.initializer).get()});
  });
  return tuple({text(op).get(), inputs.get(), text(rule.links[output].id).get(), boolean(rest).get()});
}

Ref node(const core::Rule& rule, const core::PatternNode& one) {
  return node(rule, one.op, one.inputs, one.output, one.rest);
}

Ref entry(const core::Rule& rule, const core::ReplacementEntry& one) {
  using enum core::EntryKind;
  if (one.kind == create) {
    const Ref made = node(rule, one.op, one.inputs, one.output, false);
    return tuple({made.get(), Py_None, Py_False});
  }
  const core::PatternNode& source = rule.nodes[one.source];
  const Ref made = one.kind == keep ? node(rule, source) : node(rule, source.op, one.inputs, one.output, false);
  return tuple({made.get(), integer(one.source).get(), boolean(one.kind == keep).get()});
}

}  // namespace

Ref parsed(const core::Rule& rule) {
  const Ref nodes = tuple_of(rule.nodes, [&](const core::PatternNode& one) { return node(rule, one); });
  const Ref entries = tuple_of(rule.entries, [&](const core::ReplacementEntry& one) { return entry(rule, one); });
  return tuple({nodes.get(), entries.get()});
}

}  // namespace onnxgraft::py
