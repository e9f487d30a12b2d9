// Reads pairs of lists and keeps what they compile to.
//
// The key is the content of both lists, so a list may change between two passes. The cache is emptied when it is full;
// a rule in use stays alive. Must not know graphs.
#include "abstract_transformation/rule_cache.h"

#include <string>
#include <unordered_map>
#include <vector>

#include "py/objects.h"

namespace onnxgraft::py {

namespace {

std::vector<std::string> read_list(PyObject* list, const char* what) {
  const bool is_sequence = PySequence_Check(list) != 0 && PyUnicode_Check(list) == 0;
  if (!is_sequence) {
    raise(PyExc_TypeError, "%s must be a list of strings like \"Conv:0,1i->2\", not %.200s", what,
          Py_TYPE(list)->tp_name);
  }
  std::vector<std::string> strings;
  const Py_ssize_t count = length(list);
  for (Py_ssize_t index = 0; index < count; ++index) {
    const Ref element = item(list, index);
    if (PyUnicode_Check(element.get()) == 0) {
      raise(PyExc_TypeError, "%s: element %zd must be a str, not %.200s", what, index, Py_TYPE(element.get())->tp_name);
    }
    strings.emplace_back(utf8(element.get()));
  }
  return strings;
}

/// Lengths make the joined text unambiguous whatever the strings hold.
void add_to_key(std::string& key, const std::vector<std::string>& strings) {
  key += std::to_string(strings.size()) + ';';
  for (const std::string& string : strings) key += std::to_string(string.size()) + ':' + string;
}

}  // namespace

std::shared_ptr<const core::Rule> compiled_rule(PyObject* pattern, PyObject* replacement) {
  constexpr std::size_t capacity = 512;
  static std::unordered_map<std::string, std::shared_ptr<const core::Rule>> rules;

  const std::vector<std::string> pattern_strings = read_list(pattern, "subgraph");
  const std::vector<std::string> replacement_strings = read_list(replacement, "replacement");
  std::string key;
  add_to_key(key, pattern_strings);
  add_to_key(key, replacement_strings);
  if (const auto found = rules.find(key); found != rules.end()) return found->second;
  auto rule = std::make_shared<const core::Rule>(core::compile_rule(pattern_strings, replacement_strings));
  if (rules.size() >= capacity) rules.clear();
  rules.emplace(std::move(key), rule);
  return rule;
}

}  // namespace onnxgraft::py
