// Searches and traces that change nothing, converted to dicts for tools.
//
// Each function reads the graph again, so that none depends on a pass. Sentences come from the core; this file only
// adds the debug line.
#include "abstract_transformation/report.h"

#include <array>
#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "core/nearest_miss.h"
#include "py/bad_names.h"
#include "py/objects.h"

namespace onnxgraft::py {

namespace {

void set(const Ref& dict, const char* key, const Ref& value) {
  check(PyDict_SetItemString(dict.get(), key, value.get()));
}

Ref node_number(core::NodeIndex node) { return node == core::no_index ? none() : integer(node); }

/// Short name of the transformation, its class's name if it has none.
std::string label(PyObject* transformation) {
  static const InternedName get_simple_name("get_simple_name");
  if (PyObject_HasAttr(transformation, get_simple_name.get()) != 0) {
    const Ref name = call_method(transformation, get_simple_name);
    if (PyUnicode_Check(name.get()) != 0) return std::string(utf8(name.get()));
  }
  return Py_TYPE(transformation)->tp_name;
}

/// Reads as much of the graph as matching needs.
core::GraphTable read_table(PyObject* graph, const core::Rule& rule) {
  GraphReading reading;
  GraphReader reader(graph, reading);
  with_places(graph, [&] {
    reader.read_operators(rule);
    reader.read_links();
  });
  return std::move(reading.table);
}

std::string milliseconds(std::chrono::steady_clock::duration time) {
  std::array<char, 32> buffer{};
  const double value = std::chrono::duration<double, std::milli>(time).count();
  const int size = std::snprintf(buffer.data(), buffer.size(), "%.2f ms", value);
  return {buffer.data(), static_cast<std::size_t>(size)};
}

Ref numbers(std::span<const core::NodeIndex> nodes) {
  Ref result = checked(PyList_New(0));
  for (const core::NodeIndex node : nodes) check(PyList_Append(result.get(), integer(node).get()));
  return result;
}

/// IndexError for one that the graph does not have.
std::vector<core::NodeIndex> node_numbers(PyObject* nodes, core::NodeIndex count) {
  std::vector<core::NodeIndex> result;
  const Ref elements = iterator(nodes);
  while (const Ref element = next(elements.get())) {
    const std::int64_t number = integer_value(element.get());
    if (std::cmp_less(number, 0) || std::cmp_greater_equal(number, count)) {
      raise(PyExc_IndexError, "there is no node %lld: the graph has %lld nodes", static_cast<long long>(number),
            static_cast<long long>(count));
    }
    result.push_back(static_cast<core::NodeIndex>(number));
  }
  return result;
}

Ref miss_as_dict(const core::GraphTable& table, const core::Rule& rule, const core::NearestMiss& miss) {
  Ref result = checked(PyDict_New());
  set(result, "matched", integer(miss.matched));
  set(result, "last_node", node_number(miss.last));
  set(result, "pattern_node", integer(miss.role));
  set(result, "node", node_number(miss.candidate));
  set(result, "reason", text(core::reason_name(miss.reason)));
  set(result, "input", integer(miss.slot));
  set(result, "tensor", miss.tensor == core::no_name ? none() : text(table.names.text(miss.tensor)));
  set(result, "reader", node_number(miss.reader));
  set(result, "text", text(core::describe(table, rule, miss)));
  return result;
}

}  // namespace

void write_debug_line(PyObject* transformation, PyObject* graph, PyObject* pattern, const core::Rule& rule,
                      const Pass::Counts& counts, std::chrono::steady_clock::duration time) {
  const Ref pattern_text = checked(PyObject_Repr(pattern));
  std::string line = label(transformation) + " " + std::string(utf8(pattern_text.get())) + ": found " +
                     std::to_string(counts.found) + ", replaced " + std::to_string(counts.replaced) + ", refused " +
                     std::to_string(counts.refused) + ", " + milliseconds(time);
  if (counts.found == 0) {
    const core::GraphTable table = read_table(graph, rule);
    const auto miss = core::find_nearest_miss(table, rule);
    if (miss) line += "; nearest miss: " + core::describe(table, rule, *miss);
  }
  line += '\n';
  static const InternedName write("write");
  PyObject* stream = PySys_GetObject("stderr");
  if (stream == nullptr || stream == Py_None) return;
  const Ref held = Ref::borrow(stream);
  call_method(held.get(), write, {text(line).get()});
}

Ref nearest_miss(PyObject* graph, const core::Rule& rule) {
  const core::GraphTable table = read_table(graph, rule);
  const auto miss = core::find_nearest_miss(table, rule);
  return miss ? miss_as_dict(table, rule, *miss) : none();
}

Ref trace_nodes(PyObject* graph, const std::vector<std::shared_ptr<const core::Rule>>& rules, PyObject* nodes) {
  if (rules.empty()) return checked(PyList_New(0));
  const core::GraphTable table = read_table(graph, *rules.front());
  const std::vector<core::NodeIndex> asked = node_numbers(nodes, table.original_count());
  Ref result = checked(PyList_New(0));
  for (std::size_t pair = 0; pair < rules.size(); ++pair) {
    const core::Rule& rule = *rules[pair];
    std::optional<core::NodeTrace> trace;  // made for the first node that the pattern has an operator for
    for (const core::NodeIndex node : asked) {
      for (std::uint32_t role = 0; role < rule.nodes.size(); ++role) {
        if (table.ops.text(table.op(node)) != rule.nodes[role].op) continue;
        check(PyErr_CheckSignals());
        if (!trace) trace.emplace(table, rule);
        const std::vector<core::NodeIndex> assignment = trace->assignment(role, node);
        const Ref one = checked(PyDict_New());
        set(one, "pair", integer(static_cast<std::int64_t>(pair)));
        set(one, "node", integer(node));
        set(one, "pattern_node", integer(role));
        set(one, "occurrence", assignment.empty() ? none() : numbers(assignment));
        set(one, "miss", assignment.empty() ? miss_as_dict(table, rule, trace->miss(role, node)) : none());
        check(PyList_Append(result.get(), one.get()));
      }
    }
  }
  return result;
}

Ref find_occurrences(PyObject* graph, const core::Rule& rule) {
  const core::GraphTable table = read_table(graph, rule);
  Ref result = checked(PyList_New(0));
  core::Candidates candidates(table, rule);
  core::Claims claims(table.original_count());
  core::RefusedSet refused;
  const core::OccurrenceList found = core::Search(table, rule, candidates, claims, refused).run();
  for (std::size_t index = 0; index < found.size(); ++index) {
    const Ref nodes = numbers(found.nodes(index));
    const Ref links = checked(PyDict_New());
    for (std::size_t link = 0; link < rule.links.size(); ++link) {
      if (!rule.links[link].in_pattern) continue;
      set(links, rule.links[link].id.c_str(), text(table.names.text(found.links(index)[link])));
    }
    const Ref occurrence = checked(PyDict_New());
    set(occurrence, "nodes", nodes);
    set(occurrence, "links", links);
    check(PyList_Append(result.get(), occurrence.get()));
  }
  return result;
}

}  // namespace onnxgraft::py
