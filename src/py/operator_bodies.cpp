#include "py/operator_bodies.h"

#include <string>
#include <unordered_map>

#include "py/graph_fields.h"
#include "py/objects.h"

namespace onnxgraft::py {

namespace {

const InternedName attributes("attributes");
const InternedName get_schema("get_schema");
const InternedName type("type");
const InternedName values("values");

/// True if an attribute of the newest schema is a graph or a list of graphs.
bool schema_has_graphs(PyObject* schema) {
  const Ref entries = attribute(schema, attributes);
  const Ref elements = iterator(call_method(entries.get(), values).get());
  while (const Ref entry = next(elements.get())) {
    const Ref kind = checked(PyObject_Str(attribute(entry.get(), type).get()));
    if (utf8(kind.get()).find("GRAPH") != std::string_view::npos) return true;
  }
  return false;
}

/// An operator that the installed onnx does not know may carry bodies.
bool look_up(std::string_view op) {
  if (op == "TesselQuant" || op == "TesselDequant") return false;
  const Ref defs = checked(PyImport_ImportModule("onnx.defs"));
  const Ref name = text(op);
  const Ref method = attribute(defs.get(), get_schema);
  const Ref schema = Ref::steal(PyObject_CallOneArg(method.get(), name.get()));
  if (schema) return schema_has_graphs(schema.get());
  if (PyErr_ExceptionMatches(PyExc_Exception) == 0) throw PythonError{};
  PyErr_Clear();
  return true;
}

bool default_domain_answer(std::string_view op) {
  static std::unordered_map<std::string, bool> known;
  constexpr std::size_t capacity = 4096;
  const std::string key(op);
  if (const auto found = known.find(key); found != known.end()) return found->second;
  const bool answer = look_up(op);
  if (known.size() >= capacity) known.clear();
  known.emplace(key, answer);
  return answer;
}

}  // namespace

bool OperatorBodies::possible(PyObject* node, core::NameId op) {
  if (op >= answers_.size()) answers_.resize(ops_.size(), Answer::unknown);
  if (answers_[op] == Answer::unknown) {
    answers_[op] = default_domain_answer(ops_.text(op)) ? Answer::yes : Answer::no;
  }
  if (answers_[op] == Answer::yes) return true;
  const Ref domain = attribute(node, field::domain);
  const std::string_view name = utf8(domain.get());
  return !name.empty() && name != "ai.onnx";
}

}  // namespace onnxgraft::py
