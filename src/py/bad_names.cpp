// The search for the first name that is not UTF-8, in the order in which users read a graph: nodes and their bodies
// first, then the lists of tensors.
//
// Protobuf returns a name that is not UTF-8 as `bytes` instead of `str`, which is all that is tested here.
#include "py/bad_names.h"

#include <array>
#include <string>

#include "py/body_reader.h"
#include "py/graph_fields.h"

namespace onnxgraft::py {

namespace {

void test(PyObject* value, const std::string& place, const char* what) {
  if (PyBytes_Check(value) == 0) return;
  raise(PyExc_ValueError, "%s: %s %R is not UTF-8: all names in ONNX must be", place.c_str(), what, value);
}

void test_node(PyObject* node, const std::string& number) {
  const Ref op = attribute(node, field::op_type);
  test(op.get(), number, "operator");
  const std::string place = number + " (" + std::string(utf8(op.get())) + ")";
  test(attribute(node, field::domain).get(), place, "domain");
  test(attribute(node, field::name).get(), place, "name");
  for (const InternedName* links : {&field::input, &field::output}) {
    const std::string what = std::string(utf8(links->get())) + " ";
    const Ref names = attribute(node, *links);
    for (Py_ssize_t at = 0; at < length(names.get()); ++at) {
      test(item(names.get(), at).get(), place, (what + std::to_string(at)).c_str());
    }
  }
}

/// Calls `visit(element, place)` for each element of the list.
template <class Visit>
void for_each(PyObject* owner, const InternedName& list, const std::string& where, Visit visit) {
  const Ref elements = iterator(attribute(owner, list).get());
  for (std::size_t at = 0; const Ref element = next(elements.get()); ++at) {
    visit(element.get(), where + std::string(utf8(list.get())) + " " + std::to_string(at));
  }
}

void test_graph(PyObject* graph, const std::string& where) {
  for_each(graph, field::node, where, [](PyObject* node, const std::string& place) {
    test_node(node, place);
    for_each_body(node, [&](PyObject* body) { test_graph(body, place + ", body: "); });
  });
  for (const InternedName* list : {&field::initializer, &field::input, &field::output, &field::value_info}) {
    for_each(graph, *list, where, [](PyObject* record, const std::string& place) {
      test(attribute(record, field::name).get(), place, "name");
    });
  }
  for_each(graph, field::sparse_initializer, where, [](PyObject* record, const std::string& place) {
    test(attribute(attribute(record, field::values).get(), field::name).get(), place, "name");
  });
  for_each(graph, field::quantization_annotation, where, [](PyObject* record, const std::string& place) {
    test(attribute(record, field::tensor_name).get(), place, "tensor name");
  });
}

}  // namespace

void raise_bad_name(PyObject* graph) {
  PyErr_Clear();
  test_graph(graph, "");
  raise(PyExc_ValueError, "the graph had a name that is not UTF-8: all names in ONNX must be");
}

}  // namespace onnxgraft::py
