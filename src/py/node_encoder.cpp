// Encoding: tag, length, content, for a message whose fields are all length-delimited strings.
//
// Field numbers are those of onnx.proto. Unknown fields of a copied node are kept, since its bytes are copied by field
// and not by name.
#include "py/node_encoder.h"

#include "py/objects.h"
#include "py/wire_fields.h"

namespace onnxgraft::py {

namespace {

// A merge costs several thousand instructions by itself. At this size they are few per node, and the bytes are still
// small next to the graph.
constexpr std::size_t flush_size = std::size_t{1} << 18U;

constexpr std::uint8_t node_of_graph = 1;

/// Tag, length in groups of seven bits, content.
void append_field(std::string& bytes, std::uint8_t field_number, std::string_view content) {
  constexpr unsigned length_delimited = 2;
  constexpr unsigned more = 0x80;
  bytes.push_back(static_cast<char>((static_cast<unsigned>(field_number) << 3U) | length_delimited));
  std::size_t length = content.size();
  for (; length >= more; length >>= 7U) bytes.push_back(static_cast<char>((length & (more - 1)) | more));
  bytes.push_back(static_cast<char>(length));
  bytes += content;
}

}  // namespace

NodeEncoder::NodeEncoder(PyObject* graph, const core::GraphTable& table) : table_(table) {
  static const InternedName merge_from_string("MergeFromString");
  merge_ = optional_attribute(graph, merge_from_string);
}

void NodeEncoder::add_links(core::NodeIndex node) {
  node_.clear();
  for (const core::NameId name : table_.inputs(node)) append_field(node_, node_field::input, table_.names.text(name));
  for (const core::NameId name : table_.outputs(node)) append_field(node_, node_field::output, table_.names.text(name));
}

void NodeEncoder::finish_node() {
  append_field(waiting_, node_of_graph, node_);
  if (waiting_.size() >= flush_size) flush();
}

void NodeEncoder::add(core::NodeIndex node) {
  add_links(node);
  append_field(node_, node_field::name, table_.names.text(table_.node_names[node]));
  append_field(node_, node_field::op_type, table_.ops.text(table_.op(node)));
  finish_node();
}

bool NodeEncoder::add_copy(core::NodeIndex node, PyObject* source, bool keeps_name) {
  static const InternedName serialize("SerializePartialToString");
  const Ref method = optional_attribute(source, serialize);
  if (!method) return false;
  const Ref bytes = call(method.get(), {});
  if (PyBytes_CheckExact(bytes.get()) == 0) return false;
  add_links(node);
  if (!keeps_name) append_field(node_, node_field::name, table_.names.text(table_.node_names[node]));
  const auto size = static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.get()));
  WireFields fields({PyBytes_AS_STRING(bytes.get()), size});
  while (const auto field = fields.next()) {
    const bool is_link = field->number == node_field::input || field->number == node_field::output;
    if (!is_link && (keeps_name || field->number != node_field::name)) node_ += field->bytes;
  }
  finish_node();
  return true;
}

void NodeEncoder::flush() {
  if (waiting_.empty()) return;
  const Ref bytes = checked(PyBytes_FromStringAndSize(waiting_.data(), static_cast<Py_ssize_t>(waiting_.size())));
  waiting_.clear();
  call(merge_.get(), {bytes.get()});
}

}  // namespace onnxgraft::py
