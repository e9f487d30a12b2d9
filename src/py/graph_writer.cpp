// One rearrangement: make, reorder, cut off; and the way back from each step.
//
// New nodes are encoded and merged many at a time. Single insertions and deletions in the middle would move the rest of
// the list each time. What goes wrong half-way is undone from the list's real content, since a step may fail after it
// was done.
#include "py/graph_writer.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <unordered_map>
#include <utility>

#include "py/body_reader.h"
#include "py/graph_fields.h"
#include "py/graph_reader.h"
#include "py/guard.h"
#include "py/message_list.h"
#include "py/objects.h"
#include "py/wire_fields.h"

namespace onnxgraft::py {

using core::no_index;
using core::NodeIndex;

namespace {

constexpr auto absent = static_cast<std::uint32_t>(-1);

/// Makes the names the content of a repeated string field. For a few names, one by one is the fastest way.
void assign_names(PyObject* list, std::span<const core::NameId> ids, const core::Names& names) {
  const auto count = static_cast<std::size_t>(length(list));
  const std::size_t common = std::min(count, ids.size());
  for (std::size_t at = 0; at < common; ++at) {
    check(PySequence_SetItem(list, static_cast<Py_ssize_t>(at), text(names.text(ids[at])).get()));
  }
  if (count > common) delete_slice(list, common, count);
  for (std::size_t at = common; at < ids.size(); ++at) {
    call_method(list, field::append, {text(names.text(ids[at])).get()});
  }
}

}  // namespace

void GraphWriter::begin() {
  begun_ = true;
  sources_.resize(table_.node_count(), no_index);
  std::vector<NodeIndex> order(table_.original_count());
  std::iota(order.begin(), order.end(), NodeIndex{0});
  set_order(std::move(order));
}

void GraphWriter::follow(Ref nodes) {
  if (nodes.get() != nodes_.get()) nodes_ = std::move(nodes);
}

void GraphWriter::set_order(std::vector<NodeIndex> order) {
  order_ = std::move(order);
  position_.assign(table_.node_count(), absent);
  for (std::uint32_t at = 0; at < order_.size(); ++at) position_[order_[at]] = at;
}

Ref GraphWriter::object(NodeIndex node) const {
  if (is_held(node)) return held_[node].copy();
  return item(nodes_.get(), static_cast<Py_ssize_t>(position_[node]));
}

void GraphWriter::hold(NodeIndex node) {
  if (!is_held(node)) keep_object(node, object(node));
}

void GraphWriter::keep_object(NodeIndex node, Ref message) {
  if (node >= held_.size()) held_.resize(table_.node_count());
  held_[node] = std::move(message);
}

void GraphWriter::release(NodeIndex node) {
  if (!holds_all_ && is_held(node)) held_[node] = Ref();
}

void GraphWriter::hold_all() {
  if (holds_all_) return;
  const Ref elements = iterator(nodes_.get());
  for (const NodeIndex node : order_) {
    Ref message = next(elements.get());
    if (!message) raise(PyExc_RuntimeError, "the graph's node list changed while it was read");
    if (!is_held(node)) keep_object(node, std::move(message));
  }
  holds_all_ = true;
}

/// Whether the list still has the node's own object at that position.
bool GraphWriter::is_at(NodeIndex node, std::size_t position) const {
  if (static_cast<Py_ssize_t>(position) >= length(nodes_.get())) return false;
  return item(nodes_.get(), static_cast<Py_ssize_t>(position)).get() == held_[node].get();
}

/// One read of the list if nothing changed, which is nearly always. A change costs a reading of the whole list.
Py_ssize_t GraphWriter::position(NodeIndex node) {
  // Without `hold_all`, only the writer changes the list, and the position is known.
  if (position_[node] != absent && (!holds_all_ || is_at(node, position_[node])))
    return static_cast<Py_ssize_t>(position_[node]);
  read_again();
  return position_[node] == absent ? -1 : static_cast<Py_ssize_t>(position_[node]);
}

bool GraphWriter::synchronize() {
  if (!holds_all_) return false;
  bool same = length(nodes_.get()) == static_cast<Py_ssize_t>(order_.size());
  if (same) {
    const Ref elements = iterator(nodes_.get());
    for (std::size_t at = 0; same && at < order_.size(); ++at) {
      same = next(elements.get()).get() == held_[order_[at]].get();
    }
  }
  if (!same) read_again();
  return disturbed_;
}

/// Recognises nodes by the identity of their objects, which are held, so that no address can be reused.
void GraphWriter::read_again() {
  std::unordered_map<PyObject*, NodeIndex> known;
  for (NodeIndex node = 0; node < held_.size(); ++node) {
    if (held_[node]) known.emplace(held_[node].get(), node);
  }
  disturbed_ = true;
  std::vector<NodeIndex> order;
  const Ref elements = iterator(nodes_.get());
  while (const Ref message = next(elements.get())) {
    const auto found = known.find(message.get());
    const NodeIndex node = found != known.end() ? found->second : adopt(message.get());
    known.emplace(message.get(), node);
    order.push_back(node);
  }
  set_order(std::move(order));
}

/// Adds a row for a node that a callback added to the list.
NodeIndex GraphWriter::adopt(PyObject* message) {
  std::vector<core::NameId> inputs;
  std::vector<core::NameId> outputs;
  std::vector<core::NameId> implicit;
  read_strings(attribute(message, field::input).get(), table_.names, inputs);
  read_strings(attribute(message, field::output).get(), table_.names, outputs);
  read_body_inputs(message, table_.names, implicit);
  const Ref op = attribute(message, field::op_type);
  const NodeIndex node = table_.add_node(table_.ops.intern(utf8(op.get())), inputs, outputs, implicit);
  table_.node_names.resize(table_.node_count(), core::no_name);
  table_.node_names[node] = table_.names.intern(utf8(attribute(message, field::name).get()));
  keep_object(node, Ref::borrow(message));
  sources_.resize(table_.node_count(), no_index);
  return node;
}

void GraphWriter::set_source(NodeIndex new_node, NodeIndex source) {
  if (new_node >= sources_.size()) sources_.resize(table_.node_count(), no_index);
  sources_[new_node] = source;
}

/// Three steps: make what is missing at the end, reorder, and cut off what goes. `now` follows the list through all of
/// them, so that each can be undone.
void GraphWriter::rearrange(std::span<const NodeIndex> target) {
  sources_.resize(table_.node_count(), no_index);
  position_.resize(table_.node_count(), absent);
  std::vector<bool> stays(table_.node_count(), false);
  for (const NodeIndex node : target) stays[node] = true;

  const std::vector<NodeIndex> before = order_;
  std::vector<NodeIndex> now = before;
  bool sorted = false;
  try {
    make_missing(target, now);
    std::vector<NodeIndex> order(target.begin(), target.end());
    std::ranges::copy_if(before, std::back_inserter(order), [&](NodeIndex node) { return !stays[node]; });
    move_to(now, order);
    now = std::move(order);
    sorted = true;
    delete_slice(nodes_.get(), target.size(), now.size());
  } catch (...) {
    clean_up_after_error([&] {
      if (sorted && std::cmp_equal(length(nodes_.get()), target.size())) {
        become(target);  // the last step raised, but only after it was done
      } else {
        undo(now, before);
      }
    });
    throw;
  }
  become(target);
}

/// Notes that the list has this order now, and that the writer made it.
void GraphWriter::become(std::span<const NodeIndex> order) {
  set_order({order.begin(), order.end()});
  disturbed_ = false;
}

void GraphWriter::move_to(std::span<const NodeIndex> from, std::span<const NodeIndex> to) {
  std::vector<std::uint32_t> new_position(table_.node_count(), absent);
  for (std::uint32_t at = 0; at < to.size(); ++at) new_position[to[at]] = at;
  std::vector<std::uint32_t> target(from.size());
  for (std::size_t at = 0; at < from.size(); ++at) target[at] = new_position[from[at]];
  reorder(nodes_.get(), target);
}

/// Puts the list back: `now` is what it holds, new nodes included (the last of them perhaps not added yet).
void GraphWriter::undo(std::span<const NodeIndex> now, std::span<const NodeIndex> before) {
  const auto count = static_cast<std::size_t>(length(nodes_.get()));
  now = now.first(std::min(count, now.size()));
  std::vector<bool> there(table_.node_count(), false);
  for (const NodeIndex node : now) there[node] = true;
  std::vector<NodeIndex> back;
  for (const NodeIndex node : before) {
    if (there[node]) back.push_back(node);
  }
  for (const NodeIndex node : now) {
    if (position_[node] == absent) back.push_back(node);
  }
  move_to(now, back);
  delete_slice(nodes_.get(), before.size(), count);
}

/// Appends the nodes of `target` that the list lacks, and notes each in `now` before the list gets it.
void GraphWriter::make_missing(std::span<const NodeIndex> target, std::vector<NodeIndex>& now) {
  const std::size_t first = now.size();
  std::vector<NodeIndex> one_by_one;
  NodeEncoder encoder(graph_, table_);
  for (const NodeIndex node : target) {
    if (position_[node] != absent) continue;
    if (is_held(node) || !encoder.usable()) {
      one_by_one.push_back(node);
      continue;
    }
    now.push_back(node);
    if (!encode(node, encoder)) {
      now.pop_back();
      one_by_one.push_back(node);
    }
  }
  encoder.flush();
  // A new node's object is needed only to recognise the node in a list that a callback has changed.
  for (std::size_t at = first; holds_all_ && at < now.size(); ++at) {
    keep_object(now[at], item(nodes_.get(), static_cast<Py_ssize_t>(at)));
  }
  for (const NodeIndex node : one_by_one) {
    now.push_back(node);
    make(node);
  }
}

/// Passes a new node to the encoder; false for a node that must be made in the list itself.
bool GraphWriter::encode(NodeIndex node, NodeEncoder& encoder) const {
  const NodeIndex source = sources_[node];
  if (source == no_index) {
    encoder.add(node);
    return true;
  }
  // Large contents are copied within the list: one copy instead of three.
  if (may_be_large(table_.ops.text(table_.op(node)))) return false;
  return encoder.add_copy(node, object(source).get(), table_.node_names[source] == table_.node_names[node]);
}

/// Makes one node in the list itself: for graphs that cannot merge bytes, large contents, and nodes that come back.
void GraphWriter::make(NodeIndex node) {
  Ref message = call_method(nodes_.get(), field::add);
  const bool was_held = is_held(node);
  if (was_held) {
    // It was in the list before and comes back from the object that was taken out.
    call_method(message.get(), field::copy_from, {held_[node].get()});
  } else {
    fill(message.get(), node);
  }
  if (holds_all_ || was_held) keep_object(node, std::move(message));
}

/// Fills a new message in the list, from its source or from nothing.
void GraphWriter::fill(PyObject* message, NodeIndex node) {
  const NodeIndex source = sources_[node];
  const core::NameId name = table_.node_names[node];
  if (source != no_index) {
    call_method(message, field::copy_from, {object(source).get()});
  } else {
    set_attribute(message, field::op_type, text(table_.ops.text(table_.op(node))).get());
  }
  // An empty name and no name are different bytes, so a copy that keeps its name is not touched.
  if (source == no_index || table_.node_names[source] != name) {
    set_attribute(message, field::name, text(table_.names.text(name)).get());
  }
  assign_names(attribute(message, field::input).get(), table_.inputs(node), table_.names);
  assign_names(attribute(message, field::output).get(), table_.outputs(node), table_.names);
}

}  // namespace onnxgraft::py
